// Checks an AI service against what ai_manager needs of it, through the daemon's own client.
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "dbg_log.h"
#include "osal.h"
#include "service_check.h"

namespace {

const char* kUsage =
    "usage: aipq_service_check [--service \"COMMAND ARGS\"] [--service-log FILE] [--rounds N] [--verbose]\n"
    "Drives an AI service through ai_manager's own client, as the daemon would, and prints one line per\n"
    "check: PASS, FAIL (the daemon needs it), WARN (advice) or NOT RUN, with what was seen.\n"
    "\n"
    "  --service CMD      start the service with this shell command line: the check then also sees it\n"
    "                     start after the client and before it, stop, and end. Without it the service\n"
    "                     must already run, and it is stopped at the end\n"
    "  --service-log FILE the started service's output (default: this program's stderr)\n"
    "  --rounds N         rounds of the cold sequence to time (default 5)\n"
    "  --verbose          the client's own log on stderr\n"
    "\n"
    "RECOGNITION_MODEL_PATH and the other RECOGNITION_* variables act on the model configuration as\n"
    "they do in the daemon. Needs the segment and the queue to itself: run it without the daemon.\n"
    "Exit status: 0 nothing failed, 1 a check failed, 2 the check could not run.\n";

}  // namespace

int main(int argc, char** argv) {
    service_check::Settings settings;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--service" && hasValue) {
            settings.serviceCommand = argv[++i];
        } else if (arg == "--service-log" && hasValue) {
            settings.serviceLog = argv[++i];
        } else if (arg == "--rounds" && hasValue) {
            settings.rounds = std::atoi(argv[++i]);
            if (settings.rounds < 1) {
                std::fprintf(stderr, "aipq_service_check: --rounds needs a positive number\n\n%s", kUsage);
                return 2;
            }
        } else if (arg == "--verbose") {
            verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "aipq_service_check: unknown or incomplete option %s\n\n%s", arg.c_str(),
                         kUsage);
            return 2;
        }
    }
    osalInitOnce();
    // The client logs its deliberate failures as errors; the report says what matters. The level is
    // read once, here, and the started service gets the environment as it was.
    const char* level = std::getenv("AIPQ_LOG_LEVEL");
    const std::string saved = level != nullptr ? level : "";
    if (!verbose) {
        setenv("AIPQ_LOG_LEVEL", "0", 1);
    }
    dbgInit();
    dbgLevelEnabled(DBG_LEVEL_WORD(DBG_LEVEL_ERROR));
    if (level == nullptr) {
        unsetenv("AIPQ_LOG_LEVEL");
    } else {
        setenv("AIPQ_LOG_LEVEL", saved.c_str(), 1);
    }
    service_check::ServiceCheck check(settings, stdout);
    return check.run();
}
