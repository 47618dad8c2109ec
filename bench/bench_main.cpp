#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dbg_log.h"
#include "osal.h"

// The capture writes into the fixed segment key and the dump goes to the fixed marker path, so the
// binary runs itself inside a private sandbox: no other run, test or host TV ever sees them, and the
// generated inputs on the sandbox's tmpfs are gone when it ends.
int main(int argc, char** argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg(argv[i]);
        if (arg.rfind("--benchmark_list_tests", 0) == 0 || arg == "--help") {
            listing = true;
        }
    }
    if (!listing && std::getenv("AIPQ_SANDBOXED") == nullptr) {
        std::string sandbox = std::string(AIPQ_SOURCE_DIR) + "/scripts/sandbox.sh";
        std::vector<char*> args;
        args.push_back(const_cast<char*>(sandbox.c_str()));
        for (int i = 0; i < argc; ++i) {
            args.push_back(argv[i]);
        }
        args.push_back(nullptr);
        execv(sandbox.c_str(), args.data());
        std::perror("execv sandbox");
        return 1;
    }

    // The daemon logs at its default level while it works; formatting those lines is part of what a
    // piece costs, keeping them is not.
    setenv("AIPQ_LOG_FILE", "/dev/null", 0);
    osalInitOnce();
    dbgInit();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
