// Frame dumps of any size and colour mode: rows are padded to four bytes in the file, and both size
// fields count the rows without that padding, so they fall short of its length by exactly that.
#include <fstream>
#include <iterator>
#include <vector>

#include "ai_common.h"
#include "fuzz_input.h"
#include "picture_store.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemFile file;
    static PictureStore* store = PictureStore::createForTest(file.path, "/proc/self/fd");
    FuzzInput in{data, size};
    const int32_t width = in.take<int32_t>(), height = in.take<int32_t>();
    const auto mode = static_cast<korvane::ai::ColorMode>(in.take<int32_t>());
    const size_t rows = width > 0 && height > 0 ? size_t(height) : 0, row = rows > 0 ? size_t(width) * 3 : 0;
    if (rows * row > (3 << 18)) {
        return 0;  // the caller's buffer holds every pixel: keep it within memory
    }
    // Exactly the picture's bytes, so that a read past them is caught: the input's, repeated.
    std::vector<uint8_t> pixels(rows * row / 3 * getChannels(mode));
    fillRepeating(pixels.data(), pixels.size(), in.text(size));
    korvane::ai::PictureData picture{pixels.data(), width, height, mode, 0};
    store->savePicture(&picture, file.name.c_str());

    std::ifstream stream(file.path, std::ios::binary);
    const std::string bmp{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    FUZZ_CHECK(bmp.size() == 54 + rows * ((row + 3) / 4 * 4) && bmp.compare(0, 2, "BM") == 0);
    uint32_t h[13];  // the little-endian words from offset 2 on
    std::memcpy(h, bmp.data() + 2, sizeof(h));
    FUZZ_CHECK(h[0] == 54 + rows * row && h[2] == 54 && h[8] == rows * row && h[4] == uint32_t(width) &&
               h[5] == uint32_t(height));
    return 0;
}
