#include <gtest/gtest.h>

#include "sandbox_reexec.h"

// DirectFB's support library trips ThreadSanitizer's mutex checks in its own start-up code.
// OpenCV, its TBB thread pool and GDAL (registered by OpenCV's image codecs) are not built with
// the sanitizer either: their own synchronisation is invisible to it.
extern "C" const char* __tsan_default_suppressions() {
    return "mutex:libdirect-1.7.so.7\ndeadlock:libgdal.so\nrace:libopencv_core.so\nrace:libopencv_dnn.so\n"
           "race:libtbb.so\n";
}

// Tests use the fixed segment key, queue name and marker paths, and start the real binaries:
// each test process re-executes itself inside a private sandbox so that runs never meet.
int main(int argc, char** argv) {
    reexecInSandbox();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
