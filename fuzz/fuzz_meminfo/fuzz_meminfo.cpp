// The memory summary as any text: every figure is a kilobyte count or -1 for a key that is not
// there, and a check settles on the state the controller's thresholds give the available figure.
#include "fuzz_input.h"
#include "mem_monitor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemFile file;
    FuzzInput in{data, size};
    const bool modelLoaded = in.take<uint8_t>() & 1;  // picks the controller's pair of thresholds
    const int enough = modelLoaded ? 80 : 120, limit = modelLoaded ? 50 : 90;
    const std::string text = in.text(size);
    file.write(text);

    MemoryMonitor monitor(file.path.c_str());
    monitor.setThreshold(enough, limit);
    MemoryInfo info;
    FUZZ_CHECK(monitor.getMemoryInfo(info));
    const char* const keys[] = {"MemTotal", "MemFree",    "MemAvailable", "Buffers",
                                "Cached",   "SwapCached", "SwapFree"};
    int32_t figures[7];  // in the order of the keys
    std::memcpy(figures, &info, sizeof(figures));
    for (int i = 0; i < 7; ++i) {
        FUZZ_CHECK(figures[i] >= -1 && (figures[i] == -1 || text.find(keys[i]) != std::string::npos));
    }
    monitor.updateMemoryState();
    const MemoryState state = monitor.getMemoryState();
    FUZZ_CHECK(state == (info.available >= enough  ? MemoryStateEnough
                         : info.available >= limit ? MemoryStateLimit
                                                   : MemoryStateLack));
    FUZZ_CHECK(monitor.enableMemoryState() == (state != MemoryStateLack));
    return 0;
}
