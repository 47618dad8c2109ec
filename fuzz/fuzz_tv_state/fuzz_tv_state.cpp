// A TV-state file of any bytes and length: an integer is read only from a short file that holds
// one and nothing else, and the text reader returns the file's head, never more.
#include <climits>

#include "fuzz_input.h"
#include "tv_state_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemFile file;
    [[maybe_unused]] static const int dir = setenv("AIPQ_TV_DIR", "/proc/self/fd", 1);
    FuzzInput in{data, size};
    // The input's bytes, repeated past both read limits when its first byte asks for that.
    const size_t length = in.take<uint8_t>() * 300u;
    const std::string bytes = in.text(size);
    std::string content(std::max(length, bytes.size()), '\0');
    fillRepeating(&content[0], content.size(), bytes);
    file.write(content);

    // One decimal integer between blanks, in fewer than 32 bytes.
    const char* blanks = " \t\n\v\f\r";
    const size_t begin = std::min(content.find_first_not_of(blanks), content.size());
    const std::string text = content.substr(begin, content.find_last_not_of(blanks) + 1 - begin);
    const size_t sign = text[0] == '-' || text[0] == '+';
    const bool digits = text.size() > sign && text.find_first_not_of("0123456789", sign) == std::string::npos;
    const long long number = digits ? std::strtoll(text.c_str(), nullptr, 10) : 0;
    const bool isInt = content.size() < 32 && digits && number >= INT_MIN && number <= INT_MAX;
    host::ReadStatus status;
    const int value = host::readTvInt(file.name, &status);
    FUZZ_CHECK(status == (isInt ? host::ReadStatus::Ok : host::ReadStatus::Garbage));
    FUZZ_CHECK(value == (isInt ? number : 0));
    FUZZ_CHECK(host::readTvText(file.name) == content.substr(0, 64 * 1024));
    return 0;
}
