#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_OVERLAY_LOG_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_OVERLAY_LOG_H

#include "dbg_log.h"

// The overlay's lines put the module tag first: "[aipq] file:line:function(): message".
#define OVL_TAG "aipq"

#define OVL_LOG(level, fmt, ...)                                                                   \
    do {                                                                                           \
        if (dbgLevelEnabled(DBG_LEVEL_WORD(level))) {                                              \
            dbgOutput("[%s] %s:%d:%s(): " fmt, OVL_TAG, dbgBaseName(__FILE__), __LINE__, __func__, \
                      ##__VA_ARGS__);                                                              \
        }                                                                                          \
    } while (0)

#define OVL_LOGE(fmt, ...) OVL_LOG(DBG_LEVEL_ERROR, fmt, ##__VA_ARGS__)
#define OVL_LOGD(fmt, ...) OVL_LOG(DBG_LEVEL_DEBUG, fmt, ##__VA_ARGS__)
#define OVL_LOGT(fmt, ...) OVL_LOG(DBG_LEVEL_TRACE, fmt, ##__VA_ARGS__)

// One line per public operation, with the full signature so that overloads can be told apart.
#define OVL_TRACE()                                                                                \
    do {                                                                                           \
        if (dbgLevelEnabled(DBG_LEVEL_WORD(DBG_LEVEL_TRACE))) {                                    \
            dbgOutput("[TRACE] %s:%d:%s\n", dbgBaseName(__FILE__), __LINE__, __PRETTY_FUNCTION__); \
        }                                                                                          \
    } while (0)

#endif
