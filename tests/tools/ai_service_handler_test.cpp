// The AI service's answers and payload handling, command by command, without the transport.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "command_handler.h"
#include "payload_guard.h"
#include "reference_classifier.h"
#include "service_runner.h"

using namespace ai_service;
namespace proto = ai_service_protocol;
using telvo_ai_service::AiServiceModelConfig;

namespace {

std::vector<uint8_t> randomPicture(uint32_t seed) {
    std::vector<uint8_t> p(proto::kPayloadSize);
    for (auto& b : p) {
        seed = seed * 1103515245u + 12345u;
        b = static_cast<uint8_t>(seed >> 16);
    }
    return p;
}

// A real scene, so that the classification result means something.
std::vector<uint8_t> skyPicture() {
    std::vector<uint8_t> p(proto::kPayloadSize);
    for (int y = 0; y < 224; ++y) {
        for (int x = 0; x < 224; ++x) {
            uint8_t* px = &p[(y * 224 + x) * 3];
            px[0] = static_cast<uint8_t>(40 + y / 3 + (x * 7 + y) % 5);
            px[1] = static_cast<uint8_t>(100 + y / 3 + (x * 3 + y * 5) % 5);
            px[2] = static_cast<uint8_t>(220 + (x + y) % 7);
        }
    }
    return p;
}

class ServiceSide {
public:
    // Sends one command as the daemon does: a 40-byte NUL-padded message.
    int32_t send(const std::string& command) {
        char message[40] = {};
        std::strncpy(message, command.c_str(), 39);
        return handler.handle(message, sizeof(message), payload.data());
    }
    // The daemon writing a record into the payload before its command.
    void write(const void* data, size_t size) { std::memcpy(payload.data(), data, size); }

