// The AI service client against a fake service in a child process, over the real segment and
// queue. Both have fixed names, so the whole binary re-runs itself in a private IPC namespace.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ai_service_protocol.h"
#include "host_platform.h"
#include "log_capture.h"
#include "recognition_process_manager.h"

namespace proto = ai_service_protocol;
using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::TelvoAiPQPredict;

namespace {

constexpr int kHead = proto::kModelConfigSize;

// One message as the fake service saw it.
struct Received {
    int32_t length;
    char bytes[64];
    int32_t stateAtReceipt;
    uint8_t head[kHead];  // payload's first bytes when the message arrived
    std::string command() const { return std::string(bytes, strnlen(bytes, sizeof(bytes))); }
};

struct Reply {
    char command[40];
    bool answer;
    int32_t state;
    int delayMs;
    uint32_t payloadSize;
    uint8_t payload[256 + kHead];
};

// Replies live in a shared mapping, so a test can change them while the child runs.
struct ReplyTable {
    Reply defaultReply;
    int count;
    Reply replies[16];
};

class FakeService {
public:
    FakeService() {
        void* mem =
            mmap(nullptr, sizeof(ReplyTable), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        table_ = static_cast<ReplyTable*>(mem);
        std::memset(table_, 0, sizeof(*table_));
        table_->defaultReply.answer = true;
    }
    ~FakeService() {
        stop();
        munmap(table_, sizeof(ReplyTable));
    }

    void reply(const std::string& command, int32_t state, const std::vector<uint8_t>& payload = {},
               bool answer = true, int delayMs = 0) {
        Reply* r = nullptr;
        for (int i = 0; i < table_->count; ++i) {
            if (command == table_->replies[i].command) {
                r = &table_->replies[i];
            }
        }
        if (r == nullptr) {
            r = &table_->replies[table_->count++];
        }
        std::memset(r, 0, sizeof(*r));
        std::snprintf(r->command, sizeof(r->command), "%s", command.c_str());
        r->answer = answer;
        r->state = state;
        r->delayMs = delayMs;
        r->payloadSize = static_cast<uint32_t>(payload.size());
        if (!payload.empty()) {
            std::memcpy(r->payload, payload.data(), payload.size());
        }
    }

    // Creates the queue and the segment the way a service started first does.
    void start() {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            close(fds[0]);
            close(ready[0]);
            runChild(fds[1], ready[1]);
        }
        close(fds[1]);
        close(ready[1]);
        records_ = fds[0];
        char c = 0;
        ASSERT_EQ(read(ready[0], &c, 1), 1) << "fake service did not come up";
        close(ready[0]);
    }

    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        if (records_ >= 0) {
            close(records_);
            records_ = -1;
        }
    }

    // Everything received so far, waiting up to `timeout` for at least `n` messages.
    const std::vector<Received>& waitReceived(size_t n,
                                              std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            int wait = received_.size() >= n ? 0 : static_cast<int>(std::max<int64_t>(0, left.count()));
            struct pollfd p = {records_, POLLIN, 0};
            if (poll(&p, 1, wait) <= 0) {
                break;
            }
            Received r;
            if (read(records_, &r, sizeof(r)) != static_cast<ssize_t>(sizeof(r))) {
                break;
            }
            received_.push_back(r);
        }
        return received_;
    }

    std::vector<std::string> commands() {
        std::vector<std::string> out;
        for (const auto& r : waitReceived(0)) {
            out.push_back(r.command());
        }
        return out;
    }

    void clearReceived() {
        waitReceived(0);
        received_.clear();
    }

