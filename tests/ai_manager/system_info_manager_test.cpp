// SystemInfoManager: the cached, filtered view of the TV state. The controller it reports to is a
// real AIRecognition wired to nothing; what reaches it is read from its log lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ai_recognition.h"
#include "log_capture.h"
#include "system_info_manager.h"
#include "tv_state_dir.h"

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;

class MockSystemInfo : public SystemInfoInterface {
public:
    MOCK_METHOD(void, setAIPQChangedCallback, (AIPQChangedCallback, void*), (override));
    MOCK_METHOD(void, setSourceTypeChangedCallback, (SourceTypeChangedCallback, void*), (override));
    MOCK_METHOD(void, setPlayerStateChangedCallback, (PlayerStateChangedCallback, void*), (override));
    MOCK_METHOD(void, setStreamEncryptedChangedCallback, (StreamEncryptedChangedCallback, void*), (override));
    MOCK_METHOD(void, setVideoInfoHDRTypeChangedCallback, (VideoInfoHDRTypeChangedCallback, void*),
                (override));
    MOCK_METHOD(void, setVideoGameModeChangedCallback, (VideoGameModeChangedCallback, void*), (override));
    MOCK_METHOD(int, setAIPQSwitchState, (bool), (override));
    MOCK_METHOD(bool, getAIPQSwitchState, (), (override));
    MOCK_METHOD(bool, getAIPQAvailable, (), (override));
    MOCK_METHOD(SourceType, getSourceType, (), (override));
    MOCK_METHOD(PlayerState, getPlayerState, (), (override));
    MOCK_METHOD(bool, getStreamEncryptedSource6Or9, (), (override));
    MOCK_METHOD(bool, getStreamEncryptedSource1, (), (override));
    MOCK_METHOD(VideoInfoHDRType, getVideoInfoHDRType, (), (override));
    MOCK_METHOD(VideoGameMode, getVideoGameMode, (), (override));
    MOCK_METHOD(bool, getAIPQSupported, (), (override));
};

// The controller's own handler lines, as opposed to the manager's lines about the same values.
const char* const kControllerLines[] = {
    "[AI Manager] aipqEnable: ",  "[AI Manager] sourceType: ",       "[AI Manager] encrtypted: ",
    "[AI Manager] playerState: ", "[AI Manager] videoInfoHDRType: ", "[AI Manager] videoGameMode: "};

std::string controllerLine(const char* what, int value) {
    return std::string("[AI Manager] ") + what + ": " + std::to_string(value) + ".";
}

// Every controller handler line, in order, shortened to "what: value".
std::vector<std::string> controllerCalls(const LogCapture& log) {
    std::vector<std::string> calls;
    for (const std::string& line : log.lines()) {
        for (const char* prefix : kControllerLines) {
            size_t pos = line.find(prefix);
            if (pos != std::string::npos) {
                std::string call = line.substr(pos + std::string("[AI Manager] ").size());
                calls.push_back(call.substr(0, call.find('.')));
            }
        }
    }
    return calls;
}

template <typename T>
T as(int value) {
    return static_cast<T>(value);
}

class SystemInfoManagerTest : public ::testing::Test {
protected:
    SystemInfoManagerTest() : m_mock(std::make_shared<NiceMock<MockSystemInfo>>()), m_manager(m_mock) {}

    // The user data the manager registers: itself, as its interface.
    void* self() { return static_cast<SystemInfoManagerInterface*>(&m_manager); }

    LogCapture m_log;
    std::shared_ptr<NiceMock<MockSystemInfo>> m_mock;
    SystemInfoManager m_manager;
    AIRecognition m_controller;
};

TEST(SystemInfoManagerHostClientTest, NullClientMakesTheHostClient) {
    char tmpl[] = "/tmp/aipq_sim_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    setenv("AIPQ_TV_DIR", tmpl, 1);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kAipqSupported, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kSourceType, 9));
    {
        SystemInfoManager manager{std::shared_ptr<SystemInfoInterface>()};
        EXPECT_TRUE(manager.getAIPQSupportedForced());
        EXPECT_EQ(manager.getSourceTypeForced(), 9);
    }
    unsetenv("AIPQ_TV_DIR");
    ASSERT_EQ(std::system((std::string("rm -rf '") + tmpl + "'").c_str()), 0);
}

