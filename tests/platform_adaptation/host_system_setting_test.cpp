#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "system_setting.h"

namespace fs = std::filesystem;

namespace {

class HostSystemSettingTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/aipq_tv_setting_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        // A directory that does not exist yet: the client creates it on first write.
        dir = root / "tv";
        setenv("AIPQ_TV_DIR", dir.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("AIPQ_TV_DIR");
        fs::remove_all(root);
    }
    std::string text(const std::string& key) const {
        std::ifstream in(dir / key);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    static std::vector<int> row(int seed) {
        std::vector<int> r(34);
        for (int i = 0; i < 34; ++i) {
            r[i] = seed * 100 + i - 17;
        }
        return r;
    }
    static std::string line(const std::vector<int>& r) {
        std::string s;
        for (size_t i = 0; i < r.size(); ++i) {
            s += (i ? " " : "") + std::to_string(r[i]);
        }
        return s + "\n";
    }

    fs::path root;
    fs::path dir;
    SystemSetting setting;
};

TEST_F(HostSystemSettingTest, RowIsStoredAsOneLineAndAppendedToTheHistory) {
    std::vector<int> soccerball{0, 0, 0, 0,  5, -1, 0, 0, 0, 0, 1, 0, 0, 0, 2, 2, 4,
                                3, 3, 2, 10, 2, 4,  0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0};
    ASSERT_EQ(setting.setVideoPQParameters(soccerball), 0);
    const std::string expected = "0 0 0 0 5 -1 0 0 0 0 1 0 0 0 2 2 4 3 3 2 10 2 4 0 0 0 5 0 0 0 6 0 0 0\n";
    EXPECT_EQ(text("pq_parameters"), expected);
    EXPECT_EQ(text("pq_history"), expected);

    std::vector<int> second = row(1);
    ASSERT_EQ(setting.setVideoPQParameters(second), 0);
    EXPECT_EQ(text("pq_parameters"), line(second));
    EXPECT_EQ(text("pq_history"), expected + line(second));
    // No temporary files left behind by the atomic write.
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) {
        names.insert(e.path().filename().string());
    }
    EXPECT_EQ(names, (std::set<std::string>{"pq_history", "pq_parameters"}));
}

TEST_F(HostSystemSettingTest, RowOfTheWrongSizeIsRefusedUntouched) {
    LogCapture log;
    std::vector<int> shortRow(33, 1);
    std::vector<int> longRow(35, 1);
    std::vector<int> empty;
    EXPECT_NE(setting.setVideoPQParameters(shortRow), 0);
    EXPECT_NE(setting.setVideoPQParameters(empty), 0);
    EXPECT_FALSE(fs::exists(dir / "pq_parameters"));
    EXPECT_FALSE(fs::exists(dir / "pq_history"));

    std::vector<int> good = row(2);
    ASSERT_EQ(setting.setVideoPQParameters(good), 0);
    EXPECT_NE(setting.setVideoPQParameters(longRow), 0);
    EXPECT_EQ(text("pq_parameters"), line(good));
    EXPECT_EQ(text("pq_history"), line(good));
    EXPECT_EQ(log.count("[Platform Adaptation] refusing a PQ row of"), 3);
}

TEST_F(HostSystemSettingTest, ScalarsAndColourTunerFamilyRoundTrip) {
    EXPECT_EQ(setting.getVideoBrightness(), 0) << "missing reads as 0";
    EXPECT_EQ(setting.setVideoBrightness(55), 0);
    EXPECT_EQ(setting.setVideoContrast(-7), 0);
    EXPECT_EQ(setting.setVideoSaturation(60), 0);
    EXPECT_EQ(setting.setVideoSharpness(12), 0);
    EXPECT_EQ(setting.setVideoMEMC(3), 0);
    EXPECT_EQ(setting.setVideoNR(-1), 0);

    // A second client sees the same state: it lives in the files, not in the object.
    SystemSetting other;
    EXPECT_EQ(other.getVideoBrightness(), 55);
    EXPECT_EQ(other.getVideoContrast(), -7);
    EXPECT_EQ(other.getVideoSaturation(), 60);
    EXPECT_EQ(other.getVideoSharpness(), 12);
    EXPECT_EQ(other.getVideoMEMC(), 3);
    EXPECT_EQ(other.getVideoNR(), -1);
    EXPECT_EQ(text("video_brightness"), "55\n");
    EXPECT_EQ(text("video_nr"), "-1\n");

    std::vector<int> family;
    family.push_back(99);
    EXPECT_EQ(other.getVideoColorTunerFamily(family), 0);
    EXPECT_TRUE(family.empty()) << "missing family reads as empty";
    std::vector<int> tuner{2, -3, 4, 0, 11};
    EXPECT_EQ(setting.setVideoColorTunerFamily(tuner), 0);
    EXPECT_EQ(text("video_color_tuner_family"), "2 -3 4 0 11\n");
    EXPECT_EQ(other.getVideoColorTunerFamily(family), 0);
    EXPECT_EQ(family, tuner);

    std::ofstream(dir / "video_color_tuner_family") << "1 2 x\n";
    EXPECT_EQ(other.getVideoColorTunerFamily(family), -1);
}

TEST_F(HostSystemSettingTest, UnwritableStateDirectoryFailsWithALogLine) {
    // A regular file where the directory should be: fails even for root.
    std::ofstream(root / "blocker") << "x";
    setenv("AIPQ_TV_DIR", (root / "blocker" / "tv").c_str(), 1);
    LogCapture log;
    std::vector<int> good = row(3);
    EXPECT_EQ(setting.setVideoPQParameters(good), -1);
    EXPECT_EQ(setting.setVideoBrightness(1), -1);
    EXPECT_EQ(setting.setVideoColorTunerFamily(good), -1);
    EXPECT_EQ(log.count("[Platform Adaptation] cannot write"), 3);
}

TEST_F(HostSystemSettingTest, ConcurrentCallersNeitherFailNorTearLines) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 50;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Each thread its own client, as the daemon's threads may have.
            SystemSetting mine;
            for (int i = 0; i < kCalls; ++i) {
                std::vector<int> r = row(t * 1000 + i);
                if (mine.setVideoPQParameters(r) != 0) {
                    ++failures[t];
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(failures[t], 0) << "thread " << t;
    }

    std::set<std::string> valid;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kCalls; ++i) {
            valid.insert(line(row(t * 1000 + i)));
        }
    }
    std::istringstream history(text("pq_history"));
    std::string l;
    std::string last;
    std::set<std::string> seen;
    int lines = 0;
    while (std::getline(history, l)) {
        ++lines;
        EXPECT_EQ(valid.count(l + "\n"), 1u) << "torn or unknown line: " << l;
        seen.insert(l + "\n");
        last = l + "\n";
    }
    EXPECT_EQ(lines, kThreads * kCalls);
    EXPECT_EQ(seen, valid);
    // The last history line is the row that stayed current.
    EXPECT_EQ(valid.count(text("pq_parameters")), 1u);
    EXPECT_EQ(text("pq_parameters"), last);
}

}  // namespace
