#include "payload_guard.h"

#include <cstring>

namespace ai_service {

void PayloadGuard::write(uint8_t* payload, const void* record, size_t size) {
    // While the head is still what we left there, the picture under it is the one saved before.
    if (!m_active || std::memcmp(payload, m_expected, kHeadSize) != 0) {
        std::memcpy(m_saved, payload, kHeadSize);
    }
    m_active = true;
    std::memcpy(payload, record, size < kHeadSize ? size : kHeadSize);
    std::memcpy(m_expected, payload, kHeadSize);
}

void PayloadGuard::afterClientRecord(const uint8_t* payload, bool followsGet) {
    if (!m_active) {
        return;
    }
    // A record that does not follow our read may have landed on a newer picture: its head is gone.
    if (!followsGet) {
        m_active = false;
        return;
    }
    std::memcpy(m_expected, payload, kHeadSize);
}

void PayloadGuard::afterClientValue(const uint8_t* payload, size_t size) {
    if (!m_active) {
        return;
    }
    if (size >= kHeadSize || std::memcmp(payload + size, m_expected + size, kHeadSize - size) != 0) {
        m_active = false;
        return;
    }
    std::memcpy(m_expected, payload, size);
}

bool PayloadGuard::restore(uint8_t* payload) {
    if (!m_active) {
        return false;
    }
    m_active = false;
    if (std::memcmp(payload, m_expected, kHeadSize) != 0) {
        return false;
    }
    std::memcpy(payload, m_saved, kHeadSize);
    return true;
}

}  // namespace ai_service