TEST_F(SystemInfoManagerTest, StartRegistersThenReadsThenPushesTheWholeState) {
    StrictMock<MockSystemInfo>* strict = new StrictMock<MockSystemInfo>();
    SystemInfoManager manager{std::shared_ptr<SystemInfoInterface>(strict)};
    void* user = static_cast<SystemInfoManagerInterface*>(&manager);
    {
        InSequence order;
        EXPECT_CALL(*strict, setAIPQChangedCallback(notifyAIPQChanged, user));
        EXPECT_CALL(*strict, setSourceTypeChangedCallback(notifySourceTypeChanged, user));
        EXPECT_CALL(*strict, setPlayerStateChangedCallback(notifyPlayerStateChanged, user));
        EXPECT_CALL(*strict, setStreamEncryptedChangedCallback(notifyStreamEncryptedChanged, user));
        EXPECT_CALL(*strict, setVideoInfoHDRTypeChangedCallback(notifyVideoInfoHDRTypeChanged, user));
        EXPECT_CALL(*strict, setVideoGameModeChangedCallback(notifyVideoGameModeChanged, user));
        EXPECT_CALL(*strict, getAIPQSwitchState()).WillOnce(Return(true));
        EXPECT_CALL(*strict, getAIPQAvailable()).WillOnce(Return(true));
        EXPECT_CALL(*strict, getSourceType()).WillOnce(Return(as<SourceType>(1)));
        EXPECT_CALL(*strict, getPlayerState()).WillOnce(Return(as<PlayerState>(2)));
        EXPECT_CALL(*strict, getStreamEncryptedSource1()).WillOnce(Return(true));
        EXPECT_CALL(*strict, getVideoInfoHDRType()).WillOnce(Return(as<VideoInfoHDRType>(3)));
        EXPECT_CALL(*strict, getVideoGameMode()).WillOnce(Return(as<VideoGameMode>(1)));
        EXPECT_CALL(*strict, getAIPQSupported()).WillOnce(Return(true));
    }
    manager.setObserver(&m_controller);
    manager.start();

    // Unconditional, in this order, with the values just read.
    EXPECT_EQ(controllerCalls(m_log),
              (std::vector<std::string>{"aipqEnable: 1", "sourceType: 1", "encrtypted: 1", "playerState: 2",
                                        "videoInfoHDRType: 3", "videoGameMode: 1"}));
    EXPECT_TRUE(manager.getAIPQEnable());
    EXPECT_EQ(manager.getSourceType(), 1);
    EXPECT_EQ(manager.getPlayerState(), 2);
    EXPECT_TRUE(manager.getStreamEncrypted());
    EXPECT_EQ(manager.getVideoInfoHDRType(), 3);
    EXPECT_EQ(manager.getVideoGameMode(), 1);
    EXPECT_TRUE(manager.getAIPQSupported());
}

TEST_F(SystemInfoManagerTest, StartAgainPushesTheStateAgain) {
    ON_CALL(*m_mock, getSourceType()).WillByDefault(Return(as<SourceType>(2)));
    m_manager.setObserver(&m_controller);
    m_manager.start();
    m_manager.start();
    EXPECT_EQ(m_log.count(controllerLine("sourceType", 2)), 2);
    EXPECT_EQ(m_log.count(controllerLine("videoGameMode", 0)), 2);
}

TEST_F(SystemInfoManagerTest, StartWithoutObserverFillsTheCacheAndSaysSo) {
    EXPECT_CALL(*m_mock, setAIPQChangedCallback(notifyAIPQChanged, self()));
    ON_CALL(*m_mock, getPlayerState()).WillByDefault(Return(as<PlayerState>(1)));
    m_manager.start();
    EXPECT_TRUE(m_log.contains("m_pAIRecognition is NULL."));
    EXPECT_TRUE(controllerCalls(m_log).empty());
    EXPECT_EQ(m_manager.getPlayerState(), 1);
}

