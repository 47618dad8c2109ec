// The queue and the segment replaced, or left behind in the wrong shape, while the daemon and the
// AI service run: both ends and the capture follow what the names stand for now.
#include <fcntl.h>

#include "e2e_harness.h"

namespace e2e {
namespace {

class ChannelE2E : public Harness {
protected:
    static size_t rows() { return pqRows("pq_history").size(); }
    // The built-in scene changes every cycle: rows keep coming only while fresh pictures are
    // classified and the answers reach the daemon.
    void expectRowsKeepComing(const char* after) {
        const size_t before = rows();
        EXPECT_TRUE(eventually([&] { return rows() >= before + 3; })) << after << "\n" << m_daemon->output();
    }
    static void expectQueueShape(long maxMessages, long messageSize) {
        mqd_t queue = mq_open(proto::kQueueName, O_RDONLY);
        mq_attr attr = {};
        EXPECT_EQ(queue == static_cast<mqd_t>(-1) ? -1 : mq_getattr(queue, &attr), 0) << "the name is there";
        EXPECT_EQ(attr.mq_maxmsg, maxMessages);
        EXPECT_EQ(attr.mq_msgsize, messageSize);
        mq_close(queue);
    }
};

// Made with room for 8-byte messages: every 40-byte command would be refused, for ever.
TEST_F(ChannelE2E, StaleQueueOfAnotherShapeIsMadeAnewAtStart) {
    mq_attr attr = {};
    attr.mq_maxmsg = 5;
    attr.mq_msgsize = 8;
    mqd_t stale = mq_open(proto::kQueueName, O_RDWR | O_CREAT, 0666, &attr);
    ASSERT_NE(stale, static_cast<mqd_t>(-1));
    mq_close(stale);
    startService();  // listens on the stale one until the daemon replaces it
    ASSERT_TRUE(m_service->waitForOutput("listening on", 10s)) << m_service->output();
    startDaemon();
    expectRowsKeepComing("stale queue at start");
    expectQueueShape(5, 40);
    EXPECT_EQ(m_daemon->count("Message too long"), 0) << m_daemon->output();
    stop(*m_daemon);
}

// The name unlinked under both ends: made again by the daemon, or by a restarted service.
class QueueUnlinked : public ChannelE2E, public ::testing::WithParamInterface<bool> {};

TEST_P(QueueUnlinked, TheDaemonSendsIntoTheQueueTheNameStandsForNow) {
    const bool restartService = GetParam();
    startService();
    startDaemon();
    ASSERT_TRUE(eventually([&] { return predicts() >= 2; })) << m_daemon->output();
    if (restartService) {
        m_service.reset();
    }
    ASSERT_EQ(mq_unlink(proto::kQueueName), 0);
    if (restartService) {
        startService();
    }
    const long before = predicts();
    EXPECT_TRUE(eventually([&] { return predicts() >= before + 3; })) << m_daemon->output();
    expectRowsKeepComing("queue unlinked");
    expectQueueShape(5, 40);
    stop(*m_daemon);
}

INSTANTIATE_TEST_SUITE_P(Channel, QueueUnlinked, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "ServiceRestarted" : "ServiceRunsOn";
                         });

// As "ipcrm -M 72314" does: the capture makes a new segment at once, the daemon and the service
// must follow it, and nobody may keep the removed one alive.
TEST_F(ChannelE2E, SegmentRemovedWhileRunningIsUsedAnewByCaptureDaemonAndService) {
    startService();
    startDaemon();
    ASSERT_TRUE(eventually([&] { return rows() >= 2; })) << m_daemon->output();
    ASSERT_EQ(shmctl(shmget(proto::kShmKey, 0, 0), IPC_RMID, nullptr), 0);
    expectRowsKeepComing("segment removed");
    void* header = shmat(shmget(proto::kShmKey, 0, 0), nullptr, SHM_RDONLY);
    ASSERT_NE(header, reinterpret_cast<void*>(-1));
    EXPECT_EQ(*static_cast<uint32_t*>(header), 150552u) << "size word of the segment in use";
    shmdt(header);
    const std::string table = readFile("/proc/sysvipc/shm");  // a heading, then one line a segment
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2) << "the removed one is still attached\n"
                                                               << table;
    stop(*m_daemon);
}

}  // namespace
}  // namespace e2e
