// The host port under systemd: readiness and stopping sent to NOTIFY_SOCKET, and log lines that
// carry a syslog priority instead of a timestamp when standard error is the journal.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

#include "dbg_log.h"
#include "frame_process.h"
#include "host_platform.h"
#include "log_capture.h"
#include "osal.h"
#include "picture_capture.h"
#include "service_notify.h"

namespace {

using namespace std::chrono_literals;

// A datagram socket standing in for systemd's notification socket.
class NotifySocket {
public:
    NotifySocket() {
        m_path = "/tmp/aipq_notify." + std::to_string(getpid());
        ::unlink(m_path.c_str());
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", m_path.c_str());
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        struct timeval timeout = {5, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        setenv("NOTIFY_SOCKET", m_path.c_str(), 1);
    }
    ~NotifySocket() {
        unsetenv("NOTIFY_SOCKET");
        ::close(m_fd);
        ::unlink(m_path.c_str());
    }
    std::string receive() {
        char buffer[256];
        ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
        return n < 0 ? "(nothing)" : std::string(buffer, static_cast<size_t>(n));
    }
    bool empty() {
        char buffer[256];
        return ::recv(m_fd, buffer, sizeof(buffer), MSG_DONTWAIT) < 0;
    }

private:
    std::string m_path;
    int m_fd = -1;
};

TEST(HostSystemd, RunSendsReadyWhenItBeginsAndStoppingWhenTheExitRequestArrives) {
    NotifySocket socket;
    std::thread request([] {
        std::this_thread::sleep_for(200ms);
        host::requestProcessExit();
    });
    std::thread run([] { EXPECT_EQ(frame::Process::getInstance().run(), 0); });
    EXPECT_EQ(socket.receive(), "READY=1");
    request.join();
    run.join();
    EXPECT_EQ(socket.receive(), "STOPPING=1");
    EXPECT_TRUE(socket.empty());
    // After run() the teardown says nothing more.
    host::notifyLeavingWithoutRun();
    EXPECT_TRUE(socket.empty());
}

TEST(HostSystemd, ATeardownWithoutRunTellsReadyAndStoppingOnce) {
    NotifySocket socket;
    { PictureCapture capture; }
    EXPECT_EQ(socket.receive(), "READY=1");
    EXPECT_EQ(socket.receive(), "STOPPING=1");
    { PictureCapture capture; }
    EXPECT_TRUE(socket.empty());
}

TEST(HostSystemd, NothingIsSentWithoutNotifySocket) {
    unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(host::notifyServiceManager("READY=1"));
    setenv("NOTIFY_SOCKET", "relative/path", 1);
    EXPECT_FALSE(host::notifyServiceManager("READY=1"));
    unsetenv("NOTIFY_SOCKET");
}

void setJournalStream(const std::string& value) {
    setenv("JOURNAL_STREAM", value.c_str(), 1);
    dbgInit();
}

std::string stderrIdentity() {
    struct stat st {};
    EXPECT_EQ(fstat(STDERR_FILENO, &st), 0);
    return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

TEST(HostSystemd, UnderJournaldEachLineHasItsPriorityAndNoTimestamp) {
    setJournalStream(stderrIdentity());
    LogCapture log(5000);
    DBG_LOG(DBG_LEVEL_ENTRY, "[Test]", "entry\n");
    DBG_LOG(DBG_LEVEL_ERROR, "[Test]", "error\n");
    DBG_LOG(DBG_LEVEL_NOTICE, "[Test]", "notice\n");
    DBG_LOG(DBG_LEVEL_DEBUG, "[Test]", "debug\n");
    DBG_LOG(DBG_LEVEL_TRACE, "[Test]", "trace\n");
    // Another thread's level is its own: an error there leaves this thread's next notice at <5>.
    std::thread other([] {
        if (dbgLevelEnabled(DBG_LEVEL_WORD(DBG_LEVEL_ERROR))) {
            dbgOutput("%s", "other thread\n");
        }
    });
    other.join();
    if (dbgLevelEnabled(DBG_LEVEL_WORD(DBG_LEVEL_NOTICE))) {
        dbgOutput("%s", "notice again\n");
    }
    unsetenv("JOURNAL_STREAM");
    dbgInit();
    const auto lines = log.lines();
    const std::vector<std::pair<std::string, std::string>> want = {
        {"<7>", "[Test] entry\n"}, {"<3>", "[Test] error\n"}, {"<5>", "[Test] notice\n"},
        {"<7>", "[Test] debug\n"}, {"<7>", "[Test] trace\n"}, {"<3>", "other thread\n"},
        {"<5>", "notice again\n"}};
    ASSERT_EQ(lines.size(), want.size());
    const std::regex timestamp("[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]{3} ");
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(lines[i].substr(0, 3), want[i].first) << lines[i];
        EXPECT_EQ(lines[i].substr(lines[i].size() - want[i].second.size()), want[i].second) << lines[i];
        EXPECT_FALSE(std::regex_search(lines[i], timestamp)) << lines[i];
    }
}

TEST(HostSystemd, AJournalStreamThatIsNotStderrChangesNothing) {
    setJournalStream("1:1");
    LogCapture log(5000);
    DBG_LOG(DBG_LEVEL_ERROR, "[Test]", "error\n");
    unsetenv("JOURNAL_STREAM");
    dbgInit();
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_search(lines[0], std::regex("^[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]{3} \\[")))
        << lines[0];
}

}  // namespace
