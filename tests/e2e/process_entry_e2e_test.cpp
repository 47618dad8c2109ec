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

TEST_F(ProcessEntryE2E, NothingIsBuiltBeforeTheReadinessMarker) {
    unlink("/var/run/BIZREADY2");
    startDaemon();
    ASSERT_TRUE(m_daemon->waitForOutput("waiting 5s for service ready!", 10s)) << m_daemon->output();
    EXPECT_FALSE(channelExists());
    std::ofstream("/var/run/BIZREADY2").close();
    ASSERT_TRUE(eventually(segmentExists)) << m_daemon->output();
    stop(*m_daemon);
}

// On an unsupported TV the daemon stops the AI service and ends by itself, never joining the
// framework's run.
TEST_F(ProcessEntryE2E, AnUnsupportedTvStopsTheServiceAndExitsZeroWithoutRunning) {
    tvctl("set aipq_supported 0");
    startService();
    startDaemon();
    EXPECT_EQ(m_daemon->wait(60s), 0) << m_daemon->output();
    EXPECT_EQ(m_service->wait(10s), 0) << "the service was not stopped";
    const std::vector<std::string> received = commands();
    EXPECT_EQ(received.empty() ? "" : received.back(), proto::kCmdStopAiService);
    EXPECT_TRUE(m_daemon->waitForOutput("AIPQ is not supported on current TV.", 1s));
    EXPECT_EQ(m_daemon->output().find("Process Run Start."), std::string::npos);
}

}  // namespace
}  // namespace e2e