private:
    [[noreturn]] void runChild(int records, int ready) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int id = shmget(proto::kShmKey, proto::kShmSize, IPC_CREAT | 0666);
        void* addr = id >= 0 ? shmat(id, nullptr, 0) : reinterpret_cast<void*>(-1);
        if (addr == reinterpret_cast<void*>(-1)) {
            _exit(3);
        }
        uint8_t* segment = static_cast<uint8_t*>(addr);
        struct mq_attr attr;
        std::memset(&attr, 0, sizeof(attr));
        attr.mq_maxmsg = proto::kQueueMaxMessages;
        attr.mq_msgsize = proto::kMessageSize;
        mqd_t queue = mq_open(proto::kQueueName, O_RDONLY | O_CREAT, 0666, &attr);
        if (queue == static_cast<mqd_t>(-1)) {
            _exit(4);
        }
        char c = 'R';
        if (write(ready, &c, 1) != 1) {
            _exit(5);
        }
        int32_t* state = reinterpret_cast<int32_t*>(segment + proto::kHeaderStateOffset);
        for (;;) {
            Received r;
            std::memset(&r, 0, sizeof(r));
            ssize_t n = mq_receive(queue, r.bytes, sizeof(r.bytes), nullptr);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                _exit(6);
            }
            r.length = static_cast<int32_t>(n);
            r.stateAtReceipt = __atomic_load_n(state, __ATOMIC_ACQUIRE);
            std::memcpy(r.head, segment + proto::kPayloadOffset, kHead);
            if (write(records, &r, sizeof(r)) != static_cast<ssize_t>(sizeof(r))) {
                _exit(7);
            }
            const Reply* reply = &table_->defaultReply;
            for (int i = 0; i < table_->count; ++i) {
                if (std::strncmp(table_->replies[i].command, r.bytes, sizeof(r.bytes)) == 0) {
                    reply = &table_->replies[i];
                }
            }
            if (!reply->answer) {
                continue;
            }
            if (reply->delayMs > 0) {
                usleep(static_cast<useconds_t>(reply->delayMs) * 1000);
            }
            std::memcpy(segment + proto::kPayloadOffset, reply->payload, reply->payloadSize);
            __atomic_store_n(state, reply->state, __ATOMIC_RELEASE);
        }
    }

    ReplyTable* table_ = nullptr;
    pid_t pid_ = -1;
    int records_ = -1;
    std::vector<Received> received_;
};

void removeChannel() {
    mq_unlink(proto::kQueueName);
    int id = shmget(proto::kShmKey, 0, 0);
    if (id >= 0) {
        shmctl(id, IPC_RMID, nullptr);
    }
}

uint8_t* attachSegment() {
    int id = shmget(proto::kShmKey, proto::kShmSize, 0666);
    if (id < 0) {
        return nullptr;
    }
    void* addr = shmat(id, nullptr, 0);
    return addr == reinterpret_cast<void*>(-1) ? nullptr : static_cast<uint8_t*>(addr);
}

std::vector<uint8_t> predictResult(const std::vector<TelvoAiPQPredict>& records, uint32_t lead,
                                   uint32_t tail) {
    std::vector<uint8_t> out(proto::kPredictResultSize, 0);
    std::memcpy(out.data(), &lead, 4);
    std::memcpy(out.data() + 4, records.data(), records.size() * sizeof(TelvoAiPQPredict));
    std::memcpy(out.data() + 44, &tail, 4);
    return out;
}

std::vector<uint8_t> patternBytes(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
    }
    return v;
}

class RecognitionChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        removeChannel();
        host::setTimeScale(10.0);
    }
    void TearDown() override {
        manager_.reset();
        fake_.stop();
        removeChannel();
        host::setTimeScale(1.0);
    }

    void bringUp() {
        manager_.reset(new RecognitionProcessManager());
        log_.clear();
    }

    LogCapture log_{5000};
    FakeService fake_;
    std::unique_ptr<RecognitionProcessManager> manager_;
};

