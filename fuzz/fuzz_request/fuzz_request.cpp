// The daemon's side of a request against a service that answers each command with a state word and
// its record (832-byte configuration, 48-byte prediction, 4-byte image check) from the input. The
// daemon reads nothing past the segment, logs the configuration's strings cut at their fields, and
// applies a row only for a new scene 0..19, or the neutral one when a gate closes: that scene's row.
#include <mqueue.h>
#include <sanitizer/asan_interface.h>
#include <sys/prctl.h>
#include <sys/shm.h>

#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "ai_recognition.h"
#include "fuzz_input.h"
#include "recognition_process_manager.h"
#include "system_info_manager.h"
#include "system_setting.h"
#include "system_setting_manager.h"

namespace proto = ai_service_protocol;

namespace {

struct Client : RecognitionProcessManager {
    int lastLabel() const { return m_lastLabel; }
    void fresh() { m_modelLoaded = m_aiServiceEnvLoaded = false, m_lastLabel = telvo_ai_service::Invalid; }
    bool cutAtFields(const std::string& line) const {
        auto field = [](const char* text) { return std::string(text, strnlen(text, 256)); };
        return line.find("model_name: " + field(m_modelConfig.model_name) + ", labels_file_name: " +
                         field(m_modelConfig.labels_file_name) + ".\n") != std::string::npos;
    }
};
struct AipqOn : SystemInfoManager {
    AipqOn() : SystemInfoManager(nullptr) {}
    void start() override {}
    bool getAIPQEnable() override { return true; }
};
struct NoCapture : PictureCapture {  // the picture is whatever the answers left in the payload
    bool getPicture(bool, korvane::ai::PictureData*) override { return true; }
};
struct Rows : SystemSetting {
    std::vector<std::vector<int>> applied;
    int setVideoPQParameters(std::vector<int>& row) override { return applied.push_back(row), 0; }
};

std::mutex g_mutex;  // guards the answering side
FuzzInput g_answers{nullptr, 0};
unsigned char* g_shm;

void answerCommands(mqd_t queue) {
    char message[proto::kMessageSize];
    while (mq_receive(queue, message, sizeof(message), nullptr) >= 0) {
        std::lock_guard<std::mutex> lock(g_mutex);
        const std::string command(message, strnlen(message, sizeof(message)));
        const int32_t answer = g_answers.take<int32_t>();
        g_answers.bytes(g_shm + proto::kPayloadOffset,
                        command == proto::kCmdGetModelConfig ? proto::kModelConfigSize
                        : command == proto::kCmdPredict      ? proto::kPredictResultSize
                        : command == proto::kCmdImagePredict ? 4
                                                             : 0);
        __atomic_store_n(reinterpret_cast<int32_t*>(g_shm + proto::kHeaderStateOffset), answer,
                         __ATOMIC_RELEASE);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Client* client;
    static Rows* rows;
    static AIRecognition* controller;
    [[maybe_unused]] static const bool ready = [] {
        host::setLogSink([](const std::string& line) {
            FUZZ_CHECK(line.find("labels_file_name: ") == std::string::npos || client->cutAtFields(line));
        });
        // Poll steps of 50 ns keep time-outs cheap; an answer late for one is a slow service.
        host::setTimeScale(1e6);
        prctl(PR_SET_TIMERSLACK, 1UL);
        struct mq_attr attr = {0, proto::kQueueMaxMessages, proto::kMessageSize, 0, {}};
        const mqd_t queue = mq_open(proto::kQueueName, O_RDWR | O_CREAT, 0666, &attr);
        client = new Client;
        g_shm = static_cast<unsigned char*>(shmat(shmget(proto::kShmKey, 0, 0), nullptr, 0));
        FUZZ_CHECK(queue != mqd_t(-1) && g_shm != reinterpret_cast<void*>(-1));
        // The rest of the segment's last page, in the client's mapping as in ours, is out of bounds.
        std::ifstream maps("/proc/self/maps");
        const size_t tail = (getpagesize() - proto::kShmSize % getpagesize()) % getpagesize();
        for (std::string line; std::getline(maps, line);) {
            if (line.find("/SYSV") != std::string::npos) {
                __asan_poison_memory_region(
                    reinterpret_cast<char*>(std::stoull(line, nullptr, 16)) + proto::kShmSize, tail);
            }
        }
        std::thread(answerCommands, queue).detach();
        rows = new Rows;
        controller = new AIRecognition;
        auto* settings = new SystemSettingManager(std::shared_ptr<Rows>(rows));
        return controller->init(new NoCapture, nullptr, new AipqOn, settings, client, nullptr), true;
    }();

    FuzzInput in{data, size};
    const std::string ops = in.text(in.take<uint8_t>() % 8);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_answers = in;  // the rest answers the commands in the order they come
        std::memset(g_shm + proto::kHeaderStateOffset, 0, proto::kShmSize - proto::kHeaderStateOffset);
    }
    client->fresh();
    rows->applied.clear();
    korvane::ai::PictureData picture{};
    const std::function<void()> requests[] = {
        [] { controller->recognitionProcess(); }, [&] { client->isValidPicture(&picture); },
        [] { client->releaseModel(); }, [] { client->stopAiService(); }, [] { controller->resetConfig(); }};
    for (const uint8_t op : ops) {
        const int before = client->lastLabel();
        const size_t applied = rows->applied.size();
        requests[op % 5]();  // the last: a gate closed
        const int after = client->lastLabel();
        const bool applies = op % 5 == 4 || (after != before && unsigned(after) < proto::kLabelCount);
        const int* row = s_PQSettingTable[applies ? after : 0];
        FUZZ_CHECK(rows->applied.size() == applied + applies &&
                   (!applies || rows->applied.back() == std::vector<int>(row, row + pq_row::kSize)));
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    g_answers = FuzzInput{nullptr, 0};  // a late command gets zeros, not freed bytes
    return 0;
}
