#ifndef TOOLS_AIPQ_SERVICE_CHECK_SEGMENT_VIEW_H
#define TOOLS_AIPQ_SERVICE_CHECK_SEGMENT_VIEW_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "ai_service_protocol.h"

namespace service_check {

// What one request looked like from the segment.
struct Answer {
    int code = 1;           // what the daemon's client made of it
    bool answered = false;  // a final state appeared while the client was still waiting
    int32_t state = ai_service_protocol::kStatePosted;
    double ms = 0;                  // from the request to the state change
    std::vector<uint8_t> atChange;  // header and the payload's head, copied as the state changed
    std::vector<uint8_t> settled;   // the same bytes a settle time later, when asked for
};

// The check's own view of the segment: the client's polls are too coarse to time an answer or
// to see whether the results were in place when the state word said so.
class SegmentView {
public:
    // The header and the payload bytes the results of any command occupy.
    static constexpr size_t kHeadBytes =
        ai_service_protocol::kPayloadOffset + ai_service_protocol::kModelConfigSize;
    static_assert(ai_service_protocol::kModelConfigSize >= ai_service_protocol::kPredictResultSize,
                  "largest result");
    static constexpr int kSettleMs = 200;

    ~SegmentView();
    // Attaches the segment the key names now; false when there is none.
    bool attach();
    uint8_t* segment() { return m_segment; }
    uint8_t* payload() { return m_segment + ai_service_protocol::kPayloadOffset; }
    int32_t state() const;
    void setState(int32_t value);

    // Runs `call`, one request of the client, while a thread of ours polls the state word every
    // 0.2 ms and, every 10 ms, `giveUp` (which may cut the client's wait short). With `settle`,
    // the head is read again kSettleMs after the client has returned.
    Answer timed(const std::function<int()>& call, bool settle, const std::function<bool()>& giveUp);

private:
    uint8_t* m_segment = nullptr;
    int m_id = -1;
};

bool isFinalState(int32_t state);

}  // namespace service_check

#endif
