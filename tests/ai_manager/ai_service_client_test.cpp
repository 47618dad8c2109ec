// The AI service client against a fake service over the real segment and queue (the binary runs in
// its own IPC namespace), and the scene rule and environment overrides it applies. Offsets and sizes
// are written out here rather than taken from the protocol header, so that a layout change shows.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <sys/shm.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <future>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "controller_fakes.h"
#include "recognition_process_manager.h"

using svc::TelvoAiPQPredict;
using Bytes = std::vector<uint8_t>;
using Commands = std::vector<std::string>;

namespace {

constexpr int kKey = 72314, kSegmentSize = 150552, kStateAt = 4, kPayloadAt = 24, kConfigSize = 832;
const char* const kQueue = "/ai_service_message_queue";
const std::string kInit = "ai_service_init_ai_service", kGetConfig = "ai_service_get_model_config",
                  kSetConfig = "ai_service_set_model_config", kSetType = "ai_service_set_aitype",
                  kLoad = "ai_service_load_model", kRelease = "ai_service_release_model",
                  kImage = "ai_service_image_predict", kPredict = "ai_service_predict";

std::string pad40(std::string s) {
    s.resize(40, '\0');
    return s;
}

Bytes pattern(size_t n) {
    Bytes v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<uint8_t>(3 + i * 7 + (i >> 8));
    }
    return v;
}

// A 48-byte predict result: a leading word, then the records.
Bytes predictResult(const std::vector<TelvoAiPQPredict>& records) {
    Bytes out(48, 0);
    std::memcpy(out.data() + 4, records.data(), records.size() * sizeof(TelvoAiPQPredict));
    return out;
}

mqd_t openQueue(int flags) {
    mq_attr attr = {};
    attr.mq_maxmsg = 5;
    attr.mq_msgsize = 40;
    return mq_open(kQueue, flags | O_CREAT, 0666, &attr);
}

uint8_t* attachSegment() {
    return static_cast<uint8_t*>(shmat(shmget(kKey, kSegmentSize, IPC_CREAT | 0666), nullptr, 0));
}

// Answers each command as the service does, payload first and the state word last, and keeps what
// it received: the message, the state word and the payload's head at that moment.
class FakeService {
public:
    struct Received {
        std::string raw;
        int32_t state;
        Bytes head;
    };
    FakeService() : m_segment(attachSegment()), m_queue(openQueue(O_RDWR)), m_thread([this] { run(); }) {}
    ~FakeService() {
        mq_send(m_queue, pad40("quit").data(), 40, 9);
        m_thread.join();
        mq_close(m_queue);
        shmdt(m_segment);
    }
    void reply(const std::string& command, int32_t state, Bytes payload = {}) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_replies[command] = {state, payload};
    }
    // Each request waits for its answer, and a command is recorded before it is answered.
    std::vector<Received> received() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }
    Commands commands() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_commands;
    }

private:
    void run() {
        int32_t* state = reinterpret_cast<int32_t*>(m_segment + kStateAt);
        for (;;) {
            char buf[64] = {};
            ssize_t n = mq_receive(m_queue, buf, sizeof(buf), nullptr);
            if (n < 0 || std::string(buf) == "quit") {
                return;
            }
            std::lock_guard<std::mutex> lock(m_mutex);
            m_commands.push_back(buf);
            m_received.push_back({std::string(buf, n), __atomic_load_n(state, __ATOMIC_ACQUIRE),
                                  Bytes(m_segment + kPayloadAt, m_segment + kPayloadAt + kConfigSize)});
            const auto& reply = m_replies[buf];
            std::copy(reply.second.begin(), reply.second.end(), m_segment + kPayloadAt);
            __atomic_store_n(state, reply.first, __ATOMIC_RELEASE);
        }
    }

    uint8_t* m_segment;
    mqd_t m_queue;
    std::mutex m_mutex;
    std::map<std::string, std::pair<int32_t, Bytes>> m_replies;
    std::vector<Received> m_received;
    Commands m_commands;
    std::thread m_thread;
};

class ClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        mq_unlink(kQueue);
        shmctl(shmget(kKey, 0, 0), IPC_RMID, nullptr);
        host::setTimeScale(10.0);
    }
    void TearDown() override { host::setTimeScale(1.0); }

    LogCapture log;
    std::unique_ptr<RecognitionProcessManager> manager;
    korvane::ai::PictureData picture = {};
    svc::AiPQPredictLabel current = svc::Cartoon, previous = svc::Cartoon;
};

TEST_F(ClientTest, SegmentAndQueueMessagesInOrderAndTheLastOneOnceMoreOnStop) {
    uint8_t* segment = attachSegment();
    std::memset(segment, 0xEE, kSegmentSize);
    // A queue left behind, with a message in it: the client takes it over as it is.
    mqd_t queue = openQueue(O_RDWR);
    ASSERT_EQ(mq_send(queue, pad40("left over").data(), 40, 0), 0);
    manager.reset(new RecognitionProcessManager());
    EXPECT_EQ(Bytes(segment, segment + 4), (Bytes{0x18, 0x4C, 0x02, 0x00})) << "150552, little-endian";
    EXPECT_EQ(std::count(segment + 4, segment + kSegmentSize, 0), kSegmentSize - 4);
    auto receive = [&] {
        char buf[64];
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 5;
        ssize_t n = mq_timedreceive(queue, buf, sizeof(buf), nullptr, &deadline);
        return n < 0 ? std::string("nothing") : std::string(buf, n);
    };
    EXPECT_EQ(receive(), pad40("left over"));
    // Back to back from the first moment on: none may be lost while the send thread is busy.
    const std::string longText = "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHI";
    const std::string sent[] = {longText, kPredict, "third", "fourth"};
    for (std::string s : sent) {
        manager->triggerMessage(&s[0]);
    }
    EXPECT_EQ(receive(), pad40(longText.substr(0, 39)));
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(receive(), pad40(sent[i])) << "a short command must not carry the long one's tail";
    }
    ASSERT_TRUE(manager->awaitSendThread(5)) << "the send thread is back in its wait";
    manager.reset();
    // The stop's wake-up sends the last command again: the send thread's wait has no predicate.
    EXPECT_EQ(receive(), pad40("fourth"));
    mq_attr attr;
    ASSERT_EQ(mq_getattr(queue, &attr), 0);
    EXPECT_EQ(attr.mq_curmsgs, 0);
    mq_close(queue);
    EXPECT_EQ(mq_open(kQueue, O_RDONLY), static_cast<mqd_t>(-1)) << "unlinked when the client stops";
}