TEST_F(RecognitionChannelTest, ConstructionClearsSegmentAndWritesSizeWord) {
    int id = shmget(proto::kShmKey, proto::kShmSize, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    uint8_t* seg = attachSegment();
    ASSERT_NE(seg, nullptr);
    std::memset(seg, 0xEE, proto::kShmSize);
    manager_.reset(new RecognitionProcessManager());
    const uint8_t size[4] = {0x18, 0x4C, 0x02, 0x00};  // 150552, little-endian
    EXPECT_EQ(0, std::memcmp(seg, size, 4));
    size_t dirty = 0;
    for (size_t i = 4; i < static_cast<size_t>(proto::kShmSize); ++i) {
        dirty += seg[i] != 0;
    }
    EXPECT_EQ(dirty, 0u);
    EXPECT_TRUE(log_.contains("shmget key: 72314, allocSize: 150552."));
    EXPECT_TRUE(log_.contains("init share memory."));
    shmdt(seg);
}

TEST_F(RecognitionChannelTest, QueueCreatedWithAttributesAndUnlinkedAtTheEnd) {
    manager_.reset(new RecognitionProcessManager());
    ASSERT_TRUE(log_.waitFor("message queue start send", std::chrono::seconds(10)));
    EXPECT_FALSE(log_.contains("message queue is exist."));
    EXPECT_TRUE(log_.contains("message queue name: /ai_service_message_queuet."));
    mqd_t q = mq_open(proto::kQueueName, O_RDONLY);
    ASSERT_NE(q, static_cast<mqd_t>(-1));
    struct mq_attr attr;
    ASSERT_EQ(mq_getattr(q, &attr), 0);
    EXPECT_EQ(attr.mq_maxmsg, 5);
    EXPECT_EQ(attr.mq_msgsize, 40);
    mq_close(q);
    manager_.reset();
    EXPECT_EQ(mq_open(proto::kQueueName, O_RDONLY), static_cast<mqd_t>(-1));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(RecognitionChannelTest, StaleQueueIsReopenedAndMessagesAreNulPadded40Bytes) {
    struct mq_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    attr.mq_maxmsg = 5;
    attr.mq_msgsize = 40;
    mqd_t stale = mq_open(proto::kQueueName, O_RDWR | O_CREAT, 0666, &attr);
    ASSERT_NE(stale, static_cast<mqd_t>(-1));
    char old[40] = "left over";
    ASSERT_EQ(mq_send(stale, old, sizeof(old), 0), 0);

    manager_.reset(new RecognitionProcessManager());
    ASSERT_TRUE(log_.waitFor("message queue start send", std::chrono::seconds(10)));
    EXPECT_TRUE(log_.contains("message queue is exist."));

    char buf[64];
    ASSERT_EQ(mq_receive(stale, buf, sizeof(buf), nullptr), 40);
    EXPECT_STREQ(buf, "left over");

    auto receiveAfterTrigger = [&](const char* text) {
        std::vector<char> message(text, text + std::strlen(text) + 1);
        manager_->triggerMessage(message.data());
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 10;
        return mq_timedreceive(stale, buf, sizeof(buf), nullptr, &deadline);
    };

    // 45 characters: cut to 39, the 40th byte is the terminator.
    const char* longText = "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHI";
    ASSERT_EQ(receiveAfterTrigger(longText), 40);
    EXPECT_EQ(std::string(buf, 39), std::string(longText, 39));
    EXPECT_EQ(buf[39], '\0');
    // A short command must not carry the long one's tail.
    ASSERT_EQ(receiveAfterTrigger("ai_service_predict"), 40);
    EXPECT_STREQ(buf, "ai_service_predict");
    for (int i = static_cast<int>(std::strlen("ai_service_predict")); i < 40; ++i) {
        EXPECT_EQ(buf[i], '\0') << "byte " << i;
    }
    mq_close(stale);
}

// The send thread waits without a predicate, so a command signalled while it is still opening the
// queue or sending the previous one would vanish. Back-to-back commands from the first moment on
// must all reach the queue, in order.
TEST_F(RecognitionChannelTest, BackToBackCommandsFromTheStartAreNotLost) {
    auto receive = [](mqd_t queue, char* buf) {
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 10;
        return mq_timedreceive(queue, buf, 64, nullptr, &deadline);
    };
    for (int round = 0; round < 3; ++round) {
        // The queue is unlinked with each manager; every round starts from a fresh one.
        struct mq_attr attr;
        std::memset(&attr, 0, sizeof(attr));
        attr.mq_maxmsg = 5;
        attr.mq_msgsize = 40;
        mqd_t reader = mq_open(proto::kQueueName, O_RDONLY | O_CREAT, 0666, &attr);
        ASSERT_NE(reader, static_cast<mqd_t>(-1));
        manager_.reset(new RecognitionProcessManager());
        std::vector<std::string> sent;
        for (int i = 0; i < 5; ++i) {
            sent.push_back("command_" + std::to_string(round) + "_" + std::to_string(i));
            std::vector<char> text(sent.back().begin(), sent.back().end());
            text.push_back('\0');
            manager_->triggerMessage(text.data());
        }
        std::vector<std::string> got;
        char buf[64];
        while (got.size() < sent.size() && receive(reader, buf) == 40) {
            got.push_back(buf);
        }
        EXPECT_EQ(got, sent) << "round " << round;
        manager_.reset();
        mq_close(reader);
    }
}

TEST_F(RecognitionChannelTest, ColdRecognitionSendsTheWholeSequenceThenOnlyPredict) {
    fake_.start();
    telvo_ai_service::AiServiceModelConfig config;
    std::vector<uint8_t> configBytes = patternBytes(sizeof(config), 3);
    std::memcpy(&config, configBytes.data(), sizeof(config));
    std::memset(config.labels_file_name, 0, sizeof(config.labels_file_name));
    std::memset(config.model_name, 0, sizeof(config.model_name));
    std::snprintf(config.model_name, sizeof(config.model_name), "%s", "builtin:reference");
    config.number_of_threads = 2;
    std::memcpy(configBytes.data(), &config, sizeof(config));
    fake_.reply(proto::kCmdGetModelConfig, 0, configBytes);
    fake_.reply(proto::kCmdPredict, 0,
                predictResult({{telvo_ai_service::Sky, 0.9f},
                               {telvo_ai_service::Snow, 0.05f},
                               {telvo_ai_service::Grassland, 0.02f},
                               {telvo_ai_service::Cartoon, 0.01f},
                               {telvo_ai_service::Indoor, 0.01f}},
                              5, 0));
    setenv("RECOGNITION_THREAD_NUM", "3", 1);
    bringUp();

    korvane::ai::PictureData picture{};
    AiPQPredictLabel current = telvo_ai_service::Cartoon;
    AiPQPredictLabel previous = telvo_ai_service::Cartoon;
    std::vector<TelvoAiPQPredict> predictions(2, TelvoAiPQPredict{telvo_ai_service::Dog, 0.5f});
    EXPECT_EQ(manager_->recognitionPicture(&picture, current, previous, &predictions), 0);
    unsetenv("RECOGNITION_THREAD_NUM");
    EXPECT_EQ(current, telvo_ai_service::Sky);
    EXPECT_EQ(previous, telvo_ai_service::Invalid);
    EXPECT_TRUE(manager_->getModelLoadState());

    const auto& got = fake_.waitReceived(6);
    ASSERT_EQ(got.size(), 6u);
    const std::vector<std::string> expected = {proto::kCmdInitAiService,  proto::kCmdGetModelConfig,
                                               proto::kCmdSetModelConfig, proto::kCmdSetAiType,
                                               proto::kCmdLoadModel,      proto::kCmdPredict};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(got[i].command(), expected[i]);
        EXPECT_EQ(got[i].length, 40);
        EXPECT_EQ(got[i].stateAtReceipt, proto::kStatePosted) << expected[i];
        for (size_t b = expected[i].size(); b < 40; ++b) {
            EXPECT_EQ(got[i].bytes[b], '\0') << expected[i] << " byte " << b;
        }
    }
    // The record goes back byte for byte, with only the overridden thread count changed.
    std::vector<uint8_t> wantSet = configBytes;
    int32_t three = 3;
    std::memcpy(wantSet.data() + 804, &three, 4);
    EXPECT_EQ(0, std::memcmp(got[2].head, wantSet.data(), kHead));
    // The AI type is a 32-bit 0 over the record's first bytes; the rest of the head is unchanged.
    const uint8_t zero[4] = {0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(got[3].head, zero, 4));
    EXPECT_EQ(0, std::memcmp(got[3].head + 4, wantSet.data() + 4, kHead - 4));

    // Five records appended, in the service's order, after what the vector held.
    ASSERT_EQ(predictions.size(), 7u);
    EXPECT_EQ(predictions[0].label, telvo_ai_service::Dog);
    EXPECT_EQ(predictions[2].label, telvo_ai_service::Sky);
    EXPECT_FLOAT_EQ(predictions[2].confidence, 0.9f);
    EXPECT_EQ(predictions[6].label, telvo_ai_service::Indoor);

    // Warm: only the prediction goes out, and "previous" is the scene from before this call.
    fake_.clearReceived();
    fake_.reply(proto::kCmdPredict, 0,
                predictResult({{telvo_ai_service::Grassland, 0.8f},
                               {telvo_ai_service::Sky, 0.1f},
                               {telvo_ai_service::Snow, 0.05f},
                               {telvo_ai_service::Cartoon, 0.01f},
                               {telvo_ai_service::Indoor, 0.01f}},
                              5, 0));
    EXPECT_EQ(manager_->recognitionPicture(&picture, current, previous, &predictions), 0);
    EXPECT_EQ(previous, telvo_ai_service::Sky);
    EXPECT_EQ(current, telvo_ai_service::Grassland);
    EXPECT_EQ(predictions.size(), 12u);
    EXPECT_EQ(fake_.commands(), std::vector<std::string>{proto::kCmdPredict});
    EXPECT_EQ(manager_->loadAiServiceEnv(), 0);
    EXPECT_TRUE(log_.contains("load successed, can not again."));
    EXPECT_EQ(fake_.waitReceived(2, std::chrono::milliseconds(200)).size(), 1u);
}

TEST_F(RecognitionChannelTest, ResultsAreCopiedWithExactSizesAndOnlyOnSuccess) {
    fake_.start();
    bringUp();
    std::vector<uint8_t> config = patternBytes(1000, 9);
    fake_.reply(proto::kCmdGetModelConfig, 0, config);
    std::vector<uint8_t> out(1000, 0xAA);
    manager_->getModelConfig(out.data());
    EXPECT_EQ(0, std::memcmp(out.data(), config.data(), kHead));
    for (size_t i = kHead; i < out.size(); ++i) {
        ASSERT_EQ(out[i], 0xAA) << "copied past the record at " << i;
    }

    // Failed: the payload has changed but nothing may reach the caller.
    fake_.reply(proto::kCmdGetModelConfig, -1, patternBytes(kHead, 77));
    std::vector<uint8_t> untouched(1000, 0xAA);
    manager_->getModelConfig(untouched.data());
    EXPECT_EQ(untouched, std::vector<uint8_t>(1000, 0xAA));
    EXPECT_TRUE(log_.contains("AiService handle sendMessage failed."));

    // Image check: exactly one 32-bit word; 0 is usable, anything else, negative too, is not.
    korvane::ai::PictureData picture{};
    int32_t minusSeven = -7;
    std::vector<uint8_t> word(8, 0x55);
    std::memcpy(word.data(), &minusSeven, 4);
    fake_.reply(proto::kCmdImagePredict, 0, word);
    EXPECT_EQ(manager_->isValidPicture(&picture), 1);
    EXPECT_TRUE(log_.contains("Picture is -7."));
    fake_.reply(proto::kCmdImagePredict, 0, std::vector<uint8_t>(4, 0));
    EXPECT_EQ(manager_->isValidPicture(&picture), 0);
    fake_.reply(proto::kCmdImagePredict, -1);
    EXPECT_EQ(manager_->isValidPicture(&picture), 1);
    EXPECT_TRUE(log_.contains("valid image detect failed."));
    EXPECT_EQ(manager_->isValidPicture(nullptr), 1);
    EXPECT_TRUE(log_.contains("pictureData is NULL."));
}

TEST_F(RecognitionChannelTest, NotInitialisedAndNoModelClearTheirFlags) {
    fake_.start();
    bringUp();
    korvane::ai::PictureData picture{};
    AiPQPredictLabel current, previous;
    fake_.reply(proto::kCmdPredict, 0,
                predictResult({{telvo_ai_service::Snow, 0.9f},
                               {telvo_ai_service::Sky, 0.05f},
                               {telvo_ai_service::Grassland, 0.02f},
                               {telvo_ai_service::Cartoon, 0.01f},
                               {telvo_ai_service::Indoor, 0.01f}},
                              5, 0));
    ASSERT_EQ(manager_->recognitionPicture(&picture, current, previous, nullptr), 0);
    ASSERT_TRUE(manager_->getModelLoadState());

    // -3: result 3, the model counts as gone.
    fake_.reply(proto::kCmdPredict, -3);
    EXPECT_EQ(manager_->recognitionPicture(&picture, current, previous, nullptr), 3);
    EXPECT_FALSE(manager_->getModelLoadState());
    EXPECT_TRUE(log_.contains("AiService not load model."));
    EXPECT_TRUE(log_.contains("ImagePredict failed. imagePredictResult: 3 ."));

    // -2 on the load: result 2, and the next bring-up runs the whole sequence again.
    fake_.clearReceived();
    fake_.reply(proto::kCmdLoadModel, -2);
    EXPECT_EQ(manager_->loadModel(), 2);
    EXPECT_FALSE(manager_->getModelLoadState());
    EXPECT_TRUE(log_.contains("AiService not init."));
    EXPECT_EQ(fake_.commands(), std::vector<std::string>{proto::kCmdLoadModel});
    fake_.clearReceived();
    fake_.reply(proto::kCmdLoadModel, 0);
    EXPECT_EQ(manager_->loadModel(), 0);
    EXPECT_EQ(fake_.commands(), (std::vector<std::string>{proto::kCmdInitAiService, proto::kCmdGetModelConfig,
                                                          proto::kCmdSetModelConfig, proto::kCmdSetAiType,
                                                          proto::kCmdLoadModel}));

    // Loaded: nothing goes out. Release clears the flag even when the service fails it.
    fake_.clearReceived();
    EXPECT_EQ(manager_->loadModel(), 0);
    fake_.reply(proto::kCmdReleaseModel, -1);
    EXPECT_EQ(manager_->releaseModel(), 1);
    EXPECT_FALSE(manager_->getModelLoadState());
    EXPECT_EQ(manager_->releaseModel(), 0);
    EXPECT_EQ(fake_.commands(), std::vector<std::string>{proto::kCmdReleaseModel});
}

TEST_F(RecognitionChannelTest, FailedInitialisationIsPacedAndReportedAsNoModel) {
    fake_.start();
    fake_.reply(proto::kCmdInitAiService, -1);
    bringUp();
    korvane::ai::PictureData picture{};
    AiPQPredictLabel current, previous;
    std::vector<TelvoAiPQPredict> predictions;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(manager_->recognitionPicture(&picture, current, previous, &predictions), 3);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GE(seconds, 10.0 / 10.0 * 0.9) << "ten paced 1 s sleeps at time scale 10";
    EXPECT_EQ(log_.count("initAiService failed. init result: 1."), 11);
    EXPECT_EQ(log_.count("initAiService failed. time out: 10"), 1);
    EXPECT_TRUE(log_.contains("Load model error. loadModelResult: 3."));
    EXPECT_TRUE(predictions.empty());
    EXPECT_EQ(fake_.commands(), std::vector<std::string>{proto::kCmdInitAiService});
}

TEST_F(RecognitionChannelTest, StopWaitsInSecondsAndReportsRefusal) {
    fake_.start();
    bringUp();
    fake_.reply(proto::kCmdStopAiService, 0);
    EXPECT_EQ(manager_->stopAiService(), 0);
    fake_.reply(proto::kCmdStopAiService, -1);
    EXPECT_EQ(manager_->stopAiService(), 1);
    EXPECT_TRUE(log_.contains("AiService process not stopped."));
    // No answer: ten 1 s polls, then the time-out.
    log_.clear();
    fake_.reply(proto::kCmdStopAiService, 0, {}, /*answer=*/false);
    EXPECT_EQ(manager_->stopAiService(), 1);
    EXPECT_EQ(log_.count("timeSum: "), 11);
    EXPECT_TRUE(log_.contains("timeSum: 9000."));
    EXPECT_TRUE(log_.contains("timeSum: 10000."));
    EXPECT_EQ(log_.count("time out."), 1);
}

TEST_F(RecognitionChannelTest, UnansweredRequestGivesUpAfter200Polls) {
    host::setTimeScale(50.0);
    manager_.reset(new RecognitionProcessManager());  // nobody reads the queue
    ASSERT_TRUE(log_.waitFor("message queue start send", std::chrono::seconds(10)));
    EXPECT_EQ(manager_->initAiService(), 1);
    EXPECT_EQ(log_.count("timeSum: "), 201);
    EXPECT_TRUE(log_.contains("timeSum: 9950."));
    EXPECT_TRUE(log_.contains("timeSum: 10000."));
    EXPECT_EQ(log_.count("time out."), 1);
    // A full queue is not waited on: later requests still time out instead of hanging.
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(manager_->initAiService(), 1);
    }
    EXPECT_TRUE(log_.contains("message queue is full (5 messages)"));
    manager_.reset();  // must not hang on a send thread stuck in mq_send
}

