// tvctl, run as a program against a private TV-state directory.

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "system_info.h"
#include "tv_state_dir.h"

namespace {

struct Result {
    int status;
    std::string out;
    std::string err;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) {
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return q + "'";
}

class TvctlTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/aipq_tvctl_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_work = tmpl;
        m_dir = m_work + "/tv";
        setenv("AIPQ_TV_DIR", m_dir.c_str(), 1);
    }

    void TearDown() override {
        unsetenv("AIPQ_TV_DIR");
        ASSERT_EQ(std::system(("rm -rf " + quote(m_work)).c_str()), 0);
    }

    Result tvctl(const std::vector<std::string>& args) {
        std::string cmd = "AIPQ_TV_DIR=" + quote(m_dir) + " " + quote(std::string(AIPQ_BIN_DIR) + "/tvctl");
        for (const std::string& a : args) {
            cmd += " " + quote(a);
        }
        std::string out = m_work + "/out";
        std::string err = m_work + "/err";
        cmd += " >" + quote(out) + " 2>" + quote(err) + " </dev/null";
        int raw = std::system(cmd.c_str());
        Result run;
        run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        run.out = readFile(out);
        run.err = readFile(err);
        return run;
    }

    // Every file in the TV-state directory with its content, hidden ones included.
    std::map<std::string, std::string> files() {
        std::map<std::string, std::string> result;
        DIR* d = opendir(m_dir.c_str());
        if (d == nullptr) {
            return result;
        }
        while (struct dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") {
                result[name] = readFile(m_dir + "/" + name);
            }
        }
        closedir(d);
        return result;
    }

    std::string m_work;
    std::string m_dir;
};

// The value shown for `name` in `tvctl show` output, or "" when it has no line.
std::string shown(const std::string& out, const std::string& name) {
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first == name) {
            std::string rest;
            std::getline(words, rest);
            size_t begin = rest.find_first_not_of(' ');
            return begin == std::string::npos ? "" : rest.substr(begin);
        }
    }
    return "";
}

