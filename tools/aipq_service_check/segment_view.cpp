#include "segment_view.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

namespace service_check {

namespace proto = ai_service_protocol;
using Clock = std::chrono::steady_clock;

bool isFinalState(int32_t state) {
    return state == proto::kStateDone || state == proto::kStateFailed || state == proto::kStateNotInit ||
           state == proto::kStateNoModel;
}

SegmentView::~SegmentView() {
    if (m_segment != nullptr) {
        shmdt(m_segment);
    }
}

bool SegmentView::attach() {
    int id = shmget(proto::kShmKey, 0, 0);
    if (id < 0) {
        return false;
    }
    if (id == m_id && m_segment != nullptr) {
        return true;
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        return false;
    }
    if (m_segment != nullptr) {
        shmdt(m_segment);
    }
    m_segment = static_cast<uint8_t*>(addr);
    m_id = id;
    return true;
}

int32_t SegmentView::state() const {
    return __atomic_load_n(reinterpret_cast<int32_t*>(m_segment + proto::kHeaderStateOffset),
                           __ATOMIC_ACQUIRE);
}

void SegmentView::setState(int32_t value) {
    __atomic_store_n(reinterpret_cast<int32_t*>(m_segment + proto::kHeaderStateOffset), value,
                     __ATOMIC_RELEASE);
}

Answer SegmentView::timed(const std::function<int()>& call, bool settle,
                          const std::function<bool()>& giveUp) {
    Answer answer;
    if (!attach()) {
        answer.code = call();
        return answer;
    }
    // As the client does first: from here on anything final is the service's answer.
    setState(proto::kStatePosted);
    std::atomic<bool> clientDone{false};
    const Clock::time_point start = Clock::now();
    auto record = [&](int32_t state) {
        answer.ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        answer.atChange.assign(m_segment, m_segment + kHeadBytes);
        answer.state = state;
        answer.answered = true;
    };
    std::thread watcher([&] {
        const struct timespec step = {0, 200000L};
        for (long polls = 1; !clientDone.load(); ++polls) {
            int32_t state = this->state();
            if (isFinalState(state)) {
                record(state);
                return;
            }
            if (polls % 50 == 0 && giveUp()) {
                // It may have answered just before it went, as after a stop.
                if (isFinalState(this->state())) {
                    record(this->state());
                }
                return;
            }
            nanosleep(&step, nullptr);
        }
    });
    answer.code = call();
    clientDone = true;
    watcher.join();
    // The watcher was not scheduled in time: the client's own sight of the answer is the latest.
    if (!answer.answered && isFinalState(state())) {
        record(state());
    }
    if (settle && answer.answered) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
        answer.settled.assign(m_segment, m_segment + kHeadBytes);
    }
    return answer;
}

}  // namespace service_check
