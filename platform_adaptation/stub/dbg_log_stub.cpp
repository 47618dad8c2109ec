// Log lines to stderr. A port hands them to the TV's own log service instead.
#include <cstdarg>
#include <cstdio>

#include "dbg_log.h"

void dbgInit() {}

bool dbgLevelEnabled(unsigned int levelWord) {
    return (levelWord >> 16) == DBG_MODULE_AIPQ && (levelWord & 0xFFFFu) <= DBG_LEVEL_DEBUG;
}

void dbgOutput(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}