TEST_F(TvctlTest, AnInvalidPairIsNamedAndNothingIsWritten) {
    ASSERT_EQ(tvctl({"preset", "watching"}).status, 0);
    const std::map<std::string, std::string> before = files();

    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases = {
        {{"set", "volume", "3"}, {"volume"}},
        {{"set", "hdr_type", "2", "bogus_key", "1"}, {"bogus_key"}},
        {{"set", "game_mode", "1", "hdr_type", "1.5"}, {"hdr_type", "1.5"}},
        {{"set", "game_mode", "1", "player_state", "two", "source_type", "3"}, {"player_state", "two"}},
        {{"set", "source_type", "12abc"}, {"12abc"}},
        {{"set", "source_type", ""}, {"source_type"}},
        {{"set", "source_type", " 4"}, {" 4"}},
        {{"set", "power_state", "99999999999"}, {"99999999999"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first[1] + " ... " + c.first.back());
        Result run = tvctl(c.first);
        EXPECT_EQ(run.status, 2);
        for (const std::string& named : c.second) {
            EXPECT_NE(run.err.find(named), std::string::npos) << run.err;
        }
        EXPECT_EQ(files(), before);
    }
}

TEST_F(TvctlTest, AnInvalidPairInAnEmptyDirectoryWritesNoFile) {
    Result run = tvctl({"set", "game_mode", "1", "nonsense", "1"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("nonsense"), std::string::npos);
    EXPECT_TRUE(files().empty());
}

TEST_F(TvctlTest, MisuseExitsWithTwo) {
    EXPECT_EQ(tvctl({}).status, 2);
    EXPECT_EQ(tvctl({"set"}).status, 2);
    EXPECT_EQ(tvctl({"set", "game_mode"}).status, 2);
    EXPECT_EQ(tvctl({"get"}).status, 2);
    EXPECT_EQ(tvctl({"get", "nope"}).status, 2);
    EXPECT_EQ(tvctl({"preset", "sleeping"}).status, 2);
    EXPECT_EQ(tvctl({"show", "extra"}).status, 2);
    EXPECT_EQ(tvctl({"frobnicate"}).status, 2);
    EXPECT_TRUE(files().empty());

    Result none = tvctl({});
    EXPECT_NE(none.err.find("Usage"), std::string::npos);
    Result help = tvctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("tvctl set KEY VALUE"), std::string::npos);
    for (const std::string& key : host::tvStateKeys()) {
        EXPECT_NE(help.out.find(key), std::string::npos) << key;
    }
}

TEST_F(TvctlTest, SetWritesEveryPairAndLeavesNoTemporaryFile) {
    Result run =
        tvctl({"set", "source_type", "6", "player_state", "1", "hdr_type", "-3", "power_state", "+8"});
    EXPECT_EQ(run.status, 0) << run.err;
    std::map<std::string, std::string> expected = {
        {"source_type", "6\n"}, {"player_state", "1\n"}, {"hdr_type", "-3\n"}, {"power_state", "8\n"}};
    EXPECT_EQ(files(), expected);

    Result get = tvctl({"get", "hdr_type"});
    EXPECT_EQ(get.status, 0);
    EXPECT_EQ(get.out, "-3\n");
    Result missing = tvctl({"get", "game_mode"});
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(missing.out, "0\n");
}

TEST_F(TvctlTest, PresetWatching) {
    Result run = tvctl({"preset", "watching"});
    ASSERT_EQ(run.status, 0) << run.err;
    const std::map<std::string, int> expected = {
        {"aipq_supported", 1},       {"aipq_switch", 1}, {"aipq_available", 1}, {"source_type", 2},
        {"player_state", 2},         {"hdr_type", 1},    {"game_mode", 0},      {"encrypted_source1", 0},
        {"encrypted_source6or9", 0}, {"power_state", 0}};
    std::map<std::string, std::string> written = files();
    EXPECT_EQ(written.size(), expected.size());
    for (const auto& kv : expected) {
        EXPECT_EQ(written[kv.first], std::to_string(kv.second) + "\n") << kv.first;
    }
}

TEST_F(TvctlTest, ShowListsEveryKeyAndTheNamedOffsets) {
    ASSERT_EQ(tvctl({"set", "source_type", "9", "game_mode", "1"}).status, 0);
    ASSERT_TRUE(host::writeTvFileAtomic("hdr_type", "dolby\n"));

    Result run = tvctl({"show"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find(m_dir), std::string::npos);
    EXPECT_EQ(shown(run.out, "source_type"), "9");
    EXPECT_EQ(shown(run.out, "game_mode"), "1");
    EXPECT_EQ(shown(run.out, "hdr_type"), "0 (file holds no integer)");
    EXPECT_EQ(shown(run.out, "aipq_switch"), "0 (not set)");
    for (const std::string& key : host::tvStateKeys()) {
        EXPECT_NE(shown(run.out, key), "") << key;
    }
    EXPECT_NE(run.out.find("(none applied yet)"), std::string::npos);

    // Offsets 100, 101, ... 133: each name must carry the value of its own position.
    std::string row;
    for (int i = 0; i < 34; ++i) {
        row += (i == 0 ? "" : " ") + std::to_string(100 + i);
    }
    ASSERT_TRUE(host::writeTvFileAtomic("pq_parameters", row + "\n"));
    run = tvctl({"show"});
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.out.find("none applied"), std::string::npos);
    const std::vector<std::pair<std::string, int>> named = {{"brightness", 100},
                                                            {"contrast", 101},
                                                            {"saturation", 102},
                                                            {"sharpness", 103},
                                                            {"memc", 104},
                                                            {"nr", 105},
                                                            {"colortunerMag", 106},
                                                            {"colortunerMagB", 107},
                                                            {"colortunerMagH", 109},
                                                            {"colortunerRed", 110},
                                                            {"colortunerYlwS", 116},
                                                            {"colortunerGrn", 118},
                                                            {"colortunerCynH", 125},
                                                            {"colortunerBlu", 126},
                                                            {"colortunerFlshTon", 130},
                                                            {"colortunerFlshTonB", 131},
                                                            {"colortunerFlshTonS", 132},
                                                            {"colortunerFlshTonH", 133}};
    for (const auto& kv : named) {
        EXPECT_EQ(shown(run.out, kv.first), std::to_string(kv.second)) << kv.first;
    }
}

TEST_F(TvctlTest, ShowSaysWhenTheOffsetRowIsMalformed) {
    ASSERT_EQ(tvctl({"preset", "watching"}).status, 0);
    for (const std::string& content : {std::string("1 2 3\n"), std::string(""), std::string("1 2 x 4\n")}) {
        ASSERT_TRUE(host::writeTvFileAtomic("pq_parameters", content));
        Result run = tvctl({"show"});
        EXPECT_EQ(run.status, 0);
        EXPECT_NE(run.out.find("malformed"), std::string::npos) << content;
        EXPECT_EQ(shown(run.out, "brightness"), "") << content;
        EXPECT_EQ(shown(run.out, "player_state"), "2");
    }
}

TEST_F(TvctlTest, EveryWriteReachesAWatchingClient) {
    struct Seen {
        std::mutex mutex;
        std::condition_variable cond;
        std::vector<int> modes;
    } seen;
    SystemInfo client;
    client.setVideoGameModeChangedCallback(
        [](VideoGameMode mode, void* u) {
            auto* s = static_cast<Seen*>(u);
            std::lock_guard<std::mutex> lock(s->mutex);
            s->modes.push_back(mode);
            s->cond.notify_all();
        },
        &seen);
    ASSERT_EQ(tvctl({"set", "game_mode", "1"}).status, 0);
    ASSERT_EQ(tvctl({"set", "game_mode", "1"}).status, 0);
    ASSERT_EQ(tvctl({"set", "game_mode", "1", "game_mode", "0"}).status, 0);
    std::unique_lock<std::mutex> lock(seen.mutex);
    EXPECT_TRUE(seen.cond.wait_for(lock, std::chrono::seconds(5), [&] { return seen.modes.size() >= 4; }));
    EXPECT_EQ(seen.modes.size(), 4u);
    EXPECT_EQ(seen.modes.back(), 0);
    lock.unlock();
    client.setVideoGameModeChangedCallback(nullptr, nullptr);
}

}  // namespace
