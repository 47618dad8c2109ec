// The reference service's side of the wire: any 40-byte message after any client write over the
// payload's head. Every answer is a state the daemon knows, a result keeps its ranges, and the
// service writes only over that head, never over the rest of the picture.
#include <memory>
#include <vector>

#include "command_handler.h"
#include "fuzz_input.h"

namespace proto = ai_service_protocol;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kCommands[] = {
        proto::kCmdInitAiService, proto::kCmdGetModelConfig, proto::kCmdSetModelConfig,
        proto::kCmdSetAiType,     proto::kCmdLoadModel,      proto::kCmdReleaseModel,
        proto::kCmdImagePredict,  proto::kCmdPredict,        proto::kCmdStopAiService};
    const size_t head = ai_service::PayloadGuard::kHeadSize;
    FuzzInput in{data, size};
    // Exactly the payload and the message, so that a read past either is caught.
    std::vector<uint8_t> payload(proto::kPayloadSize);
    std::unique_ptr<char[]> message(new char[proto::kMessageSize]);
    fillRepeating(payload.data(), payload.size(), in.text(in.take<uint8_t>() * 8u));
    const std::vector<uint8_t> picture = payload;
    ai_service::CommandHandler handler;
    while (in.left > 0) {
        // A known command (with whatever bytes after its NUL) or any 40 bytes, then a client record.
        const uint8_t op = in.take<uint8_t>();
        in.bytes(message.get(), proto::kMessageSize);
        if (op < 18) {
            std::snprintf(message.get(), proto::kMessageSize, "%s", kCommands[op / 2]);
        }
        in.bytes(payload.data(), in.take<uint16_t>() % (head + 1));
        size_t known = 0;
        while (known < 9 && std::strncmp(message.get(), kCommands[known], proto::kMessageSize) != 0) {
            ++known;
        }
        const bool hadModel = handler.modelLoaded();
        const int32_t state = handler.handle(message.get(), proto::kMessageSize, payload.data());
        FUZZ_CHECK(std::memcmp(payload.data() + head, picture.data() + head, payload.size() - head) == 0);

        // Unknown commands fail and known ones wait for initialisation; after it only loading can
        // fail, and a prediction: for want of a model, or of a classification.
        const bool waits = known != 0 && known != 8 && !handler.initialised();
        const bool predicts = known == 6 || known == 7;
        const int32_t expected = known == 9 ? -1 : waits ? -2 : predicts && !hadModel ? -3 : 0;
        FUZZ_CHECK(state == expected || (state == -1 && !waits && (known == 4 || (predicts && hadModel))));
        int32_t result[proto::kPredictResultSize / 4];
        std::memcpy(result, payload.data(), sizeof(result));
        FUZZ_CHECK(state != 0 || known != 6 || (result[0] >= 0 && result[0] <= 2));
        if (state == 0 && known == 7) {
            // Five distinct labels, most confident first, confidences in 0..1 summing to at most 1.
            telvo_ai_service::TelvoAiPQPredict records[proto::kPredictRecordCount];
            std::memcpy(records, payload.data() + proto::kPredictRecordsOffset, sizeof(records));
            float sum = 0, last = 1;
            uint32_t labels = 0;
            for (const auto& r : records) {
                FUZZ_CHECK(unsigned(r.label) < proto::kLabelCount && r.confidence >= 0 &&
                           r.confidence <= last);
                labels |= 1u << r.label;
                sum += last = r.confidence;
            }
            FUZZ_CHECK(result[0] == proto::kPredictRecordCount && __builtin_popcount(labels) == 5 &&
                       sum <= 1.001f);
        }
    }
    return 0;
}