TEST_F(SystemInfoManagerTest, StopClearsTheRegistrationsInItsOrderAndKeepsTheCache) {
    ON_CALL(*m_mock, getVideoGameMode()).WillByDefault(Return(as<VideoGameMode>(1)));
    m_manager.start();
    {
        InSequence order;
        EXPECT_CALL(*m_mock, setAIPQChangedCallback(nullptr, nullptr));
        EXPECT_CALL(*m_mock, setStreamEncryptedChangedCallback(nullptr, nullptr));
        EXPECT_CALL(*m_mock, setSourceTypeChangedCallback(nullptr, nullptr));
        EXPECT_CALL(*m_mock, setPlayerStateChangedCallback(nullptr, nullptr));
        EXPECT_CALL(*m_mock, setVideoInfoHDRTypeChangedCallback(nullptr, nullptr));
        EXPECT_CALL(*m_mock, setVideoGameModeChangedCallback(nullptr, nullptr));
    }
    m_manager.stop();
    EXPECT_EQ(m_manager.getVideoGameMode(), 1);
}

TEST_F(SystemInfoManagerTest, RepeatedNotificationsReachTheControllerOnce) {
    m_manager.setObserver(&m_controller);

    m_manager.handleSourceTypeChanged(as<SourceType>(4));
    m_manager.handleSourceTypeChanged(as<SourceType>(4));
    EXPECT_EQ(m_log.count(controllerLine("sourceType", 4)), 1);
    EXPECT_EQ(m_log.count("source type is not changed."), 1);

    m_manager.handlePlayerStateChanged(as<PlayerState>(3));
    m_manager.handlePlayerStateChanged(as<PlayerState>(3));
    EXPECT_EQ(m_log.count(controllerLine("playerState", 3)), 1);
    EXPECT_EQ(m_log.count("player state is not changed."), 1);

    m_manager.handleVideoInfoHDRTypeChanged(as<VideoInfoHDRType>(2));
    m_manager.handleVideoInfoHDRTypeChanged(as<VideoInfoHDRType>(2));
    EXPECT_EQ(m_log.count(controllerLine("videoInfoHDRType", 2)), 1);
    EXPECT_EQ(m_log.count("videoInfoHDRType is not changed."), 1);

    m_manager.handleVideoGameModeChanged(as<VideoGameMode>(1));
    m_manager.handleVideoGameModeChanged(as<VideoGameMode>(1));
    EXPECT_EQ(m_log.count(controllerLine("videoGameMode", 1)), 1);
    EXPECT_EQ(m_log.count("video game mode is not changed."), 1);

    // Source 4 takes the encryption of stream mode 1.
    m_manager.handleStreamEncryptedChanged(STREAM_MODE_1, true);
    m_manager.handleStreamEncryptedChanged(STREAM_MODE_1, true);
    EXPECT_EQ(m_log.count(controllerLine("encrtypted", 1)), 1);
    EXPECT_EQ(m_log.count("encrypted state is not changed."), 1);

    m_manager.handleAIPQChanged(AIPQ_MODE_SWITCH, true);
    m_manager.handleAIPQChanged(AIPQ_MODE_AVAILABLE, true);
    m_manager.handleAIPQChanged(AIPQ_MODE_AVAILABLE, true);
    EXPECT_EQ(m_log.count(controllerLine("aipqEnable", 1)), 1);
    EXPECT_EQ(m_log.count("aipq enable state is not changed."), 2);

    EXPECT_EQ(m_manager.getSourceType(), 4);
    EXPECT_EQ(m_manager.getPlayerState(), 3);
    EXPECT_EQ(m_manager.getVideoInfoHDRType(), 2);
    EXPECT_EQ(m_manager.getVideoGameMode(), 1);
    EXPECT_TRUE(m_manager.getStreamEncrypted());
    EXPECT_TRUE(m_manager.getAIPQEnable());
}

