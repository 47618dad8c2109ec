// Worker start/stop, wiring and detaching, and the support check.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "controller_fakes.h"
#include "host_platform.h"
#include "log_capture.h"

using namespace std::chrono_literals;

namespace {

using LifecycleTest = ControllerTestBase;

TEST_F(LifecycleTest, SecondStartMakesNoSecondWorker) {
    wire();
    controller.start();
    controller.start();
    ASSERT_TRUE(log.waitFor("create thread to ai recognition.", 5s));
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(2, 5s));
    EXPECT_EQ(log.count("create thread to ai recognition."), 1);
    EXPECT_EQ(log.count("ai recognition thread is started, do not need to start again."), 1);
}

TEST_F(LifecycleTest, StartRefusesWithoutItsCollaboratorsButNotWithoutStateManager) {
    controller.init(&capture, &memory, &info, nullptr, &recognition, nullptr);
    controller.start();
    EXPECT_TRUE(log.contains("dependenct object instance is NULL, cannot start regonition thread."));
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
    wire();  // no state manager: still enough
    controller.start();
    EXPECT_TRUE(AIRecognitionTestPeer::loopRunning(controller));
}

TEST_F(LifecycleTest, StopWithoutWorkerStillClearsOverlayAndResetsRecognition) {
    wire();
    AIRecognitionTestPeer::setShowDebugWindow(controller, true);
    int resets = recognition.resets.value();
    controller.stop();
    EXPECT_EQ(recognition.resets.value(), resets + 1);
    EXPECT_TRUE(log.contains("m_pDebugWindow is NULL, do not need to clear."));
    EXPECT_FALSE(log.contains("pthread_join"));
}

TEST_F(LifecycleTest, StopJoinsTheWorkerAndReleasesTheModelOnTheWayOut) {
    wire();
    controller.start();
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(1, 5s));
    controller.stop();
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
    int after = recognition.recognitions.value();
    EXPECT_GE(recognition.releaseModels.load(), 1);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(recognition.recognitions.value(), after) << "no cycle may run after stop returned";
    // A second stop waits for nothing and is harmless.
    controller.stop();
}

TEST_F(LifecycleTest, ConcurrentStartsAndStopsNeverLeaveTwoWorkers) {
    wire();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 50; ++i) {
                if ((i + t) % 2 == 0) {
                    controller.start();
                } else {
                    controller.stop();
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    controller.stop();
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
    EXPECT_EQ(log.count("create thread to ai recognition."), log.count("create thread success."));
}

TEST_F(LifecycleTest, InitWithNullsOnAFreshControllerTouchesNothing) {
    controller.init(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(info.startCalls.value(), 0);
    EXPECT_EQ(info.stopCalls.value(), 0);
    EXPECT_EQ(recognition.resets.value(), 0);
    controller.handlePlayerStateChanged(PLAYER_STATE_PLAYING);
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
}

TEST_F(LifecycleTest, DetachingStopsARunningWorkerAndUnsubscribes) {
    wire();
    EXPECT_EQ(info.startCalls.value(), 1);
    controller.handlePlayerStateChanged(PLAYER_STATE_PLAYING);
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(1, 5s));
    controller.init(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
    EXPECT_EQ(info.stopCalls.value(), 1);
    int after = recognition.recognitions.value();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(recognition.recognitions.value(), after);
}

TEST_F(LifecycleTest, UnsupportedTvStopsTheServiceAndWaitsTwoSeconds) {
    info.supported = false;
    wire();
    OsalTime before;
    OsalTime after;
    osalGetUptime(&before);
    EXPECT_FALSE(controller.handleAIPQSupported());
    osalGetUptime(&after);
    osalSubtractTime(&after, &before);
    EXPECT_EQ(recognition.stopServiceCalls.load(), 1);
    EXPECT_GE(after.seconds, 2);
    EXPECT_TRUE(log.contains("m_AIPQSupported is: 0."));
}

TEST_F(LifecycleTest, CheckThreadRefusesWithoutDependenciesAndStartsOnce) {
    controller.checkAIPQSupportedThread();
    EXPECT_TRUE(log.contains("dependect object instance is NULL, cannot handle AIPQSupported."));
    info.supported = false;
    wire();
    controller.checkAIPQSupportedThread();
    controller.checkAIPQSupportedThread();
    EXPECT_EQ(log.count("check aipqSupported thread is started, do not need to start again."), 1);
    // The thread runs the support check; on an unsupported TV that stops the service.
    for (int i = 0; i < 500 && recognition.stopServiceCalls.load() == 0; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(recognition.stopServiceCalls.load(), 1);
    std::this_thread::sleep_for(50ms);  // the detached check thread finishes its sleep
}

}  // namespace
