#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "dbg_log.h"
#include "osal.h"
#include "service_runner.h"

namespace {

ai_service::ServiceRunner* g_runner = nullptr;

void onSignal(int) {
    if (g_runner != nullptr) {
        g_runner->requestStop();
    }
}

}  // namespace

int main(int argc, char** argv) {
    ai_service::Options options;
    bool help = false;
    std::string message;
    if (!ai_service::parseOptions(argc, argv, &options, &help, &message)) {
        std::fprintf(stderr, "ai_service: %s\n\n%s", message.c_str(), ai_service::usageText());
        return 2;
    }
    if (help) {
        std::fputs(ai_service::usageText(), stdout);
        return 0;
    }
    osalInitOnce();
    dbgInit();

    ai_service::ServiceRunner runner(options);
    g_runner = &runner;
    // No SA_RESTART: the blocking receive returns at once and the loop sees the stop.
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    int status = runner.run();
    g_runner = nullptr;
    return status;
}