TEST_F(ClientTest, ColdStartCarriesTheConfigByteForByteAndFailureAnswersRedoItAsFarAsNeeded) {
    FakeService service;
    service.reply(kGetConfig, 0, pattern(kConfigSize));
    service.reply(kPredict, 0, predictResult({{svc::Sky, 0.9f}, {svc::Snow, 0.05f}, {svc::Indoor, 0.01f}}));
    setenv("RECOGNITION_THREAD_NUM", "3", 1);
    manager.reset(new RecognitionProcessManager());
    std::vector<TelvoAiPQPredict> predictions(1, {svc::Dog, 0.5f});
    EXPECT_EQ(manager->recognitionPicture(&picture, current, previous, &predictions), 0);
    unsetenv("RECOGNITION_THREAD_NUM");
    EXPECT_EQ(current, svc::Sky);
    EXPECT_EQ(previous, svc::Invalid);
    const auto got = service.received();
    ASSERT_EQ(service.commands(), (Commands{kInit, kGetConfig, kSetConfig, kSetType, kLoad, kPredict}));
    for (const auto& r : got) {
        EXPECT_EQ(r.raw, pad40(r.raw.c_str()));
        EXPECT_EQ(r.state, 1) << r.raw.c_str() << " went out before its request was posted";
    }
    // The record goes back whole, only the thread count at 804 overridden; then the AI type, a
    // 32-bit 0, over its first bytes.
    Bytes want = pattern(kConfigSize);
    std::copy_n("\3\0\0\0", 4, want.begin() + 804);
    EXPECT_EQ(got[2].head, want);
    std::fill_n(want.begin(), 4, 0);
    EXPECT_EQ(got[3].head, want);
    // All five records are appended, in the service's order.
    ASSERT_EQ(predictions.size(), 6u);
    EXPECT_EQ(predictions[1].label, svc::Sky);
    EXPECT_FLOAT_EQ(predictions[1].confidence, 0.9f);
    EXPECT_EQ(predictions[3].label, svc::Indoor);

    // Warm, only predictions go out. "No model" costs the load, "not initialised" the bring-up.
    service.reply(kPredict, 0, predictResult({{svc::Grassland, 0.8f}, {svc::Sky, 0.1f}}));
    EXPECT_EQ(manager->recognitionPicture(&picture, current, previous, nullptr), 0);
    EXPECT_EQ(previous, svc::Sky);
    EXPECT_EQ(current, svc::Grassland);
    service.reply(kPredict, -3);
    EXPECT_EQ(manager->recognitionPicture(&picture, current, previous, nullptr), 3);
    EXPECT_FALSE(manager->getModelLoadState());
    service.reply(kLoad, -2);
    EXPECT_EQ(manager->loadModel(), 2);
    service.reply(kLoad, 0);
    service.reply(kRelease, -1);
    EXPECT_EQ(manager->loadModel(), 0);
    EXPECT_EQ(manager->loadModel(), 0) << "loaded: nothing goes out";
    EXPECT_EQ(manager->releaseModel(), 1);
    EXPECT_EQ(manager->releaseModel(), 0) << "released even though the service failed it";
    EXPECT_EQ(service.commands(),
              (Commands{kInit, kGetConfig, kSetConfig, kSetType, kLoad, kPredict, kPredict, kPredict, kLoad,
                        kInit, kGetConfig, kSetConfig, kSetType, kLoad, kRelease}));
}

TEST_F(ClientTest, UnansweredRequestsGiveUpAfterTenSecondsAndAFullQueueIsNotWaitedOn) {
    host::setTimeScale(50.0);
    manager.reset(new RecognitionProcessManager());  // nobody reads the queue
    EXPECT_EQ(manager->initAiService(), 1);
    EXPECT_EQ(log.count("timeSum: "), 201) << "polled every 50 ms from 0 to 10000";
    log.clear();
    EXPECT_EQ(manager->stopAiService(), 1);
    EXPECT_EQ(log.count("timeSum: "), 11) << "a stop is polled every second";
    // Seven commands into a queue of five that nobody reads (the stop's re-send may not come): a
    // blocking send would hang the next request and the stop for good, so the rest are dropped
    // with the send's EAGAIN line.
    std::promise<void> done;
    std::thread([&] {
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(manager->initAiService(), 1);
        }
        manager.reset();
        done.set_value();
    }).detach();
    if (done.get_future().wait_for(std::chrono::minutes(2)) != std::future_status::ready) {
        std::fprintf(stderr, "hung on a full queue\n");
        std::_Exit(1);  // the stuck thread holds this fixture: no way back
    }
    EXPECT_GE(log.count("mq_send error, errno: Resource temporarily unavailable(11)."), 1);
}

TEST_F(ClientTest, ConcurrentRequestsAreSerialisedAndCopyExactlyTheirResult) {
    FakeService service;
    service.reply(kGetConfig, 0, pattern(1000));
    service.reply(kImage, 0, {0, 0, 0, 0, 7, 7, 7, 7});
    manager.reset(new RecognitionProcessManager());
    std::atomic<int> errors{0};
    std::thread other([&] {
        for (int i = 0; i < 15; ++i) {
            Bytes out(1000, 0xAA);
            manager->getModelConfig(out.data());
            errors += !std::equal(out.begin(), out.begin() + kConfigSize, pattern(kConfigSize).begin()) ||
                      std::count(out.begin() + kConfigSize, out.end(), 0xAA) != 1000 - kConfigSize;
        }
    });
    for (int i = 0; i < 15; ++i) {
        errors += manager->isValidPicture(&picture) != 0;
    }
    other.join();
    EXPECT_EQ(errors.load(), 0);
    for (const auto& r : service.received()) {
        EXPECT_EQ(r.state, 1) << "a command went out without a posted request";
    }
}

