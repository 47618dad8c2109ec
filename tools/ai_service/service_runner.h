#ifndef TOOLS_AI_SERVICE_SERVICE_RUNNER_H
#define TOOLS_AI_SERVICE_SERVICE_RUNNER_H

#include <mqueue.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "command_handler.h"
#include "service_options.h"

namespace ai_service {

// The service's side of the channel: the segment, the queue (followed across client restarts)
// and the loop that answers each command.
class ServiceRunner {
public:
    explicit ServiceRunner(const Options& options);
    virtual ~ServiceRunner();

    // Returns the process exit status once stopped by a command, --exit-after or requestStop().
    int run();
    // Async-signal-safe: also wakes the loop when it is already waiting.
    void requestStop();

protected:
    // Answers one posted command: its results into the payload, then the state word. Services
    // that get this wrong on purpose, to prove a conformance check, replace it.
    virtual void answer(const char* message, size_t length, uint8_t* payload, int32_t* state);
    CommandHandler& handler() { return m_handler; }

private:
    bool attachSegment();
    // Moves to the segment the key names now, when it was removed or replaced: the client posts
    // its requests there.
    void followSegment();
    bool openQueue(bool create);
    // Re-checks which queue the name stands for and moves to a newer one.
    void followQueue();
    // Watches the queue's directory on the mqueue file system of our own IPC namespace, so that a
    // replaced queue is noticed without waking to look. False when there is none: then we poll.
    bool watchQueueDirectory();
    // Reads the pending change events; true when one may concern the queue's name.
    bool drainQueueEvents();
    void dropStaleBacklog();
    void serve(const char* message, size_t length);
    void trace(const char* message, size_t length);

    Options m_options;
    CommandHandler m_handler;
    std::atomic<bool> m_stop{false};
    uint8_t* m_segment = nullptr;
    int m_segmentId = -1;
    mqd_t m_queue = static_cast<mqd_t>(-1);
    dev_t m_queueDev = 0;
    ino_t m_queueIno = 0;
    bool m_nameGoneLogged = false;
    int m_watch = -1;
    int m_wake[2] = {-1, -1};
    long m_commands = 0;
    FILE* m_trace = nullptr;
    FILE* m_record = nullptr;
};

}  // namespace ai_service

#endif
