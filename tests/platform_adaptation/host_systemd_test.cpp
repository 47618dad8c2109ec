// The host port under systemd: notifications, and the journal's priorities in the log.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>

#include "dbg_log.h"
#include "frame_process.h"
#include "host_platform.h"
#include "log_capture.h"
#include "picture_capture.h"
#include "service_notify.h"

namespace {

// Stands in for systemd's notification socket; receive() gives one datagram, "" after 2 s.
struct NotifySocket {
    // In the sandbox's own /run: every sandboxed test has a small pid of its own namespace, and
    // another test's socket in a shared /tmp could carry the same one.
    std::string path = "/run/aipq_notify." + std::to_string(getpid());
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    NotifySocket() {
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
        EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        struct timeval timeout = {2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~NotifySocket() { ::close(fd), ::unlink(path.c_str()), unsetenv("NOTIFY_SOCKET"); }
    std::string receive() {
        char buffer[64];
        ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
        return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    }
};

TEST(HostSystemd, RunSendsReadyAsItBeginsAndStoppingAtTheExitRequestAndTheTeardownNothingMore) {
    NotifySocket socket;
    std::thread run([] { EXPECT_EQ(frame::Process::getInstance().run(), 0); });
    EXPECT_EQ(socket.receive(), "READY=1");
    host::requestProcessExit();
    run.join();
    EXPECT_EQ(socket.receive(), "STOPPING=1");
    { PictureCapture capture; }
    EXPECT_EQ(socket.receive(), "");
}

TEST(HostSystemd, ATeardownWithoutRunSendsReadyThenStoppingOnceAndNothingWithoutTheSocket) {
    EXPECT_FALSE(host::notifyServiceManager("READY=1"));
    NotifySocket socket;
    { PictureCapture capture; }
    EXPECT_EQ(socket.receive(), "READY=1");
    EXPECT_EQ(socket.receive(), "STOPPING=1");
    { PictureCapture capture; }
    EXPECT_EQ(socket.receive(), "");
}

// Each level's priority, also the level asked for last on this thread when another asked another.
TEST(HostSystemd, UnderJournaldEachLineHasItsPriorityAndNoTimestamp) {
    struct stat st {};
    fstat(STDERR_FILENO, &st);
    setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino)).c_str(), 1);
    dbgInit();
    LogCapture log(5000);
    for (unsigned int level :
         {DBG_LEVEL_ENTRY, DBG_LEVEL_ERROR, DBG_LEVEL_NOTICE, DBG_LEVEL_DEBUG, DBG_LEVEL_TRACE}) {
        DBG_LOG(level, "[Test]", "level %u\n", level);
    }
    bool notice = dbgLevelEnabled(DBG_LEVEL_WORD(DBG_LEVEL_NOTICE));
    std::thread([] {
        dbgLevelEnabled(DBG_LEVEL_WORD(DBG_LEVEL_ERROR)) && (dbgOutput("error\n"), true);
    }).join();
    notice && (dbgOutput("notice\n"), true);
    unsetenv("JOURNAL_STREAM"), dbgInit();
    const std::vector<std::string> want = {"<7>", "<3>", "<5>", "<7>", "<7>", "<3>", "<5>"};
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(lines[i].substr(0, 4), want[i] + "[") << lines[i];
        EXPECT_FALSE(std::regex_search(lines[i], std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\."))) << lines[i];
    }
}

TEST(HostSystemd, AJournalStreamThatIsNotStderrChangesNothing) {
    setenv("JOURNAL_STREAM", "1:1", 1), dbgInit();
    LogCapture log(5000);
    DBG_LOG(DBG_LEVEL_ERROR, "[Test]", "error\n");
    unsetenv("JOURNAL_STREAM"), dbgInit();
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(std::regex_search(log.lines()[0], std::regex("^[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\[")));
}

}  // namespace
