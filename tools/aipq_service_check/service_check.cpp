#include "service_check.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <thread>

#include "osal.h"
#include "recognition_process_manager.h"

namespace service_check {

namespace proto = ai_service_protocol;
using telvo_ai_service::AiServiceModelConfig;
using Clock = std::chrono::steady_clock;

// The daemon's client as it is, with the model configuration it carries in reach: the check
// sends back what it read, with the daemon's environment overrides applied, as the daemon does.
class CheckClient : public RecognitionProcessManager {
public:
    AiServiceModelConfig& modelConfig() { return m_modelConfig; }
};

namespace {

constexpr int kRequestLimitMs = 10000;  // the daemon's limit for every answer
constexpr int kResendQuietMs = 300;
constexpr const char* kUnknownCommand = "ai_service_conformance_unknown";
constexpr size_t kRecordSize = sizeof(telvo_ai_service::TelvoAiPQPredict);
constexpr int kLastWord = proto::kPredictResultSize - static_cast<int>(sizeof(int32_t));  // after the records
constexpr int kReservedBytes = proto::kPayloadOffset - proto::kHeaderReservedOffset;
// The offset of a field of the model configuration, for the report.
#define AIPQ_FIELD_AT(field) \
    (std::string(#field " (offset ") + std::to_string(offsetof(AiServiceModelConfig, field)) + ")")

constexpr const char* kPredictChecks[] = {"predict.records",    "predict.order",   "predict.info-words",
                                          "predict.repeatable", "predict.picture", "predict.cold-picture"};

std::string ms(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f ms", value);
    return text;
}

// Sky over grass, textured so that no classifier takes it for one flat colour; more or less sky
// makes two pictures that any useful model tells apart.
std::vector<uint8_t> makePicture(int skyRows) {
    std::vector<uint8_t> rgb(proto::kPictureBytes);
    for (int y = 0; y < proto::kPictureHeight; ++y) {
        for (int x = 0; x < proto::kPictureWidth; ++x) {
            const int noise = ((x * 7 + y * 13) ^ (x * y)) % 24;
            uint8_t* p = &rgb[(static_cast<size_t>(y) * proto::kPictureWidth + x) * 3];
            const bool sky = y < skyRows;
            p[0] = static_cast<uint8_t>((sky ? 60 : 50) + noise);
            p[1] = static_cast<uint8_t>((sky ? 120 : 160) + noise);
            p[2] = static_cast<uint8_t>((sky ? 210 : 60) + noise / 2);
        }
    }
    return rgb;
}

int32_t word(const uint8_t* bytes) {
    int32_t v;
    std::memcpy(&v, bytes, sizeof(v));
    return v;
}

// The five records of a prediction result (the 48 bytes from offset 24).
std::vector<telvo_ai_service::TelvoAiPQPredict> records(const std::vector<uint8_t>& result) {
    std::vector<telvo_ai_service::TelvoAiPQPredict> out(proto::kPredictRecordCount);
    std::memcpy(out.data(), result.data() + proto::kPredictRecordsOffset, out.size() * sizeof(out[0]));
    return out;
}

std::string describeRecords(const std::vector<uint8_t>& result) {
    std::string text;
    for (const auto& r : records(result)) {
        char item[64];
        const char* label = r.label >= 0 && r.label < proto::kLabelCount ? proto::kLabelTexts[r.label] : "?";
        std::snprintf(item, sizeof(item), "%s%d %s %.3g", text.empty() ? "" : ", ", static_cast<int>(r.label),
                      label, static_cast<double>(r.confidence));
        text += item;
    }
    return text;
}

// Empty when the records are what the daemon can use.
std::string recordProblem(const std::vector<uint8_t>& result) {
    const auto list = records(result);
    for (size_t i = 0; i < list.size(); ++i) {
        const int offset =
            proto::kPayloadOffset + proto::kPredictRecordsOffset + static_cast<int>(i * kRecordSize);
        const float c = list[i].confidence;
        if (list[i].label < 0 || list[i].label >= proto::kLabelCount) {
            return "record " + std::to_string(i) + " (offset " + std::to_string(offset) + ") has label " +
                   std::to_string(list[i].label) + ", not 0 to 19";
        }
        if (!std::isfinite(c) || c < 0.0f || c > 1.0f) {
            return "record " + std::to_string(i) + " (offset " + std::to_string(offset + 4) +
                   ") has confidence " + std::to_string(c) + ", not within 0..1";
        }
    }
    return "";
}

bool ordered(const std::vector<uint8_t>& result) {
    const auto list = records(result);
    for (size_t i = 1; i < list.size(); ++i) {
        if (list[i].confidence > list[i - 1].confidence) {
            return false;
        }
    }
    return true;
}

bool sameRecords(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    const size_t from = proto::kPredictRecordsOffset, to = from + proto::kPredictRecordCount * kRecordSize;
    return std::equal(a.begin() + from, a.begin() + to, b.begin() + from);
}

// The payload's head as a result: `bytes` from offset 24 of a copied head.
std::vector<uint8_t> resultOf(const std::vector<uint8_t>& head, size_t bytes) {
    if (head.size() < proto::kPayloadOffset + bytes) {
        return {};
    }
    return std::vector<uint8_t>(head.begin() + proto::kPayloadOffset,
                                head.begin() + proto::kPayloadOffset + bytes);
}

std::string medianAndWorst(std::vector<double> values) {
    if (values.empty()) {
        return "-";
    }
    std::sort(values.begin(), values.end());
    return ms(values[values.size() / 2]) + " / " + ms(values.back());
}

bool waitFor(const std::function<bool()>& done, int limitMs) {
    for (int waited = 0; !done(); waited += 10) {
        if (waited >= limitMs) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Until the service has taken every message from `queue` (for at most a request's time), then lets
// the descriptor go; -1 (no queue) returns at once.
void awaitTaken(mqd_t queue) {
    if (queue == static_cast<mqd_t>(-1)) {
        return;
    }
    waitFor(
        [&] {
            struct mq_attr attr;
            return mq_getattr(queue, &attr) == 0 && attr.mq_curmsgs == 0;
        },
        kRequestLimitMs);
    mq_close(queue);
}

}  // namespace

ServiceCheck::ServiceCheck(Settings settings, FILE* out) : m_settings(std::move(settings)), m_out(out) {}

ServiceCheck::~ServiceCheck() {
    m_client.reset();
    m_service.reset();
}

void ServiceCheck::report(const std::string& name, Verdict verdict, const std::string& text) {
    static const std::map<Verdict, const char*> kWords = {{Verdict::Pass, "PASS"},
                                                          {Verdict::Fail, "FAIL"},
                                                          {Verdict::Warn, "WARN"},
                                                          {Verdict::NotRun, "NOT RUN"}};
    ++m_counts[verdict];
    std::fprintf(m_out, "%-7s  %-22s  %s\n", kWords.at(verdict), name.c_str(), text.c_str());
    std::fflush(m_out);
}

void ServiceCheck::notRun(const std::vector<std::string>& names, const std::string& reason) {
    for (const auto& name : names) {
        report(name, Verdict::NotRun, reason);
    }
}

bool ServiceCheck::serviceGone(const std::vector<std::string>& names) {
    if (m_gone.empty() && m_service != nullptr && !m_service->running()) {
        m_gone = "the service ended (" + m_service->howItEnded() + ")";
    }
    if (m_gone.empty() && osalWaitExitRequest(0)) {
        m_gone = "interrupted";
    }
    if (!m_gone.empty()) {
        notRun(names, m_gone);
    }
    return !m_gone.empty();
}

Answer ServiceCheck::request(const char* command, const void* in, int inSize, void* out, bool settle) {
    char message[proto::kMessageSize] = {};
    std::snprintf(message, sizeof(message), "%s", command);
    Answer answer = m_view.timed(
        [&] {
            return in != nullptr ? m_client->handleMessage(true, message, const_cast<void*>(in), inSize)
                                 : m_client->handleMessage(false, message, out, 0);
        },
        settle,
        [this] {
            // A service that has died answers nothing: the client need not wait out its 10 s.
            if (m_service == nullptr || m_service->running()) {
                return false;
            }
            m_client->abandonRequests();
            return true;
        });
    m_answers.emplace_back(command, answer);
    return answer;
}

std::string ServiceCheck::describe(const Answer& answer) {
    if (!answer.answered && m_service != nullptr && !m_service->running()) {
        return "no answer before the service ended";
    }
    if (!answer.answered) {
        return "no answer within " + std::to_string(kRequestLimitMs) + " ms";
    }
    return "answered " + std::to_string(answer.state) + " in " + ms(answer.ms);
}

void ServiceCheck::newClient() {
    m_client.reset(new CheckClient());
    m_view.attach();
}

void ServiceCheck::writePicture(const std::vector<uint8_t>& picture) {
    // Where the daemon's capture puts it, before the requests that classify it.
    if (m_view.attach()) {
        std::memcpy(m_view.payload(), picture.data(), picture.size());
    }
}

bool ServiceCheck::prepareChannel(bool first) {
    // Both ends made anew, so that whoever starts first really makes them. Later on only our own
    // earlier clients still have the segment attached: the daemon's client never lets it go.
    int id = shmget(proto::kShmKey, 0, 0);
    struct shmid_ds info;
    if (first && id >= 0 && shmctl(id, IPC_STAT, &info) == 0 && info.shm_nattch > 0) {
        std::fprintf(
            stderr,
            "aipq_service_check: the segment with key %d is in use by %lu process(es): stop the daemon "
            "and any AI service before starting one with --service.\n",
            proto::kShmKey, static_cast<unsigned long>(info.shm_nattch));
        return false;
    }
    if (id >= 0) {
        shmctl(id, IPC_RMID, nullptr);
    }
    mq_unlink(proto::kQueueName);
    return true;
}

bool ServiceCheck::startService() {
    m_service.reset(new ServiceProcess(m_settings.serviceCommand, m_settings.serviceLog));
    std::string error;
    if (!m_service->start(&error)) {
        std::fprintf(stderr, "aipq_service_check: cannot start the service: %s\n", error.c_str());
        return false;
    }
    m_gone.clear();
    return true;
}

void ServiceCheck::firstContact() {
    const bool started = !m_settings.serviceCommand.empty();
    const std::string first = started ? "channel.client-first" : "channel.service-first";
    writePicture(makePicture(160));
    // Before any initialisation: what a daemon meets when the service has restarted under it.
    std::vector<uint8_t> result(proto::kPredictResultSize);
    const Answer answer = request(proto::kCmdPredict, nullptr, 0, result.data());
    if (!answer.answered) {
        report(first, Verdict::Fail,
               std::string(started ? "started after the client made the segment and the queue, the service"
                                   : "the running service") +
                   " did not answer its first command (" + proto::kCmdPredict + ") within " +
                   std::to_string(kRequestLimitMs) + " ms");
        notRun({"states.before-init"}, "no answer to the first command");
        m_gone = "it did not answer its first command";
        return;
    }
    report(
        first, Verdict::Pass,
        std::string(started ? "started after the client, it took the first command from the client's queue: "
                            : "the running service took the first command: ") +
            describe(answer));
    std::string text =
        std::string(proto::kCmdPredict) + " before " + proto::kCmdInitAiService + " " + describe(answer);
    if (answer.state == proto::kStateNotInit || answer.state == proto::kStateNoModel) {
        report("states.before-init", Verdict::Pass, text + ": the daemon re-initialises or reloads on it");
    } else {
        report("states.before-init", Verdict::Warn,
               text + (started ? "" : " (it may have been initialised before the check)") +
                   ": only -2 or -3 make a daemon bring a restarted service up again");
    }
    if (!started) {
        report("channel.client-first", Verdict::NotRun,
               "the service was already running: start it with --service");
    }
}

void ServiceCheck::coldSequence() {
    if (serviceGone({"sequence.cold", "config.well-formed", "config.opaque-kept"})) {
        return;
    }
    const char* commands[] = {proto::kCmdInitAiService, proto::kCmdGetModelConfig, proto::kCmdSetModelConfig,
                              proto::kCmdSetAiType,     proto::kCmdLoadModel,      proto::kCmdPredict};
    std::vector<std::vector<double>> times(6);
    std::string failure;
    std::vector<uint8_t> readConfig;
    int rounds = 0;
    for (int round = 0; round < m_settings.rounds && failure.empty(); ++round, ++rounds) {
        if (round > 0) {
            request(proto::kCmdReleaseModel);
        }
        writePicture(makePicture(160));
        std::vector<uint8_t> result(proto::kPredictResultSize);
        int32_t aiType = 0;
        Answer answers[6];
        answers[0] = request(proto::kCmdInitAiService);
        answers[1] = request(proto::kCmdGetModelConfig, nullptr, 0, &m_client->modelConfig(), true);
        m_client->loadEnv();
        answers[2] = request(proto::kCmdSetModelConfig, &m_client->modelConfig(), proto::kModelConfigSize);
        answers[3] = request(proto::kCmdSetAiType, &aiType, sizeof(aiType));
        answers[4] = request(proto::kCmdLoadModel);
        answers[5] = request(proto::kCmdPredict, nullptr, 0, result.data(), true);
        for (int i = 0; i < 6; ++i) {
            if (answers[i].answered && answers[i].state == proto::kStateDone) {
                times[i].push_back(answers[i].ms);
            } else if (failure.empty()) {
                failure = std::string(commands[i]) + " " + describe(answers[i]) + " in round " +
                          std::to_string(round + 1);
            }
        }
        if (round == 0) {
            readConfig = resultOf(answers[1].settled, proto::kModelConfigSize);
            m_coldPredict = answers[5].state == proto::kStateDone
                                ? resultOf(answers[5].settled, proto::kPredictResultSize)
                                : std::vector<uint8_t>();
        }
        if (m_service != nullptr && !m_service->running()) {
            break;
        }
    }
    std::string latencies;
    for (int i = 0; i < 6; ++i) {
        latencies += std::string(i == 0 ? "" : ", ") + (commands[i] + 11) + " " + medianAndWorst(times[i]);
    }
    latencies += " (median / worst over " + std::to_string(rounds) + " round(s); limit " +
                 std::to_string(kRequestLimitMs) + " ms)";
    if (failure.empty()) {
        report("sequence.cold", Verdict::Pass, "each answered 0 in order; " + latencies);
    } else {
        report("sequence.cold", Verdict::Fail, failure + "; " + latencies);
    }

    if (readConfig.empty()) {
        notRun({"config.well-formed", "config.opaque-kept"}, "no configuration was read");
        return;
    }
    AiServiceModelConfig config;
    std::memcpy(&config, readConfig.data(), sizeof(config));
    const auto terminated = [](const char(&field)[sizeof(config.model_name)]) {
        return std::memchr(field, '\0', sizeof(field)) != nullptr;
    };
    static_assert(sizeof(config.model_name) == sizeof(config.labels_file_name), "both paths checked alike");
    std::string problem;
    if (!terminated(config.labels_file_name)) {
        problem = AIPQ_FIELD_AT(labels_file_name) + " has no NUL within its field";
    } else if (!terminated(config.model_name)) {
        problem = AIPQ_FIELD_AT(model_name) + " has no NUL within its field";
    } else if (config.number_of_threads <= 0) {
        problem = AIPQ_FIELD_AT(number_of_threads) + " is " + std::to_string(config.number_of_threads);
    } else if (config.allow_fp16 != 0 && config.allow_fp16 != 1) {
        problem = AIPQ_FIELD_AT(allow_fp16) + " is " + std::to_string(config.allow_fp16);
    } else if (config.gl_backend != 0 && config.gl_backend != 1) {
        problem = AIPQ_FIELD_AT(gl_backend) + " is " + std::to_string(config.gl_backend);
    }
    char seen[256];
    std::snprintf(seen, sizeof(seen),
                  "model \"%.60s\", threads %d, allow_fp16 %d, gl_backend %d; sent back with model \"%.60s\"",
                  terminated(config.model_name) ? config.model_name : "?", config.number_of_threads,
                  config.allow_fp16, config.gl_backend, m_client->modelConfig().model_name);
    report("config.well-formed", problem.empty() ? Verdict::Pass : Verdict::Fail,
           problem.empty() ? seen : problem);

    // What the daemon sent last must come back, the bytes it does not interpret included.
    std::vector<uint8_t> again(proto::kModelConfigSize);
    const Answer answer = request(proto::kCmdGetModelConfig, nullptr, 0, again.data(), true);
    const std::vector<uint8_t> back = resultOf(answer.settled, proto::kModelConfigSize);
    if (answer.state != proto::kStateDone || back.empty()) {
        report("config.opaque-kept", Verdict::NotRun,
               "the second " + std::string(proto::kCmdGetModelConfig) + " " + describe(answer));
        return;
    }
    const auto* sent = reinterpret_cast<const uint8_t*>(&m_client->modelConfig());
#define AIPQ_OPAQUE(field) \
    { offsetof(AiServiceModelConfig, field), offsetof(AiServiceModelConfig, field) + sizeof(config.field) }
    const std::pair<size_t, size_t> opaque[] = {AIPQ_OPAQUE(reserved0), AIPQ_OPAQUE(reserved1),
                                                AIPQ_OPAQUE(reserved2), AIPQ_OPAQUE(reserved3)};
#undef AIPQ_OPAQUE
    size_t opaqueBytes = 0;
    for (const auto& range : opaque) {
        opaqueBytes += range.second - range.first;
        for (size_t i = range.first; i < range.second; ++i) {
            if (back[i] != sent[i]) {
                report("config.opaque-kept", Verdict::Warn,
                       "opaque byte " + std::to_string(i) + " of the record was set to " +
                           std::to_string(sent[i]) + " and came back as " + std::to_string(back[i]));
                return;
            }
        }
    }
    report("config.opaque-kept", Verdict::Pass,
           "all " + std::to_string(opaqueBytes) + " opaque bytes came back as they were set");
}

void ServiceCheck::predictions() {
    const std::vector<std::string> names(std::begin(kPredictChecks), std::end(kPredictChecks));
    if (serviceGone(names)) {
        return;
    }
    if (m_coldPredict.empty()) {
        notRun(names, "the cold sequence's prediction was not answered 0");
        return;
    }
    const std::vector<uint8_t> pictureA = makePicture(160), pictureB = makePicture(64);
    std::vector<std::vector<uint8_t>> warm;
    for (const auto* picture : {&pictureA, &pictureA, &pictureB}) {
        writePicture(*picture);
        std::vector<uint8_t> result(proto::kPredictResultSize);
        const Answer answer = request(proto::kCmdPredict, nullptr, 0, result.data(), true);
        if (answer.state != proto::kStateDone) {
            notRun(names, "warm " + std::string(proto::kCmdPredict) + " " + describe(answer));
            return;
        }
        warm.push_back(resultOf(answer.settled, proto::kPredictResultSize));
    }
    const std::vector<uint8_t>& cold = m_coldPredict;
    const std::vector<const std::vector<uint8_t>*> all = {&cold, &warm[0], &warm[1], &warm[2]};
    std::string problem;
    for (const auto* result : all) {
        if (problem.empty()) {
            problem = recordProblem(*result);
        }
    }
    const std::string first = describeRecords(warm[0]);
    report("predict.info-words", Verdict::Pass,
           "words at offsets " + std::to_string(proto::kPayloadOffset) + " and " +
               std::to_string(proto::kPayloadOffset + kLastWord) + ": " +
               std::to_string(word(warm[0].data())) + " and " +
               std::to_string(word(warm[0].data() + kLastWord)) +
               " (ignored by the daemon; for information)");
    if (!problem.empty()) {
        report("predict.records", Verdict::Fail, problem + " (read from offset 28: " + first + ")");
        notRun({"predict.order", "predict.repeatable", "predict.picture", "predict.cold-picture"},
               "the records are not well formed");
        return;
    }
    report("predict.records", Verdict::Pass,
           "five records from offset 28, labels 0..19, confidences within 0..1: " + first);
    bool inOrder = true;
    for (const auto* result : all) {
        if (inOrder && !ordered(*result)) {
            inOrder = false;
            report("predict.order", Verdict::Fail, "not most confident first: " + describeRecords(*result));
        }
    }
    if (inOrder) {
        report("predict.order", Verdict::Pass, "most confident first in all 4 answers");
    }
    report("predict.repeatable", sameRecords(warm[0], warm[1]) ? Verdict::Pass : Verdict::Fail,
           sameRecords(warm[0], warm[1])
               ? "the same picture twice gave the same 40 bytes of records"
               : "the same picture gave " + first + ", then " + describeRecords(warm[1]));
    if (!sameRecords(warm[0], warm[2])) {
        report("predict.picture", Verdict::Pass,
               "two pictures, two answers: " + first + " / " + describeRecords(warm[2]));
    } else {
        report(
            "predict.picture", Verdict::Warn,
            "two different pictures in the payload gave the same answer (" + first +
                "): the picture classified may not be the one in the payload, or the model cannot tell them "
                "apart");
    }
    if (sameRecords(cold, warm[0])) {
        report("predict.cold-picture", Verdict::Pass,
               "the cold start classified the whole picture: same answer as warm");
    } else {
        report("predict.cold-picture", Verdict::Warn,
               "on the cold start the configuration exchange had overwritten the picture's first " +
                   std::to_string(proto::kModelConfigSize) + " bytes and the answer was " +
                   describeRecords(cold) + ", warm " + first);
    }
}

void ServiceCheck::statesWithModel() {
    if (serviceGone({"states.no-model", "states.resend"})) {
        return;
    }
    request(proto::kCmdReleaseModel);
    writePicture(makePicture(160));
    std::vector<uint8_t> result(proto::kPredictResultSize);
    Answer answer = request(proto::kCmdPredict, nullptr, 0, result.data());
    const std::string text =
        std::string(proto::kCmdPredict) + " after " + proto::kCmdReleaseModel + " " + describe(answer);
    report(
        "states.no-model", answer.state == proto::kStateNoModel ? Verdict::Pass : Verdict::Fail,
        answer.state == proto::kStateNoModel ? text : text + ", not -3: a daemon would not reload the model");
    request(proto::kCmdLoadModel);

    // The daemon's send thread re-sends its last command on the way out, with no request posted.
    if (serviceGone({"states.resend"}) || !m_view.attach()) {
        return;
    }
    writePicture(makePicture(64));
    const std::vector<uint8_t> before(m_view.segment(), m_view.segment() + proto::kShmSize);
    char message[proto::kMessageSize] = {};
    std::snprintf(message, sizeof(message), "%s", proto::kCmdPredict);
    m_client->triggerMessage(message);
    awaitTaken(mq_open(proto::kQueueName, O_RDONLY));
    std::this_thread::sleep_for(std::chrono::milliseconds(kResendQuietMs));
    const uint8_t* now = m_view.segment();
    size_t changed = 0;
    while (changed < before.size() && before[changed] == now[changed]) {
        ++changed;
    }
    const std::string resent = std::string(proto::kCmdPredict) + " re-sent with the state word at " +
                               std::to_string(word(before.data() + proto::kHeaderStateOffset));
    if (changed < before.size()) {
        report("states.resend", Verdict::Fail,
               resent + ": the segment changed at offset " + std::to_string(changed) + " (state word now " +
                   std::to_string(m_view.state()) + ")");
        return;
    }
    answer = request(proto::kCmdLoadModel);
    report("states.resend", answer.state == proto::kStateDone ? Verdict::Pass : Verdict::Fail,
           resent +
               (answer.state == proto::kStateDone ? ": left untouched; the next command "
                                                  : ": left untouched, but the next command ") +
               describe(answer));
}

void ServiceCheck::requeue() {
    if (serviceGone({"channel.requeue"})) {
        return;
    }
    // A restarted daemon: its send thread unlinks the queue, the new one makes another. On its way
    // out it re-sends its last command with no request posted; that must be taken from the old
    // queue before we post one, or the service would answer it for ours.
    const mqd_t old = mq_open(proto::kQueueName, O_RDONLY);
    m_client.reset();
    awaitTaken(old);
    std::this_thread::sleep_for(std::chrono::milliseconds(kResendQuietMs));
    const Clock::time_point start = Clock::now();
    newClient();
    const double made = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    const Answer answer = request(proto::kCmdInitAiService);
    const double total = made + answer.ms;
    if (answer.answered) {
        report(
            "channel.requeue", Verdict::Pass,
            "after a client restart (queue unlinked and made anew) the service answered on the new queue " +
                ms(total) + " after it was made (limit " + std::to_string(kRequestLimitMs) + " ms)");
    } else {
        report("channel.requeue", Verdict::Fail,
               "after a client restart (queue unlinked and made anew) no answer on the new queue within " +
                   std::to_string(kRequestLimitMs) + " ms");
    }
}

void ServiceCheck::unknownCommand() {
    if (serviceGone({"states.unknown-command"})) {
        return;
    }
    const Answer answer = request(kUnknownCommand);
    std::string text = std::string("\"") + kUnknownCommand + "\" " + describe(answer);
    std::this_thread::sleep_for(std::chrono::milliseconds(kResendQuietMs));
    if (m_service != nullptr && !m_service->running()) {
        m_gone = "the service ended (" + m_service->howItEnded() + ") on an unknown command";
        report(
            "states.unknown-command", Verdict::Fail,
            text + (answer.answered ? ", then the service ended (" : " (") + m_service->howItEnded() + ")");
        return;
    }
    const Answer next = request(proto::kCmdInitAiService);
    text += "; the next command " + describe(next);
    const bool good = answer.state == proto::kStateFailed && next.answered;
    report("states.unknown-command", good ? Verdict::Pass : Verdict::Fail,
           good ? text : text + " (wanted -1, and the service serving on)");
}

void ServiceCheck::stopService() {
    if (serviceGone({"stop.ends"})) {
        return;
    }
    const Answer answer = request(proto::kCmdStopAiService);
    std::string text = std::string(proto::kCmdStopAiService) + " " + describe(answer);
    bool good = answer.state == proto::kStateDone;
    if (m_service == nullptr) {
        text += " (process end not observed: the service was started outside the check)";
    } else if (!m_service->running()) {
        text += "; the process had ended (" + m_service->howItEnded() + ") by the client's next stop poll";
    } else {
        const Clock::time_point start = Clock::now();
        if (m_service->waitEnd(kRequestLimitMs)) {
            text += "; the process ended (" + m_service->howItEnded() + ") " +
                    ms(std::chrono::duration<double, std::milli>(Clock::now() - start).count()) +
                    " after the client's stop poll saw the answer";
        } else {
            text += "; the process still runs " + std::to_string(kRequestLimitMs) + " ms later";
            good = false;
        }
    }
    report("stop.ends", good ? Verdict::Pass : Verdict::Fail, text);
    m_gone = "it was stopped";
}

void ServiceCheck::serviceFirst() {
    const std::vector<std::string> names = {"channel.sizes", "channel.service-first",
                                            "states.unknown-command"};
    m_client.reset();
    m_service->end();
    if (!prepareChannel(false) || !startService()) {
        notRun(names, "the service could not be started again");
        return;
    }
    // Whatever the service makes of the channel before any client exists.
    waitFor([&] { return shmget(proto::kShmKey, 0, 0) >= 0 || !m_service->running(); }, kRequestLimitMs);
    const mqd_t queue = [&] {
        mqd_t q = static_cast<mqd_t>(-1);
        waitFor([&] { return (q = mq_open(proto::kQueueName, O_RDONLY)) != static_cast<mqd_t>(-1); }, 1000);
        return q;
    }();
    std::string problem, seen;
    struct shmid_ds info;
    const int id = shmget(proto::kShmKey, 0, 0);
    if (id >= 0 && shmctl(id, IPC_STAT, &info) == 0) {
        seen = "segment " + std::to_string(info.shm_segsz) + " bytes";
        if (info.shm_segsz != static_cast<size_t>(proto::kShmSize)) {
            problem = "segment of " + std::to_string(info.shm_segsz) + " bytes, not " +
                      std::to_string(proto::kShmSize);
        }
    } else {
        seen = "no segment before the client made it";
    }
    struct mq_attr attr;
    if (queue != static_cast<mqd_t>(-1) && mq_getattr(queue, &attr) == 0) {
        seen += ", queue of " + std::to_string(attr.mq_maxmsg) + " messages of " +
                std::to_string(attr.mq_msgsize) + " bytes";
        if (problem.empty() &&
            (attr.mq_maxmsg != proto::kQueueMaxMessages || attr.mq_msgsize != proto::kMessageSize)) {
            problem = "queue of " + std::to_string(attr.mq_maxmsg) + " messages of " +
                      std::to_string(attr.mq_msgsize) + " bytes, not " +
                      std::to_string(proto::kQueueMaxMessages) + " of " + std::to_string(proto::kMessageSize);
        }
        mq_close(queue);
    } else {
        seen += ", no queue before the client made it";
    }
    report("channel.sizes", problem.empty() ? Verdict::Pass : Verdict::Fail,
           (problem.empty() ? "made by the service started first: " + seen : problem));
    if (serviceGone({"channel.service-first", "states.unknown-command"})) {
        return;
    }
    newClient();
    const Answer answer = request(proto::kCmdInitAiService);
    report("channel.service-first", answer.answered ? Verdict::Pass : Verdict::Fail,
           "started before the client, the service " + describe(answer) + " to " + proto::kCmdInitAiService);
    unknownCommand();
}

void ServiceCheck::headerAndWorstAnswer() {
    std::string problem;
    for (const auto& [command, answer] : m_answers) {
        if (problem.empty() && !answer.atChange.empty()) {
            const uint32_t size =
                static_cast<uint32_t>(word(answer.atChange.data() + proto::kHeaderSizeOffset));
            const auto reserved = answer.atChange.begin() + proto::kHeaderReservedOffset;
            const auto dirty =
                std::find_if(reserved, reserved + kReservedBytes, [](uint8_t b) { return b != 0; });
            if (size != static_cast<uint32_t>(proto::kShmSize)) {
                problem = "after " + command + " the size word at offset 0 held " + std::to_string(size);
            } else if (dirty != reserved + kReservedBytes) {
                problem = "after " + command + " reserved byte " +
                          std::to_string(proto::kHeaderReservedOffset + (dirty - reserved)) + " held " +
                          std::to_string(*dirty);
            }
        }
    }
    report("channel.header", problem.empty() ? Verdict::Pass : Verdict::Fail,
           problem.empty()
               ? "size word " + std::to_string(proto::kShmSize) + " and " + std::to_string(kReservedBytes) +
                     " zero reserved bytes at every one of " + std::to_string(m_answers.size()) + " answers"
               : problem);

    // Results written after the state word are missed by a daemon that reads at once.
    std::string late;
    int compared = 0;
    for (const auto& [command, answer] : m_answers) {
        const size_t bytes =
            command == proto::kCmdGetModelConfig ? proto::kModelConfigSize : proto::kPredictResultSize;
        if (answer.settled.empty() || !late.empty()) {
            continue;
        }
        ++compared;
        const std::vector<uint8_t> then = resultOf(answer.atChange, bytes),
                                   later = resultOf(answer.settled, bytes);
        const auto diff = std::mismatch(then.begin(), then.end(), later.begin());
        if (diff.first != then.end()) {
            late = command + ": result byte at offset " +
                   std::to_string(proto::kPayloadOffset + (diff.first - then.begin())) +
                   " changed after the state word said " + std::to_string(answer.state) + " (" +
                   std::to_string(int(*diff.first)) + " at the change, " + std::to_string(int(*diff.second)) +
                   " " + std::to_string(SegmentView::kSettleMs) + " ms later)";
        }
    }
    report("channel.results-first", late.empty() ? Verdict::Pass : Verdict::Fail,
           late.empty()
               ? "results unchanged from the state change to " + std::to_string(SegmentView::kSettleMs) +
                     " ms later, in " + std::to_string(compared) + " answers"
               : late);

    double worst = -1;
    std::string worstCommand;
    for (const auto& [command, answer] : m_answers) {
        if (answer.answered && answer.ms > worst) {
            worst = answer.ms;
            worstCommand = command;
        }
    }
    if (worst < 0) {
        report("stop.worst-answer", Verdict::NotRun, "no answers");
        return;
    }
    const bool slow = worst > kRequestLimitMs / 2;
    report("stop.worst-answer", slow ? Verdict::Warn : Verdict::Pass,
           "worst answer " + ms(worst) + " (" + worstCommand + ")" +
               (slow ? ": more than half of the daemon's " : " within half of the daemon's ") +
               std::to_string(kRequestLimitMs) + " ms");
}

int ServiceCheck::run() {
    const bool started = !m_settings.serviceCommand.empty();
    if (started) {
        // The client first: it makes the segment and the queue, then the service comes up.
        if (!prepareChannel(true)) {
            return 2;
        }
        newClient();
        if (!startService()) {
            return 2;
        }
    } else {
        if (shmget(proto::kShmKey, 0, 0) < 0) {
            std::fprintf(stderr,
                         "aipq_service_check: no segment with key %d: is the service running? Or start it "
                         "with --service.\n",
                         proto::kShmKey);
            return 2;
        }
        newClient();
    }
    firstContact();
    coldSequence();
    predictions();
    statesWithModel();
    requeue();
    if (started) {
        stopService();
        serviceFirst();
    } else {
        notRun({"channel.sizes"}, "the service was already running: start it with --service");
        unknownCommand();
        stopService();
    }
    headerAndWorstAnswer();
    m_client.reset();
    if (m_service != nullptr) {
        m_service->end();
    }
    std::fprintf(m_out, "%d passed, %d failed, %d warned, %d not run\n", m_counts[Verdict::Pass],
                 m_counts[Verdict::Fail], m_counts[Verdict::Warn], m_counts[Verdict::NotRun]);
    return m_counts[Verdict::Fail] > 0 ? 1 : 0;
}

}  // namespace service_check
