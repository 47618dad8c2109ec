#ifndef PLATFORM_ADAPTATION_DBG_LOG_H
#define PLATFORM_ADAPTATION_DBG_LOG_H

#include <cstring>

// Level word: module number in the upper 16 bits, level in the lower 16.
#define DBG_MODULE_AIPQ 0x1C7u
#define DBG_LEVEL_WORD(level) ((DBG_MODULE_AIPQ << 16) | (static_cast<unsigned int>(level) & 0xFFFFu))

#define DBG_LEVEL_ENTRY 1
#define DBG_LEVEL_ERROR 1000
#define DBG_LEVEL_NOTICE 3000
#define DBG_LEVEL_DEBUG 4000
#define DBG_LEVEL_TRACE 5000

void dbgInit();
bool dbgLevelEnabled(unsigned int levelWord);
void dbgOutput(const char* format, ...) __attribute__((format(printf, 1, 2)));

inline const char* dbgBaseName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// "%s:%d:%s(): %s " + message: file base name, line, function, module tag. DBG_LOG_IN names the
// function itself, for a helper that logs on behalf of its caller.
#define DBG_LOG_IN(func, level, tag, fmt, ...)                                                           \
    do {                                                                                                 \
        if (dbgLevelEnabled(DBG_LEVEL_WORD(level))) {                                                    \
            dbgOutput("%s:%d:%s(): %s " fmt, dbgBaseName(__FILE__), __LINE__, func, tag, ##__VA_ARGS__); \
        }                                                                                                \
    } while (0)
#define DBG_LOG(level, tag, fmt, ...) DBG_LOG_IN(__func__, level, tag, fmt, ##__VA_ARGS__)

#define DBG_ENTER(tag) DBG_LOG(DBG_LEVEL_ENTRY, tag, "[%s][%d] ENTER\n", __func__, __LINE__)
#define DBG_RETURN(tag) DBG_LOG(DBG_LEVEL_ENTRY, tag, "[%s][%d] RETURN\n", __func__, __LINE__)
#define DBG_RETURN_VAL(tag, val) \
    DBG_LOG(DBG_LEVEL_ENTRY, tag, "[%s][%d] val(%d) RETURN\n", __func__, __LINE__, static_cast<int>(val))

#endif
