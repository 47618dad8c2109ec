#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

// DirectFB's support library trips ThreadSanitizer's mutex checks in its own start-up code.
// OpenCV, its TBB thread pool and GDAL (registered by OpenCV's image codecs) are not built with
// the sanitizer either: their own synchronisation is invisible to it.
extern "C" const char* __tsan_default_suppressions() {
    return "mutex:libdirect-1.7.so.7\ndeadlock:libgdal.so\nrace:libopencv_core.so\nrace:libopencv_dnn.so\n"
           "race:libtbb.so\n";
}

// End-to-end tests run the real binaries with fixed IPC names and marker paths: each test
// process re-executes itself inside a private sandbox so that runs never meet.
int main(int argc, char** argv) {
#ifdef AIPQ_E2E
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]).rfind("--gtest_list_tests", 0) == 0) {
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
        perror("execv sandbox");
        return 1;
    }
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