TEST_F(SystemInfoManagerTest, AIPQEnableIsSwitchAndAvailable) {
    m_manager.setObserver(&m_controller);

    // Switched on while unavailable: still disabled, the controller hears nothing.
    m_manager.handleAIPQChanged(AIPQ_MODE_SWITCH, true);
    EXPECT_TRUE(controllerCalls(m_log).empty());
    EXPECT_FALSE(m_manager.getAIPQEnable());

    m_manager.handleAIPQChanged(AIPQ_MODE_AVAILABLE, true);
    EXPECT_EQ(controllerCalls(m_log), (std::vector<std::string>{"aipqEnable: 1"}));
    EXPECT_TRUE(m_manager.getAIPQEnable());

    m_manager.handleAIPQChanged(AIPQ_MODE_SWITCH, false);
    EXPECT_EQ(controllerCalls(m_log), (std::vector<std::string>{"aipqEnable: 1", "aipqEnable: 0"}));
    EXPECT_FALSE(m_manager.getAIPQEnable());

    // Unavailable while switched off changes nothing visible.
    m_manager.handleAIPQChanged(AIPQ_MODE_AVAILABLE, false);
    EXPECT_EQ(controllerCalls(m_log).size(), 2u);
}

TEST_F(SystemInfoManagerTest, OtherAIPQModesChangeNeitherHalf) {
    m_manager.setObserver(&m_controller);
    EXPECT_FALSE(m_manager.aipqEnableStateChanged(as<AIPQMode>(1), true));
    EXPECT_FALSE(m_manager.aipqEnableStateChanged(as<AIPQMode>(4), true));
    m_manager.handleAIPQChanged(AIPQ_MODE_SWITCH, true);
    // Mode 1 with false must not clear the switch half.
    m_manager.handleAIPQChanged(as<AIPQMode>(1), false);
    EXPECT_TRUE(controllerCalls(m_log).empty());
    m_manager.handleAIPQChanged(AIPQ_MODE_AVAILABLE, true);
    EXPECT_EQ(controllerCalls(m_log), (std::vector<std::string>{"aipqEnable: 1"}));
    EXPECT_TRUE(
        m_log.contains("aipqMode: 1, state: 0, m_currentAIPQSwitchState: 1, m_currentAIPQAvailable: 0"));
}

TEST_F(SystemInfoManagerTest, EncryptionForAnotherSourceIsDropped) {
    m_manager.setObserver(&m_controller);
    m_manager.handleSourceTypeChanged(as<SourceType>(4));
    m_manager.handleStreamEncryptedChanged(STREAM_MODE_SOURCE1, true);
    EXPECT_EQ(m_log.count("is not for current source type."), 1);
    EXPECT_FALSE(m_manager.getStreamEncrypted());

    m_manager.handleSourceTypeChanged(as<SourceType>(1));
    m_manager.handleStreamEncryptedChanged(STREAM_MODE_1, true);
    EXPECT_EQ(m_log.count("is not for current source type."), 2);
    EXPECT_FALSE(m_manager.getStreamEncrypted());
    EXPECT_EQ(m_log.count("[AI Manager] encrtypted: "), 0);

    m_manager.handleStreamEncryptedChanged(STREAM_MODE_SOURCE1, true);
    EXPECT_EQ(m_log.count(controllerLine("encrtypted", 1)), 1);
    EXPECT_TRUE(m_manager.getStreamEncrypted());

    // A source change leaves the encryption flag alone.
    m_manager.handleSourceTypeChanged(as<SourceType>(6));
    EXPECT_TRUE(m_manager.getStreamEncrypted());
    m_manager.handleStreamEncryptedChanged(STREAM_MODE_1, false);
    EXPECT_EQ(m_log.count(controllerLine("encrtypted", 0)), 1);
}

