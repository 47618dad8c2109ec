#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host_platform.h"

// A broken invariant ends the run like a crash (the stack names the line); libFuzzer keeps the input.
#define FUZZ_CHECK(c) ((c) ? (void)0 : (std::fputs("invariant broken: " #c "\n", stderr), std::abort()))

// A fuzz input read front to back; past its end everything reads as zero bytes.
struct FuzzInput {
    const uint8_t* data;
    size_t left;
    void bytes(void* out, size_t n) {
        const size_t k = std::min(n, left);
        std::fill_n(std::copy_n(data, k, static_cast<uint8_t*>(out)), n - k, 0);
        data += k, left -= k;
    }
    template <typename T>
    T take() {
        T value;
        return bytes(&value, sizeof(value)), value;
    }
    std::string text(size_t n) {
        std::string s(std::min(n, left), '\0');
        return bytes(&s[0], s.size()), s;
    }
};

// Repeats `pattern` over the n bytes at `out`; an empty pattern leaves them alone.
inline void fillRepeating(void* out, size_t n, const std::string& pattern) {
    auto* p = static_cast<char*>(out);
    for (size_t done = 0, step = pattern.size(); done < n && step > 0; done += step, step = done) {
        std::copy_n(done == 0 ? pattern.data() : p, std::min(step, n - done), p + done);
    }
}

// A file in memory, which the code under test opens by its path under /proc/self/fd.
struct MemFile {
    const int fd = memfd_create("fuzz", 0);
    const std::string name = std::to_string(fd), path = "/proc/self/fd/" + name;
    void write(const std::string& text) const {
        FUZZ_CHECK(ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) == ssize_t(text.size()));
    }
};

// Log lines up to the default level (debug) are still formatted, so that a bad argument is caught,
// but none is printed.
inline const bool g_logsQuiet = (host::setLogSink([](const std::string&) {}), true);
