// The real daemon and the reference AI service in a private sandbox: the wire sequence, scenes
// reaching the PQ history, and the faults the pair must survive.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ai_service_protocol.h"
#include "child_process.h"
#include "system_setting_manager.h"

using namespace std::chrono_literals;
namespace proto = ai_service_protocol;

namespace {

const std::string kBin = AIPQ_BIN_DIR;
const std::string kTvDir = "/var/run/aipq_tv";
const std::vector<std::string> kColdSequence = {proto::kCmdInitAiService,  proto::kCmdGetModelConfig,
                                                proto::kCmdSetModelConfig, proto::kCmdSetAiType,
                                                proto::kCmdLoadModel,      proto::kCmdPredict};

std::vector<std::string> lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

// "<seconds.micros> <command>" lines -> commands.
std::vector<std::string> traced(const std::string& path) {
    std::vector<std::string> out;
    for (const auto& line : lines(path)) {
        size_t space = line.find(' ');
        out.push_back(space == std::string::npos ? std::string() : line.substr(space + 1));
    }
    return out;
}

std::vector<std::vector<int>> pqHistory() {
    std::vector<std::vector<int>> rows;
    for (const auto& line : lines(kTvDir + "/pq_history")) {
        std::istringstream in(line);
        std::vector<int> row;
        for (int v; in >> v;) {
            row.push_back(v);
        }
        rows.push_back(row);
    }
    return rows;
}

std::vector<int> pqRow(telvo_ai_service::AiPQPredictLabel label) {
    return std::vector<int>(s_PQSettingTable[label], s_PQSettingTable[label] + PQ_SETTING_PARAMETERS_COUNT);
}

// The 16-hex-digit fingerprints that follow `marker` in a log, in order.
std::vector<std::string> fingerprints(const std::string& log, const std::string& marker) {
    std::vector<std::string> out;
    for (size_t pos = log.find(marker); pos != std::string::npos; pos = log.find(marker, pos + 1)) {
        out.push_back(log.substr(pos + marker.size(), 16));
    }
    return out;
}

// A clear blue sky as a binary PPM, which the capture reads like any image.
void writeSkyPpm(const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    out << "P6\n224 224\n255\n";
    for (int y = 0; y < 224; ++y) {
        for (int x = 0; x < 224; ++x) {
            unsigned char px[3] = {static_cast<unsigned char>(40 + y / 3 + (x * 7 + y) % 5),
                                   static_cast<unsigned char>(100 + y / 3 + (x * 3 + y * 5) % 5),
                                   static_cast<unsigned char>(220 + (x + y) % 7)};
            out.write(reinterpret_cast<const char*>(px), 3);
        }
    }
}

class RecognitionE2E : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("AIPQ_SANDBOXED"), nullptr);
        removeChannel();
        std::string out;
        runCommand("rm -rf " + kTvDir, &out);
        ASSERT_EQ(runCommand("AIPQ_TV_DIR=" + kTvDir + " " + kBin + "/tvctl preset watching", &out), 0)
            << out;
        std::ofstream("/var/run/BIZREADY2").close();
        char pattern[] = "/tmp/aipq_e2e_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        work_ = pattern;
    }
    void TearDown() override {
        for (auto* p : {&daemon_, &daemon2_, &service_, &service2_}) {
            p->reset();
        }
        removeChannel();
        runCommand("rm -rf " + work_);
    }

    static void removeChannel() {
        mq_unlink(proto::kQueueName);
        int id = shmget(proto::kShmKey, 0, 0);
        if (id >= 0) {
            shmctl(id, IPC_RMID, nullptr);
        }
    }

    std::vector<std::string> env(const std::vector<std::string>& extra = {}) const {
        std::vector<std::string> e = {"AIPQ_TV_DIR=" + kTvDir, "AIPQ_TIME_SCALE=10", "AIPQ_LOG_LEVEL=4000"};
        e.insert(e.end(), extra.begin(), extra.end());
        return e;
    }

    std::unique_ptr<ChildProcess> service(const std::string& name, std::vector<std::string> args = {}) {
        std::vector<std::string> argv = {kBin + "/ai_service", "--trace", trace(name), "--record",
                                         work_ + "/" + name + ".raw"};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::unique_ptr<ChildProcess>(new ChildProcess(argv, env()));
    }

    std::unique_ptr<ChildProcess> daemon(const std::vector<std::string>& extraEnv = {}) {
        return std::unique_ptr<ChildProcess>(new ChildProcess({kBin + "/ai_manager"}, env(extraEnv)));
    }

    std::string trace(const std::string& name) const { return work_ + "/" + name + ".trace"; }

    static void stopAndExpectCleanExit(std::unique_ptr<ChildProcess>& p, const char* what) {
        p->signal(SIGTERM);
        EXPECT_EQ(p->wait(30s), 0) << what << ":\n" << p->output();
    }

    std::string work_;
    std::unique_ptr<ChildProcess> daemon_, daemon2_, service_, service2_;
};

