#ifndef TOOLS_AI_SERVICE_SERVICE_LOG_H
#define TOOLS_AI_SERVICE_SERVICE_LOG_H

#include "dbg_log.h"

#define AIPQ_TAG_SERVICE "[AI Service]"

#define AS_LOGE(fmt, ...) DBG_LOG(DBG_LEVEL_ERROR, AIPQ_TAG_SERVICE, fmt, ##__VA_ARGS__)
#define AS_LOGN(fmt, ...) DBG_LOG(DBG_LEVEL_NOTICE, AIPQ_TAG_SERVICE, fmt, ##__VA_ARGS__)
#define AS_LOGD(fmt, ...) DBG_LOG(DBG_LEVEL_DEBUG, AIPQ_TAG_SERVICE, fmt, ##__VA_ARGS__)
#define AS_LOGT(fmt, ...) DBG_LOG(DBG_LEVEL_TRACE, AIPQ_TAG_SERVICE, fmt, ##__VA_ARGS__)

#endif
