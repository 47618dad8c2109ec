// The real ai_service as the daemon meets it: a command on the queue, the answer in the segment.
// Offsets and command texts are written out here so that a change to the shared protocol header
// cannot move both sides together.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <signal.h>
#include <sys/shm.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "picture_capture.h"

namespace {

int32_t wordAt(const uint8_t* segment, int offset) {
    int32_t v;
    std::memcpy(&v, segment + offset, 4);
    return v;
}

TEST(ServiceWireTest, AnswersStatesConfigAndLabelsAtTheirOffsets) {
    ChildProcess service({std::string(AIPQ_BIN_DIR) + "/ai_service"});
    ASSERT_TRUE(service.waitForOutput("listening on", std::chrono::seconds(20))) << service.output();
    auto* segment = static_cast<uint8_t*>(shmat(shmget(72314, 150552, 0), nullptr, 0));
    ASSERT_NE(segment, reinterpret_cast<uint8_t*>(-1));
    const mqd_t queue = mq_open("/ai_service_message_queue", O_WRONLY | O_NONBLOCK);
    ASSERT_NE(queue, static_cast<mqd_t>(-1));
    auto* state = reinterpret_cast<int32_t*>(segment + 4);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);  // for all answers
    auto send = [&](const char* command) {
        char message[40] = {};
        std::strncpy(message, command, sizeof(message) - 1);
        __atomic_store_n(state, 1, __ATOMIC_RELEASE);
        EXPECT_EQ(mq_send(queue, message, sizeof(message), 0), 0);
        while (__atomic_load_n(state, __ATOMIC_ACQUIRE) == 1 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return __atomic_load_n(state, __ATOMIC_ACQUIRE);
    };
    uint8_t* payload = segment + 24;

    EXPECT_EQ(send("ai_service_load_model"), -2) << "before init";
    EXPECT_EQ(send("ai_service_predict"), -2);
    EXPECT_EQ(send("ai_service_init_ai_service"), 0);
    EXPECT_EQ(send("ai_service_bogus"), -1);
    EXPECT_EQ(send("ai_service_predict"), -3) << "no model yet";
    EXPECT_EQ(send("ai_service_get_model_config"), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(payload + 512), "builtin:reference");
    EXPECT_EQ(wordAt(payload, 804), 1) << "threads";
    EXPECT_EQ(send("ai_service_load_model"), 0);

    // The built-in scenes, captured into the payload as the daemon's capture does.
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    for (int label : {3, 15, 17, 0}) {  // Sky, Grassland, Snow, Cartoon
        korvane::ai::PictureData picture{};
        ASSERT_TRUE(capture.getPicture(true, &picture));
        EXPECT_EQ(send("ai_service_image_predict"), 0);
        EXPECT_EQ(wordAt(payload, 0), 0) << "usable";
        EXPECT_EQ(send("ai_service_predict"), 0);
        EXPECT_EQ(wordAt(payload, 0), 5) << "record count";
        EXPECT_EQ(wordAt(segment, 28), label);
        float confidence;
        std::memcpy(&confidence, segment + 32, 4);
        EXPECT_GE(confidence, 0.5f) << label;
    }
    // Black, then one flat colour: nothing to recognise.
    for (int fill : {0, 128}) {
        std::memset(payload, fill, 150528);
        EXPECT_EQ(send("ai_service_image_predict"), 0);
        EXPECT_EQ(wordAt(payload, 0), fill == 0 ? 1 : 2) << "dark, uniform";
        EXPECT_EQ(send("ai_service_predict"), 0);
        EXPECT_EQ(wordAt(segment, 28), 19) << "Invalid";
    }

    // Every byte of a configuration set comes back, opaque ones included, and no more.
    std::vector<uint8_t> record(832);
    for (size_t i = 0; i < record.size(); ++i) {
        record[i] = static_cast<uint8_t>(i * 13 + 1);
    }
    std::memcpy(payload, record.data(), record.size());
    EXPECT_EQ(send("ai_service_set_model_config"), 0);
    std::memset(payload, 0xEE, 1000);
    EXPECT_EQ(send("ai_service_get_model_config"), 0);
    EXPECT_EQ(std::vector<uint8_t>(payload, payload + 832), record);
    EXPECT_EQ(payload[832], 0xEE);
    EXPECT_EQ(send("ai_service_load_model"), -1) << "no such model";
    EXPECT_EQ(send("ai_service_predict"), -3);
    EXPECT_EQ(send("ai_service_stop_ai_service"), 0);
    EXPECT_EQ(service.wait(std::chrono::seconds(10)), 0);
    mq_close(queue);
    shmdt(segment);
}

}  // namespace

// A queue replaced under the service (a restarted client): the service learns of it from the
// mqueue file system when it can see its own, by looking every 250 ms when it cannot. A SIGTERM
// still ends it at once, though it then waits without a time-out.
class ServiceFollowsQueue : public ::testing::TestWithParam<bool> {};

TEST_P(ServiceFollowsQueue, AnswersOnTheNewQueueAndEndsOnSigterm) {
    const std::string service = std::string(AIPQ_BIN_DIR) + "/ai_service";
    ChildProcess child(GetParam() ? std::vector<std::string>{service}
                                  : std::vector<std::string>{"/usr/bin/unshare", "--mount", "sh", "-c",
                                                             "umount /run/mqueue && exec " + service},
                       {"AIPQ_LOG_LEVEL=4000"});
    ASSERT_TRUE(child.waitForOutput(GetParam() ? "following message queue" : "looking for a replaced queue",
                                    std::chrono::seconds(20)))
        << child.output();
    auto* segment = static_cast<uint8_t*>(shmat(shmget(72314, 150552, 0), nullptr, 0));
    ASSERT_NE(segment, reinterpret_cast<uint8_t*>(-1));
    ASSERT_EQ(mq_unlink("/ai_service_message_queue"), 0);
    mq_attr attr = {};
    attr.mq_maxmsg = 5;
    attr.mq_msgsize = 40;
    const mqd_t queue = mq_open("/ai_service_message_queue", O_WRONLY | O_CREAT | O_EXCL, 0666, &attr);
    ASSERT_NE(queue, static_cast<mqd_t>(-1));
    auto* state = reinterpret_cast<int32_t*>(segment + 4);
    __atomic_store_n(state, 1, __ATOMIC_RELEASE);
    char message[40] = "ai_service_init_ai_service";
    ASSERT_EQ(mq_send(queue, message, sizeof(message), 0), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (__atomic_load_n(state, __ATOMIC_ACQUIRE) == 1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(__atomic_load_n(state, __ATOMIC_ACQUIRE), 0) << child.output();
    child.signal(SIGTERM);
    EXPECT_EQ(child.wait(std::chrono::seconds(10)), 0) << child.output();
    mq_close(queue);
    shmdt(segment);
}

INSTANTIATE_TEST_SUITE_P(Follow, ServiceFollowsQueue, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Watched" : "PolledWithoutMqueueView";
                         });
