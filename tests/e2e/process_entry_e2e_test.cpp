// The real daemon in a private sandbox: readiness wait, support check, orderly SIGTERM exit.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "child_process.h"
#include "process_entry.h"

using namespace std::chrono_literals;

namespace {

const std::string kBin = AIPQ_BIN_DIR;
const std::string kTvDir = "/var/run/aipq_tv";

void writeState(const std::string& key, int value) {
    mkdir(kTvDir.c_str(), 0755);
    std::ofstream(kTvDir + "/" + key) << value << "\n";
}

// Supported and switched on, but nothing playing: the worker stays down.
void idleTv(bool supported) {
    writeState("aipq_supported", supported ? 1 : 0);
    writeState("aipq_switch", 1);
    writeState("aipq_available", 1);
    writeState("source_type", 2);
    writeState("player_state", 0);
    writeState("hdr_type", 1);
}

bool segmentExists() {
    std::string out;
    runCommand("ipcs -m", &out);
    return out.find("0x00011a7a") != std::string::npos;
}

TEST(ProcessEntryE2E, WaitsForReadinessConstructingNothingThenStartsAtOnce) {
    ASSERT_NE(std::getenv("AIPQ_SANDBOXED"), nullptr);
    idleTv(true);
    unlink("/var/run/BIZREADY2");
    ChildProcess daemon({kBin + "/ai_manager"}, {"AIPQ_TV_DIR=" + kTvDir, "AIPQ_LOG_LEVEL=4000"});

    ASSERT_TRUE(daemon.waitForOutput("waiting 5s for service ready! ... \n\n", 8s));
    auto firstWait = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon.count("[main]"), 0) << daemon.output();
    EXPECT_EQ(daemon.count("shmget key"), 0);
    EXPECT_FALSE(segmentExists()) << "nothing may be built before the business layer is ready";
    ASSERT_TRUE(daemon.waitForOutput("waiting 5s for service ready! ... ", 8s, 2));
    double gapMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - firstWait).count();
    EXPECT_GT(gapMs, 4000.0);
    EXPECT_LT(gapMs, 6500.0);

    std::ofstream("/var/run/BIZREADY2").close();
    auto touched = std::chrono::steady_clock::now();
    ASSERT_TRUE(daemon.waitForOutput("main(): [AI Manager] [main]", 5s));
    double reactMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - touched).count();
    EXPECT_LT(reactMs, 400.0) << "the marker is polled every 100 ms";

    ASSERT_TRUE(daemon.waitForOutput("Process Run Start.", 10s)) << daemon.output();
    EXPECT_TRUE(segmentExists());
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(20s), 0) << daemon.output();
    std::string out = daemon.output();
    size_t runEnd = out.find("Process Run End.");
    size_t memStop = out.find("Stop memory check process.");
    size_t queueStop = out.find("m_loopSendMessageQueue:");
    ASSERT_NE(runEnd, std::string::npos) << out;
    ASSERT_NE(memStop, std::string::npos) << out;
    ASSERT_NE(queueStop, std::string::npos) << out;
    EXPECT_LT(runEnd, memStop);
    EXPECT_LT(memStop, queueStop) << "the memory monitor goes before the AI service client";
}

TEST(ProcessEntryE2E, UnsupportedTvStopsTheServiceAndExitsZeroWithoutRunning) {
    idleTv(false);
    std::ofstream("/var/run/BIZREADY2").close();
    ChildProcess daemon({kBin + "/ai_manager"}, {"AIPQ_TV_DIR=" + kTvDir, "AIPQ_TIME_SCALE=10"});
    EXPECT_EQ(daemon.wait(30s), 0) << daemon.output();
    EXPECT_EQ(daemon.count("AIPQ is not supported on current TV."), 1);
    EXPECT_EQ(daemon.count("Process Run Start."), 0);
    EXPECT_GE(daemon.count("ai_service_stop_ai_service"), 1) << daemon.output();
}

TEST(ProcessEntryE2E, OperatorMessageBusAddressIsKept) {
    std::ofstream("/var/run/BIZREADY2").close();
    setenv("LMQR2_UDPHOST", "10.1.2.3:4000", 1);
    initBizAccessEnv();
    EXPECT_STREQ(std::getenv("LMQR2_UDPHOST"), "10.1.2.3:4000");
    unsetenv("LMQR2_UDPHOST");
    initBizAccessEnv();
    EXPECT_STREQ(std::getenv("LMQR2_UDPHOST"), "127.0.0.1:12321");
}

}  // namespace
