#ifndef COMMON_AIPQ_LOG_H
#define COMMON_AIPQ_LOG_H

#include "dbg_log.h"

#define AIPQ_TAG_MANAGER "[AI Manager]"
#define AIPQ_TAG_COMMON "[AIPQ Common]"

// Daemon modules (process entry, controller, adapters, AI service client).
#define AM_LOGE(fmt, ...) DBG_LOG(DBG_LEVEL_ERROR, AIPQ_TAG_MANAGER, fmt, ##__VA_ARGS__)
#define AM_LOGN(fmt, ...) DBG_LOG(DBG_LEVEL_NOTICE, AIPQ_TAG_MANAGER, fmt, ##__VA_ARGS__)
#define AM_LOGD(fmt, ...) DBG_LOG(DBG_LEVEL_DEBUG, AIPQ_TAG_MANAGER, fmt, ##__VA_ARGS__)
#define AM_LOGT(fmt, ...) DBG_LOG(DBG_LEVEL_TRACE, AIPQ_TAG_MANAGER, fmt, ##__VA_ARGS__)
#define AM_LOGS(fmt, ...) DBG_LOG(DBG_LEVEL_ENTRY, AIPQ_TAG_MANAGER, fmt, ##__VA_ARGS__)
#define AM_ENTER() DBG_ENTER(AIPQ_TAG_MANAGER)
#define AM_RETURN() DBG_RETURN(AIPQ_TAG_MANAGER)
#define AM_RETURN_VAL(v) DBG_RETURN_VAL(AIPQ_TAG_MANAGER, v)

// Common utilities.
#define AC_LOGE(fmt, ...) DBG_LOG(DBG_LEVEL_ERROR, AIPQ_TAG_COMMON, fmt, ##__VA_ARGS__)
#define AC_LOGD(fmt, ...) DBG_LOG(DBG_LEVEL_DEBUG, AIPQ_TAG_COMMON, fmt, ##__VA_ARGS__)

#endif
