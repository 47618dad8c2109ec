#ifndef TESTS_E2E_E2E_HARNESS_H
#define TESTS_E2E_E2E_HARNESS_H

// The real daemon, AI service and tvctl in the test's own sandbox; the daemon's waits run ten
// times faster unless a test says otherwise.
#include <gtest/gtest.h>
#include <mqueue.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ai_service_protocol.h"
#include "child_process.h"
#include "system_setting_manager.h"

namespace e2e {

using namespace std::chrono_literals;
namespace proto = ai_service_protocol;
using Label = telvo_ai_service::AiPQPredictLabel;

// AIPQ_E2E_BIN_DIR: an installed tree's bin/ instead of the build's (tests/package).
const std::string kBin = std::getenv("AIPQ_E2E_BIN_DIR") ? std::getenv("AIPQ_E2E_BIN_DIR") : AIPQ_BIN_DIR;
const std::string kTvDir = "/var/run/aipq_tv";

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The host setting client's files: one applied row of 34 offsets per line.
inline std::vector<std::vector<int>> pqRows(const std::string& key) {
    std::vector<std::vector<int>> rows;
    std::istringstream text(readFile(kTvDir + "/" + key));
    for (std::string line; std::getline(text, line);) {
        std::istringstream in(line);
        rows.emplace_back(std::istream_iterator<int>(in), std::istream_iterator<int>());
    }
    return rows;
}

inline std::vector<int> pqRow(Label label) {
    return std::vector<int>(s_PQSettingTable[label], s_PQSettingTable[label] + PQ_SETTING_PARAMETERS_COUNT);
}

inline bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = 30s) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

inline bool segmentExists() {
    return shmget(proto::kShmKey, 0, 0) >= 0;
}

class Harness : public ::testing::Test {
protected:
    // A binary run by hand keeps one sandbox for all its tests: each starts from a clean TV.
    void SetUp() override {
        ASSERT_NE(std::getenv("AIPQ_SANDBOXED"), nullptr);
        runCommand("rm -rf " + kTvDir + " /var/run/BIZREADY2 /var/local/*");
        mq_unlink(proto::kQueueName);
        shmctl(shmget(proto::kShmKey, 0, 0), IPC_RMID, nullptr);
        tvctl("preset watching");
        std::ofstream("/var/run/BIZREADY2").close();
        char dir[] = "/tmp/aipq_e2e_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_work = dir;
    }
    void TearDown() override {
        m_daemon.reset();
        m_service.reset();
        runCommand("rm -rf " + m_work);
    }

    void tvctl(const std::string& args) {
        std::string out;
        EXPECT_EQ(runCommand("AIPQ_TV_DIR=" + kTvDir + " " + kBin + "/tvctl " + args, &out), 0) << out;
    }
    static std::vector<std::string> env(std::vector<std::string> extra) {
        extra.insert(extra.begin(), {"AIPQ_TV_DIR=" + kTvDir, "AIPQ_TIME_SCALE=10", "AIPQ_LOG_LEVEL=4000"});
        return extra;
    }
    void startService() {
        m_service.reset(new ChildProcess({kBin + "/ai_service", "--trace", m_work + "/trace"}, env({})));
    }
    void startDaemon(const std::vector<std::string>& extraEnv = {}) {
        m_daemon.reset(new ChildProcess({kBin + "/ai_manager"}, env(extraEnv)));
    }
    // Commands the service received, from its "<seconds> <command>" trace lines.
    std::vector<std::string> commands() const {
        std::vector<std::string> out;
        std::istringstream text(readFile(m_work + "/trace"));
        for (std::string line; std::getline(text, line);) {
            out.push_back(line.substr(line.find(' ') + 1));
        }
        return out;
    }
    long predicts() const {
        std::vector<std::string> c = commands();
        return std::count(c.begin(), c.end(), std::string(proto::kCmdPredict));
    }
    // The mappings of the daemon's process that name `library`.
    std::string mapped(const std::string& library) const {
        std::istringstream maps(readFile("/proc/" + std::to_string(m_daemon->pid()) + "/maps"));
        std::string found;
        for (std::string line; std::getline(maps, line);) {
            found += line.find(library) != std::string::npos ? line + "\n" : "";
        }
        return found;
    }
    static void stop(ChildProcess& p) {
        p.signal(SIGTERM);
        EXPECT_EQ(p.wait(30s), 0) << p.output();
    }

    std::string m_work;
    std::unique_ptr<ChildProcess> m_service, m_daemon;
};

}  // namespace e2e

#endif
