#include "system_setting_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "log_capture.h"
#include "mock_system_setting.h"

using telvo_ai_service::AiPQPredictLabel;
using ::testing::_;
using ::testing::ElementsAreArray;
using ::testing::Return;
using ::testing::SaveArg;
using ::testing::StrictMock;
namespace svc = telvo_ai_service;

namespace {

class SettingManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<StrictMock<MockSystemSetting>> platform =
        std::make_shared<StrictMock<MockSystemSetting>>();
    SystemSettingManager manager{platform};

    std::vector<int> rowHandedFor(AiPQPredictLabel label) {
        std::vector<int> seen;
        EXPECT_CALL(*platform, setVideoPQParameters(_)).WillOnce([&](std::vector<int>& v) {
            seen = v;
            return 0;
        });
        EXPECT_TRUE(manager.setPQPredictLabelResult(label));
        ::testing::Mock::VerifyAndClearExpectations(platform.get());
        return seen;
    }
};

const char* const kSelectorNames[] = {"colortunerMag", "colortunerRed", "colortunerYlw",    "colortunerGrn",
                                      "colortunerCyn", "colortunerBlu", "colortunerFlshTon"};

TEST_F(SettingManagerTest, SceneRowIsHandedWholeInOneCall) {
    const int soccerball[34] = {0, 0, 0, 0,  5, -1, 0, 0, 0, 0, 1, 0, 0, 0, 2, 2, 4,
                                3, 3, 2, 10, 2, 4,  0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0};
    EXPECT_THAT(rowHandedFor(svc::Soccerball), ElementsAreArray(soccerball));

    const int neutral[34] = {0, 0, 0, 0, -1, -1, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0,
                             0, 3, 0, 0, 0,  4,  0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0};
    EXPECT_THAT(rowHandedFor(svc::Invalid), ElementsAreArray(neutral));

    // First and last rows of the table, to catch an off-by-one in the row index.
    const int cartoon[34] = {0, -5, -6, 0, -1, -1, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0,
                             0, 3,  0,  0, 0,  4,  0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0};
    EXPECT_THAT(rowHandedFor(svc::Cartoon), ElementsAreArray(cartoon));
    const int indoor[34] = {1, 0, 0, 0, -1, -1, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0,
                            0, 3, 0, 0, 0,  4,  0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0};
    EXPECT_THAT(rowHandedFor(svc::Indoor), ElementsAreArray(indoor));
}

TEST_F(SettingManagerTest, PlatformRefusalAndOutOfRangeLabels) {
    EXPECT_CALL(*platform, setVideoPQParameters(_)).WillOnce(Return(-1)).WillOnce(Return(1));
    EXPECT_FALSE(manager.setPQPredictLabelResult(svc::Sky));
    EXPECT_FALSE(manager.setPQPredictLabelResult(svc::Sky));
    ::testing::Mock::VerifyAndClearExpectations(platform.get());

    // StrictMock: any platform call here fails the test.
    LogCapture log;
    EXPECT_FALSE(manager.setPQPredictLabelResult(static_cast<AiPQPredictLabel>(20)));
    EXPECT_FALSE(manager.setPQPredictLabelResult(static_cast<AiPQPredictLabel>(-1)));
    EXPECT_EQ(log.count("setPQPredictLabelResult(): [AI Manager] predict label is invalid value.\n"), 2);
    EXPECT_TRUE(log.contains("setPQPredictLabelResult(): [AI Manager] predict label : -1\n"));
    EXPECT_FALSE(log.contains("out of s_PQSettingTable"));
}

TEST_F(SettingManagerTest, ValidityIsAnUnsignedBoundAtInvalid) {
    EXPECT_TRUE(manager.isValidPQPredictLabel(svc::Cartoon));
    EXPECT_TRUE(manager.isValidPQPredictLabel(svc::Invalid));
    EXPECT_FALSE(manager.isValidPQPredictLabel(static_cast<AiPQPredictLabel>(20)));
    EXPECT_FALSE(manager.isValidPQPredictLabel(static_cast<AiPQPredictLabel>(-1)));
    EXPECT_FALSE(manager.isValidPQPredictLabel(static_cast<AiPQPredictLabel>(INT32_MIN)));
}

TEST_F(SettingManagerTest, FaceOffsetsAreNamedAndSkipTheSelectors) {
    std::map<std::string, int> offsets;
    ASSERT_TRUE(manager.getPQSettingOffset(svc::Face, offsets));
    EXPECT_EQ(offsets.size(), 27u);
    EXPECT_EQ(offsets.at("sharpness"), -4);
    EXPECT_EQ(offsets.at("memc"), -1);
    EXPECT_EQ(offsets.at("colortunerRedS"), 1);
    EXPECT_EQ(offsets.at("colortunerRedH"), -1);
    EXPECT_EQ(offsets.at("colortunerFlshTonB"), 2);
    EXPECT_EQ(offsets.at("colortunerFlshTonS"), 5);
    EXPECT_EQ(offsets.at("colortunerFlshTonH"), -1);
    for (const char* selector : kSelectorNames) {
        EXPECT_EQ(offsets.count(selector), 0u) << selector;
    }
}