TEST_F(RecognitionE2E, ColdSequenceThenPredictOnlyAndEverySceneChangeApplied) {
    service_ = service("svc");
    daemon_ = daemon();  // built-in scenes: sky, grass, snow, cartoon in turn
    ASSERT_TRUE(daemon_->waitForOutput("recognitionPicture ret: 0.", 30s, 6)) << daemon_->output();
    stopAndExpectCleanExit(daemon_, "daemon");

    std::vector<std::string> commands = traced(trace("svc"));
    ASSERT_GE(commands.size(), 8u);
    EXPECT_EQ(std::vector<std::string>(commands.begin(), commands.begin() + 6), kColdSequence);
    int predicts = 0;
    for (size_t i = 6; i < commands.size(); ++i) {
        // The model is released when the worker stops; nothing else comes after the cold start.
        if (commands[i] == proto::kCmdReleaseModel) {
            continue;
        }
        EXPECT_EQ(commands[i], proto::kCmdPredict) << "command " << i;
        ++predicts;
    }
    EXPECT_GE(predicts, 5);

    // Every message on the queue is exactly 40 bytes: the command, then NUL padding.
    std::ifstream raw(work_ + "/svc.raw", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(raw)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), commands.size() * 40);
    for (size_t i = 0; i < commands.size(); ++i) {
        std::string message = bytes.substr(i * 40, 40);
        EXPECT_EQ(message, commands[i] + std::string(40 - commands[i].size(), '\0')) << "message " << i;
    }

    // The service classified exactly what was captured, the cold cycle included, where the
    // configuration exchange had overwritten the start of the picture.
    std::vector<std::string> captured = fingerprints(daemon_->output(), " captured, ");
    std::vector<std::string> classified = fingerprints(service_->output(), "ai_service_predict: picture ");
    ASSERT_FALSE(classified.empty());
    ASSERT_FALSE(captured.empty());
    EXPECT_EQ(classified[0], captured[0]);
    for (size_t i = 0; i < classified.size() && i < captured.size(); ++i) {
        EXPECT_EQ(classified[i], captured[i]) << "cycle " << i;
    }

    // Each cycle brought a new scene, so each applied its row, in the rotation's order.
    const telvo_ai_service::AiPQPredictLabel rotation[4] = {
        telvo_ai_service::Sky, telvo_ai_service::Grassland, telvo_ai_service::Snow,
        telvo_ai_service::Cartoon};
    std::vector<std::vector<int>> history = pqHistory();
    ASSERT_GE(history.size(), 5u) << daemon_->output();
    for (size_t i = 0; i < history.size(); ++i) {
        EXPECT_EQ(history[i], pqRow(rotation[i % 4])) << "row " << i;
    }
    stopAndExpectCleanExit(service_, "service");
}

TEST_F(RecognitionE2E, RepeatedSceneIsAppliedOnce) {
    writeSkyPpm(work_ + "/sky.ppm");
    service_ = service("svc");
    daemon_ = daemon({"AIPQ_CAPTURE_SOURCE=" + work_ + "/sky.ppm"});
    ASSERT_TRUE(daemon_->waitForOutput("recognitionPicture ret: 0.", 30s, 5)) << daemon_->output();
    std::vector<std::vector<int>> history = pqHistory();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0], pqRow(telvo_ai_service::Sky));
    stopAndExpectCleanExit(daemon_, "daemon");
}

TEST_F(RecognitionE2E, ServiceRestartedMidRunIsReinitialisedAndScenesKeepComing) {
    service_ = service("first", {"--exit-after", "8"});
    daemon_ = daemon();
    ASSERT_EQ(service_->wait(30s), 0) << service_->output();
    int before = daemon_->count("recognitionPicture ret: 0.");
    size_t historyBefore = pqHistory().size();

    service2_ = service("second");
    ASSERT_TRUE(daemon_->waitForOutput("recognitionPicture ret: 0.", 30s, before + 3)) << daemon_->output();
    EXPECT_GT(pqHistory().size(), historyBefore);
    // The new service saw the client bring it up again: init and configuration, then a load.
    std::vector<std::string> commands = traced(trace("second"));
    auto it = std::search(commands.begin(), commands.end(), kColdSequence.begin(), kColdSequence.begin() + 4);
    ASSERT_NE(it, commands.end()) << "no re-initialisation reached the new service";
    EXPECT_NE(std::find(it, commands.end(), std::string(proto::kCmdLoadModel)), commands.end());
    stopAndExpectCleanExit(daemon_, "daemon");
}

