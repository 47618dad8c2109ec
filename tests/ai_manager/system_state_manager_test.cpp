// SystemStateManager: every power-state notification reaches the controller, unfiltered. The
// controller is a real AIRecognition wired to nothing; what reaches it is read from its log lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "ai_recognition.h"
#include "log_capture.h"
#include "system_state.h"
#include "system_state_manager.h"
#include "tv_state_dir.h"

namespace {

using namespace std::chrono_literals;

class MockSystemState : public SystemStateInterface {
public:
    MOCK_METHOD(void, setTVPowerStateCallback, (TVPowerStateCallback, void*), (override));
};

const char* const kControllerPowerLine = "[AI Manager] tvPowerState: ";

TEST(SystemStateManagerTest, InitSubscribesWithTheManagerAsUserData) {
    LogCapture log;
    MockSystemState client;
    SystemStateManager manager;
    EXPECT_CALL(client, setTVPowerStateCallback(notifyTVPowerState, static_cast<void*>(&manager)));
    manager.init(&client);
    EXPECT_TRUE(log.contains("[init]"));
    EXPECT_TRUE(log.contains("ENTER"));
}

TEST(SystemStateManagerTest, InitWithNullSubscribesNothing) {
    LogCapture log;
    SystemStateManager manager;
    manager.init(nullptr);
    EXPECT_EQ(log.count("set SystemState ptr is NULL"), 1);
}

TEST(SystemStateManagerTest, TheSamePowerStateTwiceReachesTheControllerTwice) {
    LogCapture log;
    AIRecognition controller;
    SystemStateManager manager;
    manager.setObserver(&controller);
    notifyTVPowerState(static_cast<TVPowerState>(3), &manager);
    notifyTVPowerState(static_cast<TVPowerState>(3), &manager);
    EXPECT_EQ(log.count("received tv power state changed: 3"), 2);
    EXPECT_EQ(log.count(std::string(kControllerPowerLine) + "3."), 2);
}

TEST(SystemStateManagerTest, ANotificationBeforeSetObserverIsLost) {
    LogCapture log;
    AIRecognition controller;
    SystemStateManager manager;
    manager.handleTVPowerStateChanged(static_cast<TVPowerState>(5));
    EXPECT_EQ(log.count("m_pAIRecognition is NULL."), 1);
    EXPECT_EQ(log.count(kControllerPowerLine), 0);

    manager.setObserver(&controller);
    manager.handleTVPowerStateChanged(static_cast<TVPowerState>(6));
    EXPECT_EQ(log.count(std::string(kControllerPowerLine) + "6."), 1);
    EXPECT_EQ(log.count(kControllerPowerLine), 1);
}

TEST(SystemStateManagerTest, NullObserverIsRefusedAndThePreviousOneStays) {
    LogCapture log;
    AIRecognition controller;
    SystemStateManager manager;
    manager.setObserver(&controller);
    manager.setObserver(nullptr);
    EXPECT_EQ(log.count("pAIRecognition is NULL."), 1);
    manager.handleTVPowerStateChanged(static_cast<TVPowerState>(1));
    EXPECT_EQ(log.count(std::string(kControllerPowerLine) + "1."), 1);
}

TEST(SystemStateManagerTest, NullUserDataIsLogged) {
    LogCapture log;
    notifyTVPowerState(static_cast<TVPowerState>(8), nullptr);
    EXPECT_EQ(log.count("User data is NULL."), 1);
    EXPECT_EQ(log.count(kControllerPowerLine), 0);
}

TEST(SystemStateManagerTest, HostClientDeliversPowerStateWritesToTheController) {
    char tmpl[] = "/tmp/aipq_power_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    setenv("AIPQ_TV_DIR", tmpl, 1);
    {
        LogCapture log;
        AIRecognition controller;
        SystemState client("ai_manager");
        SystemStateManager manager;
        manager.setObserver(&controller);
        manager.init(&client);
        ASSERT_TRUE(host::writeTvInt(host::tvkey::kPowerState, 4));
        ASSERT_TRUE(host::writeTvInt(host::tvkey::kPowerState, 4));
        EXPECT_TRUE(log.waitFor(std::string(kControllerPowerLine) + "4.", 5000ms, 2));
        client.setTVPowerStateCallback(nullptr, nullptr);
    }
    unsetenv("AIPQ_TV_DIR");
    ASSERT_EQ(std::system((std::string("rm -rf '") + tmpl + "'").c_str()), 0);
}

}  // namespace