TEST_F(SystemInfoManagerTest, ChangeWithoutObserverUpdatesTheCacheAndSaysSo) {
    m_manager.handleVideoInfoHDRTypeChanged(as<VideoInfoHDRType>(1));
    EXPECT_EQ(m_manager.getVideoInfoHDRType(), 1);
    EXPECT_EQ(m_log.count("m_pAIRecognition is NULL."), 1);
}

TEST_F(SystemInfoManagerTest, NullObserverIsRefusedAndThePreviousOneStays) {
    m_manager.setObserver(&m_controller);
    m_manager.setObserver(nullptr);
    EXPECT_TRUE(m_log.contains("pAIRecognition is NULL."));
    m_manager.handlePlayerStateChanged(as<PlayerState>(1));
    EXPECT_EQ(m_log.count(controllerLine("playerState", 1)), 1);
}

TEST_F(SystemInfoManagerTest, StreamEncryptedForcedAsksOnlyForSources1And6And9) {
    auto* strict = new StrictMock<MockSystemInfo>();
    SystemInfoManager manager{std::shared_ptr<SystemInfoInterface>(strict)};
    for (int source : {0, 2, 3, 4, 5, 7, 8, 10}) {
        EXPECT_CALL(*strict, getSourceType()).WillOnce(Return(as<SourceType>(source)));
        manager.getSourceTypeForced();
        EXPECT_FALSE(manager.getStreamEncryptedForced()) << source;
        EXPECT_FALSE(manager.getStreamEncrypted()) << source;
    }
    EXPECT_CALL(*strict, getSourceType()).WillOnce(Return(as<SourceType>(1)));
    EXPECT_CALL(*strict, getStreamEncryptedSource1()).WillOnce(Return(true));
    manager.getSourceTypeForced();
    EXPECT_TRUE(manager.getStreamEncryptedForced());
    EXPECT_TRUE(manager.getStreamEncrypted());
    for (int source : {6, 9}) {
        EXPECT_CALL(*strict, getSourceType()).WillOnce(Return(as<SourceType>(source)));
        EXPECT_CALL(*strict, getStreamEncryptedSource6Or9()).WillOnce(Return(true));
        manager.getSourceTypeForced();
        EXPECT_TRUE(manager.getStreamEncryptedForced()) << source;
    }
}

TEST_F(SystemInfoManagerTest, ForcedGettersRefreshTheCacheWithoutTellingTheController) {
    m_manager.setObserver(&m_controller);
    EXPECT_CALL(*m_mock, getAIPQSwitchState()).WillOnce(Return(true));
    EXPECT_CALL(*m_mock, getAIPQAvailable()).WillOnce(Return(true));
    EXPECT_CALL(*m_mock, getPlayerState()).WillOnce(Return(as<PlayerState>(2)));
    EXPECT_CALL(*m_mock, getSourceType()).WillOnce(Return(as<SourceType>(5)));
    EXPECT_CALL(*m_mock, getVideoInfoHDRType()).WillOnce(Return(as<VideoInfoHDRType>(1)));
    EXPECT_CALL(*m_mock, getVideoGameMode()).WillOnce(Return(as<VideoGameMode>(1)));
    EXPECT_CALL(*m_mock, getAIPQSupported()).WillOnce(Return(true));

    EXPECT_TRUE(m_manager.getAIPQEnableForced());
    EXPECT_EQ(m_manager.getPlayerStateForced(), 2);
    EXPECT_EQ(m_manager.getSourceTypeForced(), 5);
    EXPECT_EQ(m_manager.getVideoInfoHDRTypeForced(), 1);
    EXPECT_EQ(m_manager.getVideoGameModeForced(), 1);
    EXPECT_TRUE(m_manager.getAIPQSupportedForced());
    EXPECT_TRUE(
        m_log.contains("m_currentAIPQEnable: 1, m_currentAIPQSwitchState: 1, m_currentAIPQAvailable: 1"));

    // The plain getters now answer from the cache, no further service call (WillOnce above).
    EXPECT_TRUE(m_manager.getAIPQEnable());
    EXPECT_EQ(m_manager.getPlayerState(), 2);
    EXPECT_EQ(m_manager.getSourceType(), 5);
    EXPECT_EQ(m_manager.getVideoInfoHDRType(), 1);
    EXPECT_EQ(m_manager.getVideoGameMode(), 1);
    EXPECT_TRUE(m_manager.getAIPQSupported());
    EXPECT_TRUE(controllerCalls(m_log).empty());

    // The cache the forced getters wrote is what the change filter compares with.
    m_manager.handleVideoGameModeChanged(as<VideoGameMode>(1));
    EXPECT_TRUE(m_log.contains("video game mode is not changed."));
    m_manager.handleAIPQChanged(AIPQ_MODE_AVAILABLE, true);
    EXPECT_TRUE(m_log.contains("aipq enable state is not changed."));
}

