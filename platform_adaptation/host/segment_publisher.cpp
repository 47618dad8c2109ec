#include "segment_publisher.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>

#include "ai_service_protocol.h"
#include "dbg_log.h"

#define SP_TAG "[Platform Adaptation]"

namespace host {

namespace proto = ai_service_protocol;

void SegmentPublisher::publish(const uint8_t* rgb) {
    // Created here as well, so that capture works whichever side comes up first.
    int id = shmget(proto::kShmKey, proto::kShmSize, proto::kShmFlags);
    if (id < 0) {
        if (!m_failureLogged) {
            DBG_LOG(DBG_LEVEL_ERROR, SP_TAG,
                    "shmget of key %d failed: %s(%d); the AI service will not see the pictures.\n",
                    proto::kShmKey, strerror(errno), errno);
            m_failureLogged = true;
        }
        return;
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        DBG_LOG(DBG_LEVEL_ERROR, SP_TAG, "shmat of key %d failed: %s(%d).\n", proto::kShmKey, strerror(errno),
                errno);
        return;
    }
    m_failureLogged = false;
    std::memcpy(static_cast<uint8_t*>(addr) + proto::kPayloadOffset, rgb, proto::kPictureBytes);
    shmdt(addr);
}

}  // namespace host