TEST_F(RecognitionE2E, ServiceThatNeverAnswersOnlyCostsTimeOuts) {
    service_ = service("svc", {"--no-answer"});
    daemon_ = daemon();
    // init: 10 s limit, 10 s of paced retries, twice a cycle (scaled ten times).
    ASSERT_TRUE(daemon_->waitForOutput("initAiService failed. time out: 10", 30s, 2)) << daemon_->output();
    EXPECT_GE(daemon_->count("time out."), 2);
    ASSERT_TRUE(daemon_->waitForOutput("start AI Recognition.", 30s, 2)) << "the worker stopped cycling";
    for (const auto& c : traced(trace("svc"))) {
        EXPECT_EQ(c, proto::kCmdInitAiService) << "nothing goes past an unanswered init";
    }
    EXPECT_TRUE(pqHistory().empty());
    stopAndExpectCleanExit(daemon_, "daemon");
}

TEST_F(RecognitionE2E, DaemonRestartedWhileTheServiceRuns) {
    service_ = service("svc");
    daemon_ = daemon();
    ASSERT_TRUE(daemon_->waitForOutput("recognitionPicture ret: 0.", 30s, 2)) << daemon_->output();
    stopAndExpectCleanExit(daemon_, "first daemon");
    size_t before = traced(trace("svc")).size();

    daemon2_ = daemon();
    ASSERT_TRUE(daemon2_->waitForOutput("recognitionPicture ret: 0.", 30s, 2))
        << daemon2_->output() << service_->output();
    std::vector<std::string> commands = traced(trace("svc"));
    ASSERT_GT(commands.size(), before);
    // The second daemon's own queue was found and its cold start answered in full.
    auto it = std::search(commands.begin() + static_cast<long>(before), commands.end(), kColdSequence.begin(),
                          kColdSequence.end());
    EXPECT_NE(it, commands.end());
    EXPECT_TRUE(service_->waitForOutput("listening on the new one", 1s)) << service_->output();
    EXPECT_TRUE(service_->running());
    stopAndExpectCleanExit(daemon2_, "second daemon");
    stopAndExpectCleanExit(service_, "service");
}

TEST_F(RecognitionE2E, QueueLeftByAnEarlierRunIsReopened) {
    struct mq_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    attr.mq_maxmsg = 5;
    attr.mq_msgsize = 40;
    mqd_t stale = mq_open(proto::kQueueName, O_RDWR | O_CREAT, 0666, &attr);
    ASSERT_NE(stale, static_cast<mqd_t>(-1));
    char leftover[40] = "ai_service_predict";
    ASSERT_EQ(mq_send(stale, leftover, sizeof(leftover), 0), 0);
    mq_close(stale);

    service_ = service("svc");
    daemon_ = daemon();
    ASSERT_TRUE(daemon_->waitForOutput("recognitionPicture ret: 0.", 30s, 2)) << daemon_->output();
    EXPECT_TRUE(daemon_->waitForOutput("message queue is exist.", 1s));
    // Nobody waits for the leftover: it must not be answered into the first real request.
    EXPECT_TRUE(service_->waitForOutput("ignoring \"ai_service_predict\": no request is posted", 1s))
        << service_->output();
    std::vector<std::string> commands = traced(trace("svc"));
    ASSERT_GE(commands.size(), 7u);
    EXPECT_EQ(std::vector<std::string>(commands.begin() + 1, commands.begin() + 7), kColdSequence);
    stopAndExpectCleanExit(daemon_, "daemon");
}

TEST_F(RecognitionE2E, MissingModelFailsTheLoadAndTheDaemonCarriesOn) {
    service_ = service("svc");
    daemon_ = daemon(
        {"RECOGNITION_MODEL_PATH=/nonexistent/scene.onnx", "RECOGNITION_LABEL_PATH=/nonexistent/l.txt"});
    ASSERT_TRUE(daemon_->waitForOutput("Load model error. loadModelResult: 1.", 30s, 2)) << daemon_->output();
    EXPECT_TRUE(service_->waitForOutput("cannot load model \"/nonexistent/scene.onnx\"", 1s))
        << service_->output();
    EXPECT_TRUE(daemon_->running());
    std::vector<std::string> commands = traced(trace("svc"));
    EXPECT_EQ(std::count(commands.begin(), commands.end(), std::string(proto::kCmdPredict)), 0);
    EXPECT_GE(std::count(commands.begin(), commands.end(), std::string(proto::kCmdLoadModel)), 2);
    EXPECT_TRUE(pqHistory().empty());
    stopAndExpectCleanExit(daemon_, "daemon");
}

TEST_F(RecognitionE2E, UnsupportedTvStopsTheService) {
    std::ofstream(kTvDir + "/aipq_supported") << "0\n";
    service_ = service("svc");
    daemon_ = daemon();
    EXPECT_EQ(service_->wait(30s), 0) << service_->output();
    EXPECT_EQ(traced(trace("svc")), std::vector<std::string>{proto::kCmdStopAiService});
    EXPECT_EQ(daemon_->wait(30s), 0) << daemon_->output();
}

}  // namespace