TEST_F(SystemInfoManagerTest, Predicates) {
    for (int source = 0; source <= 10; ++source) {
        m_manager.handleSourceTypeChanged(as<SourceType>(source));
        bool expected = (source >= 1 && source <= 6) || source == 9;
        EXPECT_EQ(m_manager.enableSourceType(), expected) << source;
    }
    for (int state : {-1, 0, 1, 2, 3, 4}) {
        m_manager.handlePlayerStateChanged(as<PlayerState>(state));
        EXPECT_EQ(m_manager.enablePlayerState(), state == 1 || state == 2) << state;
    }
    for (int type : {0, 1, 2, 3}) {
        m_manager.handleVideoInfoHDRTypeChanged(as<VideoInfoHDRType>(type));
        EXPECT_EQ(m_manager.enableVideoInfoHDRType(), type == 1) << type;
    }
    EXPECT_TRUE(m_log.contains("m_currentSourceType: 9, enable: 1"));
    EXPECT_TRUE(m_log.contains("m_currentVideoInfoHDRType: 3, enable: 0"));
}

TEST_F(SystemInfoManagerTest, NotificationsWithNullUserDataDoNothing) {
    m_manager.setObserver(&m_controller);
    notifyAIPQChanged(AIPQ_MODE_SWITCH, true, nullptr);
    notifySourceTypeChanged(as<SourceType>(3), nullptr);
    notifyPlayerStateChanged(as<PlayerState>(2), nullptr);
    notifyStreamEncryptedChanged(STREAM_MODE_1, true, nullptr);
    notifyVideoInfoHDRTypeChanged(as<VideoInfoHDRType>(2), nullptr);
    notifyVideoGameModeChanged(as<VideoGameMode>(1), nullptr);
    EXPECT_EQ(m_log.count("User data is NULL."), 6);
    EXPECT_TRUE(m_log.contains("received aipq state: 1(2)"));
    EXPECT_TRUE(m_log.contains("received stream encrypted changed: 1(1)"));
    EXPECT_TRUE(controllerCalls(m_log).empty());
    EXPECT_EQ(m_manager.getSourceType(), 0);
}

TEST_F(SystemInfoManagerTest, NotificationsReachTheManagerThroughItsUserData) {
    m_manager.setObserver(&m_controller);
    notifySourceTypeChanged(as<SourceType>(1), self());
    notifyPlayerStateChanged(as<PlayerState>(1), self());
    notifyStreamEncryptedChanged(STREAM_MODE_SOURCE1, true, self());
    notifyVideoInfoHDRTypeChanged(as<VideoInfoHDRType>(2), self());
    notifyVideoGameModeChanged(as<VideoGameMode>(1), self());
    notifyAIPQChanged(AIPQ_MODE_SWITCH, true, self());
    notifyAIPQChanged(AIPQ_MODE_AVAILABLE, true, self());
    EXPECT_EQ(controllerCalls(m_log),
              (std::vector<std::string>{"sourceType: 1", "playerState: 1", "encrtypted: 1",
                                        "videoInfoHDRType: 2", "videoGameMode: 1", "aipqEnable: 1"}));
}

}  // namespace
