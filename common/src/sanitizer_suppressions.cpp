// Sanitizer builds only (linked into every program): what the sanitizers report inside system
// libraries that are not built with them. Their own locking is invisible to ThreadSanitizer, and
// DirectFB keeps some of its memory until the process ends.
extern "C" const char* __tsan_default_suppressions() {
    return "mutex:libdirect-1.7.so.7\n"
           "race:libdirect-1.7.so.7\n"
           "deadlock:libdirect-1.7.so.7\n"
           "thread:libdirect-1.7.so.7\n"
           "race:libfusion-1.7.so.7\n"
           "mutex:libfusion-1.7.so.7\n"
           "deadlock:libgdal.so\n"
           "race:libopencv_core.so\n"
           "race:libopencv_dnn.so\n"
           "race:libtbb.so\n";
}

extern "C" const char* __lsan_default_suppressions() {
    return "leak:libdirectfb-1.7.so.7\nleak:libfusion-1.7.so.7\nleak:libdirect-1.7.so.7\n";
}
