// The daemon's start and end as a process: the readiness marker and SIGTERM.
#include <fcntl.h>
#include <unistd.h>

#include "e2e_harness.h"

namespace e2e {
namespace {

class ProcessEntryE2E : public Harness {};

bool channelExists() {
    mqd_t queue = mq_open(proto::kQueueName, O_RDONLY);
    if (queue != static_cast<mqd_t>(-1)) {
        mq_close(queue);
    }
    return queue != static_cast<mqd_t>(-1) || segmentExists();
}

// Real time here: the marker is polled every 100 ms in blocks of 5 s, and it appears just as a
// block begins.
TEST_F(ProcessEntryE2E, NothingIsBuiltBeforeTheReadinessMarkerAndStartIsPromptAfterIt) {
    unlink("/var/run/BIZREADY2");
    startDaemon({"AIPQ_TIME_SCALE=1"});
    ASSERT_TRUE(m_daemon->waitForOutput("waiting 5s for service ready!", 10s)) << m_daemon->output();
    EXPECT_FALSE(channelExists());

    std::ofstream("/var/run/BIZREADY2").close();
    const auto marked = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually(segmentExists, 10s)) << m_daemon->output();
    EXPECT_LT(std::chrono::steady_clock::now() - marked, 2500ms);
    stop(*m_daemon);
}

}  // namespace
}  // namespace e2e