    CommandHandler handler;
    std::vector<uint8_t> payload = std::vector<uint8_t>(proto::kPayloadSize, 0);
};

TEST(CommandHandlerTest, AnswersFollowTheServiceState) {
    ServiceSide s;
    // Model commands before initialisation: -2; predictions before a load: -3.
    for (const char* cmd :
         {proto::kCmdGetModelConfig, proto::kCmdSetModelConfig, proto::kCmdSetAiType, proto::kCmdLoadModel,
          proto::kCmdReleaseModel, proto::kCmdImagePredict, proto::kCmdPredict}) {
        EXPECT_EQ(s.send(cmd), proto::kStateNotInit) << cmd;
    }
    EXPECT_EQ(s.send("ai_service_bogus"), proto::kStateFailed);
    EXPECT_EQ(s.send(proto::kCmdInitAiService), proto::kStateDone);
    EXPECT_EQ(s.send(proto::kCmdPredict), proto::kStateNoModel);
    EXPECT_EQ(s.send(proto::kCmdImagePredict), proto::kStateNoModel);
    EXPECT_EQ(s.send(proto::kCmdReleaseModel), proto::kStateDone);
    EXPECT_EQ(s.send(proto::kCmdLoadModel), proto::kStateDone);
    EXPECT_TRUE(s.handler.modelLoaded());
    EXPECT_EQ(s.send(proto::kCmdReleaseModel), proto::kStateDone);
    EXPECT_EQ(s.send(proto::kCmdPredict), proto::kStateNoModel);

    // 40 bytes without a terminator is not a command, even if it starts like one.
    char unterminated[40];
    std::memset(unterminated, 'a', sizeof(unterminated));
    std::memcpy(unterminated, proto::kCmdInitAiService, std::strlen(proto::kCmdInitAiService));
    EXPECT_EQ(s.handler.handle(unterminated, sizeof(unterminated), s.payload.data()), proto::kStateFailed);
    char empty[40] = {};
    EXPECT_EQ(s.handler.handle(empty, sizeof(empty), s.payload.data()), proto::kStateFailed);

    EXPECT_FALSE(s.handler.stopRequested());
    EXPECT_EQ(s.send(proto::kCmdStopAiService), proto::kStateDone);
    EXPECT_TRUE(s.handler.stopRequested());
}

TEST(CommandHandlerTest, ModelConfigRecordHasItsLayoutAndRoundTrips) {
    ServiceSide s;
    s.send(proto::kCmdInitAiService);
    ASSERT_EQ(s.send(proto::kCmdGetModelConfig), proto::kStateDone);
    const uint8_t* rec = s.payload.data();
    EXPECT_STREQ(reinterpret_cast<const char*>(rec + 512), "builtin:reference");
    EXPECT_EQ(rec[256], 0) << "labels file empty by default";
    int32_t threads;
    std::memcpy(&threads, rec + 804, 4);
    EXPECT_EQ(threads, 1);
    for (int off : {784, 788}) {
        int32_t v;
        std::memcpy(&v, rec + off, 4);
        EXPECT_EQ(v, 0) << off;
    }

    // Every byte of a set record comes back, opaque ones included.
    std::vector<uint8_t> record(proto::kModelConfigSize);
    for (size_t i = 0; i < record.size(); ++i) {
        record[i] = static_cast<uint8_t>(i * 13 + 1);
    }
    s.write(record.data(), record.size());
    ASSERT_EQ(s.send(proto::kCmdSetModelConfig), proto::kStateDone);
    std::memset(s.payload.data(), 0, proto::kModelConfigSize);
    ASSERT_EQ(s.send(proto::kCmdGetModelConfig), proto::kStateDone);
    EXPECT_EQ(0, std::memcmp(s.payload.data(), record.data(), record.size()));
    EXPECT_EQ(s.payload[proto::kModelConfigSize], 0) << "wrote past the record";

    int32_t aiType = 7;
    s.write(&aiType, 4);
    EXPECT_EQ(s.send(proto::kCmdSetAiType), proto::kStateDone);
    EXPECT_EQ(s.handler.aiType(), 7);
}

TEST(CommandHandlerTest, UnloadableModelsAnswerFailure) {
    ServiceSide s;
    s.send(proto::kCmdInitAiService);
    AiServiceModelConfig config = CommandHandler::defaultConfig();
    for (const char* model : {"/nonexistent/model.tflite", "/nonexistent/model.onnx"}) {
        std::snprintf(config.model_name, sizeof(config.model_name), "%s", model);
        s.send(proto::kCmdGetModelConfig);
        s.write(&config, sizeof(config));
        ASSERT_EQ(s.send(proto::kCmdSetModelConfig), proto::kStateDone);
        EXPECT_EQ(s.send(proto::kCmdLoadModel), proto::kStateFailed) << model;
        EXPECT_FALSE(s.handler.modelLoaded());
        EXPECT_EQ(s.send(proto::kCmdPredict), proto::kStateNoModel);
    }
}

// The daemon's cold sequence writes over the first 832 bytes of the captured picture before it
// asks for the prediction; the service must still classify the captured picture itself.
TEST(CommandHandlerTest, ColdSequenceClassifiesTheCapturedPicture) {
    ServiceSide s;
    const std::vector<uint8_t> picture = skyPicture();
    s.payload = picture;  // the capture came first

    ASSERT_EQ(s.send(proto::kCmdInitAiService), 0);
    ASSERT_EQ(s.send(proto::kCmdGetModelConfig), 0);
    AiServiceModelConfig config;
    std::memcpy(&config, s.payload.data(), sizeof(config));
    config.number_of_threads = 4;  // an environment override
    s.write(&config, sizeof(config));
    ASSERT_EQ(s.send(proto::kCmdSetModelConfig), 0);
    int32_t aiType = 0;
    s.write(&aiType, 4);
    ASSERT_EQ(s.send(proto::kCmdSetAiType), 0);
    ASSERT_EQ(s.send(proto::kCmdLoadModel), 0);
    ASSERT_NE(0, std::memcmp(s.payload.data(), picture.data(), proto::kModelConfigSize))
        << "the exchange should have left its bytes over the picture";
    ASSERT_EQ(s.send(proto::kCmdPredict), 0);
    EXPECT_EQ(s.handler.lastPictureDigest(), pictureDigest(picture.data(), picture.size()));

    // The 48-byte answer: a count word, five records as the classifier gives them, a zero word.
    ReferenceClassifier reference;
    Predictions direct;
    std::string error;
    ASSERT_TRUE(reference.classify(picture.data(), &direct, &error));
    EXPECT_EQ(direct[0].label, telvo_ai_service::Sky);
    int32_t count;
    std::memcpy(&count, s.payload.data(), 4);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(0, std::memcmp(s.payload.data() + 4, direct.data(), sizeof(direct)));
    int32_t tail;
    std::memcpy(&tail, s.payload.data() + 44, 4);
    EXPECT_EQ(tail, 0);
    // Only the answer's 48 bytes differ from the picture now.
    EXPECT_EQ(0, std::memcmp(s.payload.data() + 48, picture.data() + 48, picture.size() - 48));

    // Asked again on the same picture (a retry), the answer must not be classified as picture.
    ASSERT_EQ(s.send(proto::kCmdImagePredict), 0);
    EXPECT_EQ(s.handler.lastPictureDigest(), pictureDigest(picture.data(), picture.size()));
    int32_t usable;
    std::memcpy(&usable, s.payload.data(), 4);
    EXPECT_EQ(usable, 0);
    ASSERT_EQ(s.send(proto::kCmdPredict), 0);
    EXPECT_EQ(s.handler.lastPictureDigest(), pictureDigest(picture.data(), picture.size()));
}

TEST(CommandHandlerTest, NewPictureAfterTheExchangeIsUsedAsItIs) {
    ServiceSide s;
    s.payload = randomPicture(1);
    s.send(proto::kCmdInitAiService);
    s.send(proto::kCmdGetModelConfig);
    AiServiceModelConfig config;
    std::memcpy(&config, s.payload.data(), sizeof(config));
    s.write(&config, sizeof(config));
    s.send(proto::kCmdSetModelConfig);
    int32_t aiType = 0;
    s.write(&aiType, 4);
    s.send(proto::kCmdSetAiType);
    s.send(proto::kCmdLoadModel);
    const std::vector<uint8_t> next = randomPicture(2);
    s.payload = next;  // the next capture
    ASSERT_EQ(s.send(proto::kCmdPredict), 0);
    EXPECT_EQ(s.handler.lastPictureDigest(), pictureDigest(next.data(), next.size()));

    // A later cycle: capture, predict straight away.
    const std::vector<uint8_t> third = randomPicture(3);
    s.payload = third;
    ASSERT_EQ(s.send(proto::kCmdPredict), 0);
    EXPECT_EQ(s.handler.lastPictureDigest(), pictureDigest(third.data(), third.size()));
}

TEST(PayloadGuardTest, ClientRecordOnANewerPictureDropsTheSavedHead) {
    std::vector<uint8_t> payload = randomPicture(5);
    const std::vector<uint8_t> first = payload;
    PayloadGuard guard;
    guard.beforeServiceWrite(payload.data());
    std::memset(payload.data(), 0x11, PayloadGuard::kHeadSize);  // our record
    guard.afterServiceWrite(payload.data());
    payload = randomPicture(6);  // a new capture, then a record that did not follow our read
    std::memset(payload.data(), 0x22, PayloadGuard::kHeadSize);
    guard.afterClientRecord(payload.data(), /*followsGet=*/false);
    std::vector<uint8_t> before = payload;
    EXPECT_FALSE(guard.restore(payload.data()));
    EXPECT_EQ(payload, before) << "the first picture's head must not be spliced onto a newer one";

    // A short value that does not sit on what we left there also ends the guard.
    payload = first;
    guard.beforeServiceWrite(payload.data());
    std::memset(payload.data(), 0x11, PayloadGuard::kHeadSize);
    guard.afterServiceWrite(payload.data());
    payload[500] ^= 0xFF;
    uint32_t value = 0;
    std::memcpy(payload.data(), &value, 4);
    guard.afterClientValue(payload.data(), 4);
    EXPECT_FALSE(guard.restore(payload.data()));

    // A second read of the config while nothing new arrived keeps the original head.
    payload = first;
    guard.beforeServiceWrite(payload.data());
    std::memset(payload.data(), 0x33, PayloadGuard::kHeadSize);
    guard.afterServiceWrite(payload.data());
    guard.beforeServiceWrite(payload.data());
    guard.afterServiceWrite(payload.data());
    EXPECT_TRUE(guard.restore(payload.data()));
    EXPECT_EQ(payload, first);
}

TEST(ServiceOptionsTest, ParsesTestAndIntegrationOptions) {
    const char* argv[] = {"ai_service",
                          "--answer",
                          "ai_service_predict=-3",
                          "--answer=ai_service_load_model=-1",
                          "--delay-ms",
                          "250",
                          "--no-answer",
                          "--exit-after=4",
                          "--trace",
                          "/tmp/t",
                          "--record",
                          "/tmp/r"};
    Options options;
    bool help = true;
    std::string message;
    ASSERT_TRUE(parseOptions(12, const_cast<char**>(argv), &options, &help, &message)) << message;
    EXPECT_FALSE(help);
    EXPECT_EQ(options.answers.at("ai_service_predict"), -3);
    EXPECT_EQ(options.answers.at("ai_service_load_model"), -1);
    EXPECT_EQ(options.delayMs, 250);
    EXPECT_TRUE(options.noAnswer);
    EXPECT_EQ(options.exitAfter, 4);
    EXPECT_EQ(options.traceFile, "/tmp/t");
    EXPECT_EQ(options.recordFile, "/tmp/r");

    for (std::vector<const char*> bad :
         {std::vector<const char*>{"ai_service", "--answer", "ai_service_predict"},
          {"ai_service", "--answer", "x=abc"},
          {"ai_service", "--delay-ms", "-5"},
          {"ai_service", "--exit-after", "0"},
          {"ai_service", "--trace"},
          {"ai_service", "--bogus"}}) {
        Options o;
        std::string why;
        EXPECT_FALSE(
            parseOptions(static_cast<int>(bad.size()), const_cast<char**>(bad.data()), &o, &help, &why))
            << bad.back();
        EXPECT_FALSE(why.empty());
    }
    const char* helpArgs[] = {"ai_service", "--help"};
    Options o;
    ASSERT_TRUE(parseOptions(2, const_cast<char**>(helpArgs), &o, &help, &message));
    EXPECT_TRUE(help);
}

}  // namespace
