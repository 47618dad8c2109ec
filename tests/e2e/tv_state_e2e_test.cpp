// The real daemon driven by tvctl in a private sandbox: the TV state starts, parks, wakes and
// stops the worker, and power state 8 replays the state.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "child_process.h"

using namespace std::chrono_literals;

namespace {

const std::string kBin = AIPQ_BIN_DIR;

int tvctl(const std::string& args) {
    std::string out;
    int rc = runCommand("AIPQ_TV_DIR=/var/run/aipq_tv " + kBin + "/tvctl " + args, &out);
    EXPECT_EQ(rc, 0) << "tvctl " << args << ": " << out;
    return rc;
}

TEST(TvStateE2E, TvctlStartsParksWakesStopsAndReplays) {
    ASSERT_EQ(tvctl("preset watching"), 0);
    std::ofstream("/var/run/BIZREADY2").close();
    const std::vector<std::string> env = {"AIPQ_TV_DIR=/var/run/aipq_tv", "AIPQ_TIME_SCALE=5",
                                          "AIPQ_LOG_LEVEL=4000"};
    ChildProcess service({kBin + "/ai_service"}, env);
    ChildProcess daemon({kBin + "/ai_manager"}, env);

    ASSERT_TRUE(daemon.waitForOutput("create thread to ai recognition.", 20s)) << daemon.output();
    ASSERT_TRUE(daemon.waitForOutput("recognitionPicture ret: 0.", 20s)) << daemon.output();

    // Switch AIPQ off: the worker parks in the AIPQ wait after withdrawing the model.
    tvctl("set aipq_switch 0");
    ASSERT_TRUE(daemon.waitForOutput("aipqEnable: 0.", 5s));
    ASSERT_TRUE(daemon.waitForOutput("ai_service_release_model", 10s)) << daemon.output();
    int cycles = daemon.count("start AI Recognition.");
    std::this_thread::sleep_for(2s);  // several periods at this time scale
    EXPECT_EQ(daemon.count("start AI Recognition."), cycles) << "parked workers do not recognise";
    EXPECT_EQ(daemon.count("wait AIPQ enable."), 0);

    // Switch it on: woken at once.
    auto t0 = std::chrono::steady_clock::now();
    tvctl("set aipq_switch 1");
    ASSERT_TRUE(daemon.waitForOutput("wait AIPQ enable.", 5s));
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 1.5);
    ASSERT_TRUE(daemon.waitForOutput("start AI Recognition.", 10s, cycles + 1));

    // Player stopped: the worker is stopped and joined.
    tvctl("set player_state 0");
    ASSERT_TRUE(daemon.waitForOutput("playerState: 0.", 5s));
    ASSERT_TRUE(daemon.waitForOutput("m_loopAIRecognition: 1.", 30s)) << daemon.output();
    cycles = daemon.count("start AI Recognition.");
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(daemon.count("start AI Recognition."), cycles);

    // Power state 8: the whole TV state is read again and pushed to the controller.
    int players = daemon.count("playerState: 0.");
    tvctl("set power_state 8");
    ASSERT_TRUE(daemon.waitForOutput("tvPowerState: 8.", 5s));
    EXPECT_TRUE(daemon.waitForOutput("playerState: 0.", 5s, players + 1));

    // A repeated value is filtered by the daemon, the power state is not.
    int sources = daemon.count("sourceType: 2.");
    tvctl("set source_type 2");
    tvctl("set power_state 3");
    tvctl("set power_state 3");
    EXPECT_TRUE(daemon.waitForOutput("tvPowerState: 3.", 5s, 2));
    EXPECT_TRUE(daemon.waitForOutput("source type is not changed.", 5s));
    EXPECT_EQ(daemon.count("sourceType: 2."), sources);

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(30s), 0) << daemon.output();
}

}  // namespace