TEST(ValidSceneTest, TopOfAtLeastFourTenthsAndTheLastSceneKeptWithinATenth) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        svc::AiPQPredictLabel last;
        std::vector<TelvoAiPQPredict> p;
        int count;
        svc::AiPQPredictLabel want;
        const char* why;
    } cases[] = {
        {svc::Food, {{svc::Sky, 0.39f}, {svc::Food, 0.38f}}, 2, svc::Invalid, "top below 0.4"},
        {svc::Invalid, {{svc::Sky, 0.4f}}, 1, svc::Sky, "0.4f widened is just above 0.4"},
        {svc::Invalid, {{svc::Sky, std::nextafter(0.4f, 0.0f)}}, 1, svc::Invalid, "the float below 0.4f"},
        {svc::Food, {{svc::Food, nan}, {svc::Food, 0.9f}}, 2, svc::Invalid, "NaN top"},
        {svc::Food, {{svc::Sky, 0.8f}, {svc::Food, 0.71f}}, 2, svc::Food, "within 0.1"},
        {svc::Food, {{svc::Sky, 0.8f}, {svc::Food, 0.69f}}, 2, svc::Sky, "beyond 0.1"},
        {svc::Food, {{svc::Sky, 0.8f}, {svc::Food, 0.7f}}, 2, svc::Sky, "0.8f - 0.7f is 0.10000002"},
        {svc::Food, {{svc::Sky, 0.5f}, {svc::Food, 0.4f}}, 2, svc::Food, "0.5f - 0.4f is 0.099999994"},
        {svc::Food, {{svc::Sky, 0.8f}, {svc::Dog, 0.3f}, {svc::Food, 0.75f}}, 3, svc::Food, "far one first"},
    };
    for (const auto& c : cases) {
        FakeRecognitionManager m;
        m.lastLabel() = c.last;
        std::vector<TelvoAiPQPredict> p = c.p;
        EXPECT_EQ(m.getValidScene(p.data(), c.count), c.want) << c.why;
        EXPECT_EQ(m.lastLabel(), c.want) << c.why;
    }
}

// Each override changes only its own field of the record the service reported.
TEST(LoadEnvTest, OverridesTakeOnlyValidValuesAndLeaveEveryOtherByte) {
    // clang-format off
    const struct {
        const char* name;
        std::string value;
        size_t at, size;  // size 0: nothing changes
        std::string now;
    } cases[] = {{"THREAD_NUM", "8", 804, 4, "\x08"}, {"THREAD_NUM", "12abc", 804, 4, "\x0c"},
                 {"THREAD_NUM", "0", 0, 0, ""}, {"THREAD_NUM", "99999999999", 0, 0, ""},
                 {"GPU_ENABLE", "2", 788, 4, "\x01"}, {"GPU_ENABLE", "yes", 788, 4, ""},
                 {"GPU_ALLOW_FP16", "7", 784, 4, "\x01"}, {"GPU_ALLOW_FP16", "-1", 784, 4, ""},
                 {"MODEL_PATH", std::string(300, 'm'), 512, 256, std::string(255, 'm')},
                 {"MODEL_PATH", "/a.onnx", 512, 256, "/a.onnx"},
                 {"LABEL_PATH", std::string(300, 'l'), 256, 256, std::string(256, 'l')},
                 {"LABEL_PATH", "/b.txt", 256, 256, "/b.txt"}};
    // clang-format on
    for (const auto& c : cases) {
        FakeRecognitionManager m;
        uint8_t* bytes = reinterpret_cast<uint8_t*>(&m.config());
        Bytes want = pattern(kConfigSize);
        std::copy(want.begin(), want.end(), bytes);
        std::string now = c.now;
        now.resize(c.size, '\0');
        std::copy(now.begin(), now.end(), want.begin() + c.at);
        const std::string name = std::string("RECOGNITION_") + c.name;
        setenv(name.c_str(), c.value.c_str(), 1);
        m.loadEnv();
        unsetenv(name.c_str());
        EXPECT_EQ(Bytes(bytes, bytes + kConfigSize), want) << name << "=" << c.value.substr(0, 12);
    }
}

}  // namespace
