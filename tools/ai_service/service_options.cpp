#include "service_options.h"

#include <errno.h>

#include <cstdlib>
#include <cstring>

#include "ai_service_protocol.h"

namespace ai_service {

namespace proto = ai_service_protocol;

namespace {

bool parseInt(const std::string& text, long* value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0') {
        return false;
    }
    *value = v;
    return true;
}

constexpr const char* kOptionsText =
    "\n"
    "  --answer CMD=STATE  answer command CMD with STATE (0, -1, -2, -3, ...) without handling\n"
    "                      it; repeatable\n"
    "  --delay-ms N        wait N ms before each answer (scaled by AIPQ_TIME_SCALE)\n"
    "  --no-answer         receive commands but never answer\n"
    "  --exit-after N      end after N received commands\n"
    "  --trace FILE        append \"<monotonic seconds.micros> <command>\" per received command\n"
    "  --record FILE       append every received message as its raw bytes\n"
    "  --help              this text\n"
    "\n"
    "Model: \"builtin:reference\" (default) or an .onnx file named by the client's model\n"
    "configuration (RECOGNITION_MODEL_PATH / RECOGNITION_LABEL_PATH on the daemon's side).\n"
    "The segment and the queue are created when missing and left in place on exit: the\n"
    "daemon owns the queue's name, and the segment outlives both processes.\n";

}  // namespace

const char* usageText() {
    static const std::string text =
        std::string("usage: ai_service [OPTIONS]\n") +
        "Reference AI service: answers ai_manager's commands on the message queue\n\"" + proto::kQueueName +
        "\" through the shared memory segment with key " + std::to_string(proto::kShmKey) + ".\n" +
        "Runs until \"" + proto::kCmdStopAiService + "\", SIGTERM or SIGINT.\n" + kOptionsText;
    return text.c_str();
}

bool parseOptions(int argc, char** argv, Options* options, bool* help, std::string* message) {
    *help = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasValue = false;
        size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos && arg.rfind("--answer", 0) != 0) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasValue = true;
        } else if (arg.rfind("--answer=", 0) == 0) {
            value = arg.substr(std::strlen("--answer="));
            arg = "--answer";
            hasValue = true;
        }
        auto needValue = [&]() -> bool {
            if (hasValue) {
                return true;
            }
            if (i + 1 >= argc) {
                *message = arg + " needs a value";
                return false;
            }
            value = argv[++i];
            return true;
        };
        long number = 0;
        if (arg == "--help" || arg == "-h") {
            *help = true;
        } else if (arg == "--no-answer") {
            options->noAnswer = true;
        } else if (arg == "--answer") {
            if (!needValue()) {
                return false;
            }
            size_t sep = value.rfind('=');
            if (sep == std::string::npos || sep == 0 || !parseInt(value.substr(sep + 1), &number)) {
                *message = "--answer wants CMD=STATE, got \"" + value + "\"";
                return false;
            }
            options->answers[value.substr(0, sep)] = static_cast<int32_t>(number);
        } else if (arg == "--delay-ms") {
            if (!needValue()) {
                return false;
            }
            if (!parseInt(value, &number) || number < 0 || number > 3600000) {
                *message = "--delay-ms wants milliseconds, got \"" + value + "\"";
                return false;
            }
            options->delayMs = static_cast<int>(number);
        } else if (arg == "--exit-after") {
            if (!needValue()) {
                return false;
            }
            if (!parseInt(value, &number) || number < 1) {
                *message = "--exit-after wants a positive count, got \"" + value + "\"";
                return false;
            }
            options->exitAfter = number;
        } else if (arg == "--trace") {
            if (!needValue()) {
                return false;
            }
            options->traceFile = value;
        } else if (arg == "--record") {
            if (!needValue()) {
                return false;
            }
            options->recordFile = value;
        } else {
            *message = "unknown option \"" + std::string(argv[i]) + "\"";
            return false;
        }
    }
    return true;
}

}  // namespace ai_service
