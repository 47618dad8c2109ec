#ifndef TOOLS_AI_SERVICE_PAYLOAD_GUARD_H
#define TOOLS_AI_SERVICE_PAYLOAD_GUARD_H

#include <cstddef>
#include <cstdint>

#include "ai_service_protocol.h"

namespace ai_service {

// The picture and the small request/result records share the payload. The capture writes the
// picture first; the configuration exchange that may follow (get config: 832 bytes out, set
// config: 832 bytes in, set AI type: 4 bytes in) and earlier results then sit over the picture's
// first bytes when the prediction is asked for. The guard keeps the picture's head from before
// the service's first write over it, follows what the exchange leaves there, and puts the head
// back when, at prediction time, the payload still holds exactly that: otherwise a new picture
// has arrived and is used as it is. The service writes its records only through the guard.
class PayloadGuard {
public:
    // The largest record either side writes over the picture.
    static constexpr size_t kHeadSize = ai_service_protocol::kModelConfigSize;

    // Writes the service's own record of `size` bytes (at most kHeadSize) to the payload's start.
    void write(uint8_t* payload, const void* record, size_t size);
    // A whole configuration record arrived from the client; `followsGet` when the request just
    // before it was the read of the configuration, i.e. nothing else can have come in between.
    void afterClientRecord(const uint8_t* payload, bool followsGet);
    // A short value (the AI type) arrived from the client over the first `size` bytes.
    void afterClientValue(const uint8_t* payload, size_t size);
    // Before the picture is read: true when the saved head was put back.
    bool restore(uint8_t* payload);

    bool active() const { return m_active; }

private:
    bool m_active = false;
    uint8_t m_saved[kHeadSize] = {};
    uint8_t m_expected[kHeadSize] = {};
};

}  // namespace ai_service

#endif
