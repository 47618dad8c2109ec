// SIGTERM or SIGINT from every state the daemon can be in ends it with status 0 within the bound,
// whatever the AI service does, and nothing is started once "Process Run End." is logged.
#include <sched.h>
#include <sys/resource.h>

#include <atomic>

#include "e2e_harness.h"

namespace e2e {
namespace {

// From the signal to the daemon's exit, its final one-second pause included; ThreadSanitizer
// adds one second of its own at exit.
#ifdef __SANITIZE_THREAD__
constexpr auto kExitBound = 4s;
#else
constexpr auto kExitBound = 3s;
#endif
// Real time: what is cut short are the daemon's real 10, 30 and 60 s waits.
const std::vector<std::string> kRealTime = {"AIPQ_TIME_SCALE=1", "DISPLAY="};

enum Setup { kPlain, kEarlyBoot, kStoppedService };

struct State {
    const char* name;
    int signal;
    const char* prepare;  // shell command run before the start, tvctl on its path
    const char* service;  // ai_service options, nullptr for no service
    Setup setup;
    const char* reached;  // the daemon's log line that says it is there; "f(" for inside f
    friend void PrintTo(const State& s, std::ostream* os) { *os << s.name; }
};

void expectPromptExit(ChildProcess& daemon, int sig, const std::string& state) {
    const auto sent = std::chrono::steady_clock::now();
    daemon.signal(sig);
    const int status = daemon.wait(kExitBound);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - sent;
    std::printf("[ shutdown ] %s: status %d after %.2f s\n", state.c_str(), status, took.count());
    EXPECT_EQ(status, 0) << state << "\n" << daemon.output();
}

class ShutdownE2E : public Harness {};
class ShutdownFrom : public Harness, public ::testing::WithParamInterface<State> {};

TEST_P(ShutdownFrom, EndsWithStatusZeroWithinTheBound) {
    const State& s = GetParam();
    ASSERT_EQ(runCommand("PATH=" + kBin + ":$PATH AIPQ_TV_DIR=" + kTvDir + " " + s.prepare), 0);
    if (s.service != nullptr) {
        const std::string command = kBin + "/ai_service --trace " + m_work + "/trace " + s.service;
        m_service.reset(new ChildProcess({"/bin/sh", "-c", "exec " + command}, env({})));
    }
    if (s.setup == kEarlyBoot) {
        // Only the daemon sees a clock 5 s after boot; the next namespace copies, then clears, its offsets.
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (unshare(CLONE_NEWTIME) != 0) {
            GTEST_SKIP() << "no time namespaces here";
        }
        std::ofstream("/proc/self/timens_offsets") << "monotonic " << 5 - now.tv_sec << " 0\n";
        startDaemon(kRealTime);
        unshare(CLONE_NEWTIME);
        std::ofstream("/proc/self/timens_offsets") << "monotonic 0 0\n";
    } else {
        startDaemon(kRealTime);
    }
    ASSERT_TRUE(m_daemon->waitForOutput(s.reached, 20s)) << m_daemon->output();
    if (s.setup == kStoppedService) {
        ASSERT_TRUE(eventually([&] { return !commands().empty(); }));
        m_service->signal(SIGSTOP);
    }
    std::this_thread::sleep_for(300ms);
    const std::string log = m_daemon->output(), function = std::string(s.reached) + "): ";
    if (function.find("(): ") != std::string::npos) {
        // An open gate logs its entry too, and returns at once: the signal must find the worker inside.
        const size_t last = log.rfind(function);
        EXPECT_EQ(log.substr(last, log.find('\n', last) - last).find("RETURN"), std::string::npos)
            << s.name << " was passed through, not reached:\n"
            << log;
    }
    expectPromptExit(*m_daemon, s.signal, s.name);
}

INSTANTIATE_TEST_SUITE_P(
    State, ShutdownFrom,
    ::testing::Values(
        State{"ReadinessWait", SIGTERM, "rm /var/run/BIZREADY2", nullptr, kPlain, "wait_for_bizready("},
        State{"UptimeFloor", SIGINT, "", nullptr, kEarlyBoot, "TV is not ready"},
        State{"UnsupportedTvStoppingService", SIGTERM, "tvctl set aipq_supported 0", nullptr, kPlain,
              "stopAiService("},
        State{"AbsentServiceMidRequest", SIGTERM, "", nullptr, kPlain, "start AI Recognition."},
        State{"SilentServiceMidRequest", SIGINT, "", "--no-answer", kPlain, "start AI Recognition."},
        State{"StoppedService", SIGTERM, "", "--delay-ms 20000", kStoppedService, "start AI Recognition."},
        State{"PacedInitFailureLogging", SIGTERM, "", "--answer ai_service_init_ai_service=-1", kPlain,
              "initAiService failed. init result"},
        State{"AipqOffGate", SIGTERM, "tvctl set aipq_switch 0", "", kPlain, "waitAIPQEnable("},
        State{"GameModeGate", SIGTERM, "tvctl set game_mode 1", "", kPlain, "waitVideoGameModeDisable("},
        State{"HdrWait", SIGTERM, "tvctl set hdr_type 2", "", kPlain, "waitVideoInfoHDRTypeDisable("},
        State{"EncryptedGate", SIGTERM, "tvctl set source_type 1 encrypted_source1 1", "", kPlain,
              "waitUnencrypted("},
        State{"MidCycle", SIGTERM, "", "--delay-ms 2000", kPlain, "start AI Recognition."},
        State{"PeriodWait", SIGINT, "", "", kPlain, "get predict result."},
        State{"OverlayOnWithoutDisplay", SIGTERM, "touch /var/local/aipq_show_debug_window_enable", "",
              kPlain, "start AI Recognition."}),
    [](const ::testing::TestParamInfo<State>& info) { return std::string(info.param.name); });

// Player-state notifications racing the signal while a request waits for an absent service: each
// one asks for a worker, and none may start once "Process Run End." is logged.
TEST_F(ShutdownE2E, NoWorkerStartsOnceRunHasEnded) {
    for (int run = 0; run < 6; ++run) {
        startDaemon();
        ASSERT_TRUE(m_daemon->waitForOutput("start AI Recognition.", 10s)) << m_daemon->output();
        std::atomic<bool> toggling{true};
        std::thread toggler([&] {
            setpriority(PRIO_PROCESS, 0, 19);  // at the daemon's nice level: a flood, not a starved teardown
            for (int i = 0; toggling; ++i) {
                std::ofstream(kTvDir + "/player_state") << 1 + i % 2;
            }
        });
        std::this_thread::sleep_for(100ms);
        expectPromptExit(*m_daemon, SIGTERM, "player state toggling, run " + std::to_string(run));
        toggling = false;
        toggler.join();
        const std::string log = m_daemon->output();
        const size_t end = log.find("Process Run End.");
        ASSERT_NE(end, std::string::npos) << log;
        EXPECT_EQ(log.find("create thread success.", end), std::string::npos) << log.substr(end);
    }
}

}  // namespace
}  // namespace e2e
