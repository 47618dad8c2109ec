// Puts the debug overlay on screen with the real DirectFB, the way the recognition controller does,
// and then follows commands on stdin so that a test can look at the screen in between.
//
//   aipq_overlay_driver [--text TEXT] [--unswapped]
//
// Prints "OVERLAY READY" or "NO OVERLAY" after creating the display. Commands, one a line:
//   show    set up the text and the picture again and Show(); answers "SHOWN"
//   clear   Clear(); answers "CLEARED"
//   create  try to create the display again; answers as at start
//   quit    (or end of input) exit with status 0
// The picture is 224 x 224 with four quadrants (RGB): top left 230,40,20; top right 20,200,60;
// bottom left 30,60,220; bottom right 240,220,30. Like the controller, the driver swaps it to
// blue-green-red before handing it over; --unswapped hands over the red-green-blue bytes as they are.
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "aipq_display.h"

// Sanitizer builds: DirectFB leaves some of its own memory at exit and trips ThreadSanitizer in
// its start-up; the overlay's own leaks are the unit tests' business.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libdirectfb-1.7.so.7\nleak:libfusion-1.7.so.7\nleak:libdirect-1.7.so.7\n";
}
extern "C" const char* __tsan_default_suppressions() {
    return "mutex:libdirect-1.7.so.7\n";
}

namespace {

constexpr int kSide = 224;

std::vector<unsigned char> quadrantPicture() {
    const unsigned char colours[4][3] = {{230, 40, 20}, {20, 200, 60}, {30, 60, 220}, {240, 220, 30}};
    std::vector<unsigned char> rgb(kSide * kSide * 3);
    for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
            const unsigned char* c = colours[(y >= kSide / 2 ? 2 : 0) + (x >= kSide / 2 ? 1 : 0)];
            unsigned char* p = &rgb[(y * kSide + x) * 3];
            p[0] = c[0];
            p[1] = c[1];
            p[2] = c[2];
        }
    }
    return rgb;
}

// The controller's conversion: swap the first and third byte of every pixel.
void rgbToBgr(std::vector<unsigned char>& pixels) {
    for (size_t i = 0; i + 2 < pixels.size(); i += 3) {
        std::swap(pixels[i], pixels[i + 2]);
    }
}

std::shared_ptr<korvane::aipq::AIPQDisplay> createDisplay() {
    std::shared_ptr<korvane::aipq::AIPQDisplay> display = korvane::aipq::AIPQDisplay::create();
    std::cout << (display ? "OVERLAY READY" : "NO OVERLAY") << std::endl;
    return display;
}

}  // namespace

int main(int argc, char** argv) {
    std::string text = "AIPQ OVERLAY\nSecond line";
    bool swap = true;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--text" && i + 1 < argc) {
            text = argv[++i];
        } else if (arg == "--unswapped") {
            swap = false;
        }
    }

    std::vector<unsigned char> picture = quadrantPicture();
    if (swap) {
        rgbToBgr(picture);
    }

    std::shared_ptr<korvane::aipq::AIPQDisplay> display = createDisplay();
    std::string command;
    while (std::getline(std::cin, command)) {
        if (command == "quit") {
            break;
        }
        if (command == "create") {
            if (!display) {
                display = createDisplay();
            } else {
                std::cout << "OVERLAY READY" << std::endl;
            }
        } else if (command == "show" && display) {
            std::string copy = text;
            display->setupTextObject(copy, 5);
            display->setupImageObject(picture.data(), kSide, kSide);
            display->Show();
            std::cout << "SHOWN" << std::endl;
        } else if (command == "clear" && display) {
            display->Clear();
            std::cout << "CLEARED" << std::endl;
        } else {
            std::cout << "UNKNOWN " << command << std::endl;
        }
    }
    return 0;
}
