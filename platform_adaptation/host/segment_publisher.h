#ifndef PLATFORM_ADAPTATION_HOST_SEGMENT_PUBLISHER_H
#define PLATFORM_ADAPTATION_HOST_SEGMENT_PUBLISHER_H

#include <cstdint>

namespace host {

// Leaves each captured picture in the AI service's payload, where a TV's video path would. The
// segment is attached for the copy only: the daemon's service client maps the same pages for
// good, and a second standing mapping would count them twice in the daemon's resident set.
class SegmentPublisher {
public:
    // Copies a 224 x 224 RGB picture behind the segment's header; failures are only logged, once
    // until the segment can be had again.
    void publish(const uint8_t* rgb);

private:
    bool m_failureLogged = false;
};

}  // namespace host

#endif
