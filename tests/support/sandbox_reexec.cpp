#include "sandbox_reexec.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

void reexecInSandbox() {
    if (std::getenv("AIPQ_SANDBOXED") != nullptr) {
        return;
    }
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> args;
    for (std::string arg; std::getline(in, arg, '\0');) {
        if (arg.rfind("--gtest_list_tests", 0) == 0) {
            return;
        }
        args.push_back(arg);
    }
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0 || args.empty()) {
        return;
    }
    self[n] = '\0';
    args[0] = self;
    std::string sandbox = std::string(AIPQ_SOURCE_DIR) + "/scripts/sandbox.sh";
    if (access(sandbox.c_str(), X_OK) != 0) {
        // Copied to a board without the source tree: the fixed queue name and segment key would be
        // the board's own daemon's, unless the caller has isolated the run and says so.
        if (std::getenv("AIPQ_TEST_ISOLATED") == nullptr) {
            std::fprintf(stderr, "%s not found: run the tests in a sandbox of your own and set "
                                 "AIPQ_TEST_ISOLATED=1, or they would touch this machine's daemon\n",
                         sandbox.c_str());
            _exit(2);
        }
        return;
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(sandbox.c_str()));
    for (auto& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    execv(sandbox.c_str(), argv.data());
    std::perror("execv sandbox");
    _exit(1);
}