TEST_F(SettingManagerTest, OffsetMapIsReplacedOnlyForValidLabels) {
    std::map<std::string, int> offsets{{"stale", 99}, {"brightness", 42}};
    LogCapture log;
    EXPECT_FALSE(manager.getPQSettingOffset(static_cast<AiPQPredictLabel>(20), offsets));
    EXPECT_EQ(offsets, (std::map<std::string, int>{{"stale", 99}, {"brightness", 42}}));
    EXPECT_TRUE(log.contains("getPQSettingOffset(): [AI Manager] predict label : 20, offset.size() : 2\n"));
    EXPECT_TRUE(log.contains("getPQSettingOffset(): [AI Manager] invalid label 20.\n"));

    ASSERT_TRUE(manager.getPQSettingOffset(svc::Performance, offsets));
    EXPECT_EQ(offsets.count("stale"), 0u);
    EXPECT_EQ(offsets.size(), 27u);
    // Insert-if-absent must not leave the old 42 behind.
    EXPECT_EQ(offsets.at("brightness"), 1);
}

TEST_F(SettingManagerTest, OffsetMapAgreesWithTheRowSentToThePlatform) {
    // Both views come from the same table: every named offset must sit at its own position.
    for (int label = 0; label <= svc::Invalid; ++label) {
        const auto l = static_cast<AiPQPredictLabel>(label);
        const std::vector<int> row = rowHandedFor(l);
        ASSERT_EQ(row.size(), 34u);
        std::map<std::string, int> offsets;
        ASSERT_TRUE(manager.getPQSettingOffset(l, offsets));
        for (int p = 0; p < 34; ++p) {
            const std::string name = toStringVideoParameter(static_cast<PQ_SETTING_PARAMETERS>(p));
            if (p >= 6 && (p - 6) % 4 == 0) {
                EXPECT_EQ(row[p], (p - 6) / 4) << "selector column " << p << " of label " << label;
                EXPECT_EQ(offsets.count(name), 0u);
            } else {
                EXPECT_EQ(offsets.at(name), row[p]) << name << " of label " << label;
            }
        }
    }
}

TEST(PQParameterNamesTest, ThirtyFourDistinctNamesAndEmptyOutside) {
    std::set<std::string> names;
    for (int p = 0; p < PQ_SETTING_PARAMETERS_COUNT; ++p) {
        names.insert(toStringVideoParameter(static_cast<PQ_SETTING_PARAMETERS>(p)));
    }
    EXPECT_EQ(names.size(), 34u);
    EXPECT_EQ(names.count(""), 0u);
    EXPECT_EQ(toStringVideoParameter(PQ_BRIGHTNESS), "brightness");
    EXPECT_EQ(toStringVideoParameter(PQ_COLORTUNER_MAG), "colortunerMag");
    EXPECT_EQ(toStringVideoParameter(PQ_COLORTUNER_YLW_H), "colortunerYlwH");
    EXPECT_EQ(toStringVideoParameter(PQ_COLORTUNER_FLSHTON_H), "colortunerFlshTonH");
    EXPECT_EQ(toStringVideoParameter(static_cast<PQ_SETTING_PARAMETERS>(34)), "");
    EXPECT_EQ(toStringVideoParameter(static_cast<PQ_SETTING_PARAMETERS>(-1)), "");
}

TEST_F(SettingManagerTest, ForwardingPassesArgumentsResultsAndLogs) {
    LogCapture log;
    EXPECT_CALL(*platform, setVideoBrightness(-3)).WillOnce(Return(0));
    EXPECT_CALL(*platform, setVideoMEMC(7)).WillOnce(Return(5));
    EXPECT_CALL(*platform, getVideoNR()).WillOnce(Return(12));
    std::vector<int> family{1, 2, 3};
    EXPECT_CALL(*platform, setVideoColorTunerFamily(ElementsAreArray({1, 2, 3}))).WillOnce(Return(0));
    EXPECT_CALL(*platform, getVideoColorTunerFamily(_)).WillOnce([](std::vector<int>& v) {
        v = {9, 8};
        return 0;
    });
    EXPECT_EQ(manager.setVideoBrightness(-3), 0);
    EXPECT_EQ(manager.setVideoMEMC(7), 5);
    EXPECT_EQ(manager.getVideoNR(), 12);
    EXPECT_EQ(manager.setVideoColorTunerFamily(family), 0);
    std::vector<int> filled;
    EXPECT_EQ(manager.getVideoColorTunerFamily(filled), 0);
    EXPECT_EQ(filled, (std::vector<int>{9, 8}));
    EXPECT_TRUE(log.contains("setVideoBrightness(): [AI Manager] brightness : -3\n"));
    EXPECT_TRUE(log.contains("setVideoMEMC(): [AI Manager] memc : 7\n"));
    EXPECT_TRUE(log.contains("setVideoColorTunerFamily(): [AI Manager] color tuner family, size : 3\n"));
}

TEST(SettingManagerOwnershipTest, LastOwnerReleasesThePlatformClient) {
    auto platform = std::make_shared<MockSystemSetting>();
    std::weak_ptr<MockSystemSetting> watch = platform;
    {
        SystemSettingManager manager(platform);
        platform.reset();
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

TEST(SettingManagerOwnershipTest, EmptyHandleFallsBackToThePlatformClient) {
    char dir[] = "/tmp/aipq_setting_mgr_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("AIPQ_TV_DIR", dir, 1);
    {
        SystemSettingManager manager(nullptr);
        EXPECT_TRUE(manager.setPQPredictLabelResult(svc::Snow));
    }
    std::ifstream in(std::string(dir) + "/pq_parameters");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "0 -3 0 0 -1 1 0 0 0 0 1 0 0 0 2 0 0 0 3 0 0 0 4 0 0 0 5 0 0 0 6 0 0 0\n");
    unsetenv("AIPQ_TV_DIR");
    std::filesystem::remove_all(dir);
}

}  // namespace