TEST_F(RecognitionChannelTest, ConcurrentRequestsAreSerialised) {
    fake_.start();
    std::vector<uint8_t> config = patternBytes(kHead, 42);
    fake_.reply(proto::kCmdGetModelConfig, 0, config, true, 2);
    fake_.reply(proto::kCmdImagePredict, 0, std::vector<uint8_t>(4, 0), true, 2);
    bringUp();
    std::atomic<int> configErrors{0};
    std::atomic<int> pictureErrors{0};
    std::thread a([&] {
        for (int i = 0; i < 15; ++i) {
            std::vector<uint8_t> out(kHead, 0);
            manager_->getModelConfig(out.data());
            configErrors += out != config;
        }
    });
    std::thread b([&] {
        korvane::ai::PictureData picture{};
        for (int i = 0; i < 15; ++i) {
            pictureErrors += manager_->isValidPicture(&picture) != 0;
        }
    });
    a.join();
    b.join();
    EXPECT_EQ(configErrors.load(), 0);
    EXPECT_EQ(pictureErrors.load(), 0);
    for (const auto& r : fake_.waitReceived(30)) {
        EXPECT_EQ(r.stateAtReceipt, proto::kStatePosted) << "a command went out without a posted request";
    }
}

TEST(RecognitionChannelSegmentTest, ForeignSizedSegmentIsExplainedAndNoRequestTouchesIt) {
    removeChannel();
    host::setTimeScale(100.0);
    int id = shmget(proto::kShmKey, 1000, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    {
        LogCapture log(5000);
        RecognitionProcessManager manager;
        EXPECT_TRUE(log.contains("shmget Error."));
        EXPECT_TRUE(log.contains("ipcrm -M 72314"));
        EXPECT_TRUE(log.contains("size 1000"));
        EXPECT_EQ(manager.initAiService(), 1);
        EXPECT_TRUE(log.contains("shared memory is not attached, request ai_service_init_ai_service"));
        korvane::ai::PictureData picture{};
        EXPECT_EQ(manager.isValidPicture(&picture), 1);
        EXPECT_EQ(manager.stopAiService(), 1);
        AiPQPredictLabel current, previous;
        EXPECT_EQ(manager.recognitionPicture(&picture, current, previous, nullptr), 3);
        EXPECT_FALSE(log.contains("timeSum:")) << "no request may poll a segment it does not have";
    }
    struct shmid_ds info;
    ASSERT_EQ(shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_segsz, 1000u) << "the foreign segment is left alone";
    removeChannel();
    host::setTimeScale(1.0);
}

}  // namespace
