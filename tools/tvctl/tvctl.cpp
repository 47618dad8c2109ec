// tvctl: sets and shows the state of the host TV simulator, the directory that the host platform
// clients of ai_manager read and watch (AIPQ_TV_DIR, default /var/run/aipq_tv).

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "pq_row.h"
#include "tv_state_dir.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const std::vector<std::pair<std::string, int>> kPresetWatching = {
    {host::tvkey::kAipqSupported, 1},
    {host::tvkey::kAipqSwitch, 1},
    {host::tvkey::kAipqAvailable, 1},
    {host::tvkey::kSourceType, 2},
    {host::tvkey::kPlayerState, 2},
    {host::tvkey::kHdrType, 1},
    {host::tvkey::kGameMode, 0},
    {host::tvkey::kEncryptedSource1, 0},
    {host::tvkey::kEncryptedSource6Or9, 0},
    {host::tvkey::kPowerState, 0},
};

void printUsage(FILE* out) {
    std::string keys;
    for (const auto& key : host::tvStateKeys()) {
        keys += "\n    " + key;
    }
    std::fprintf(out,
                 "Usage:\n"
                 "  tvctl set KEY VALUE [KEY VALUE ...]  write integer values; nothing is written unless\n"
                 "                                       every pair is valid\n"
                 "  tvctl get KEY                        print one value\n"
                 "  tvctl show                           print every value and the PQ offsets in force\n"
                 "  tvctl preset watching                a TV playing a permitted, unencrypted source with\n"
                 "                                       AIPQ on: every gate of the daemon open\n"
                 "  tvctl --help                         this text\n"
                 "\n"
                 "Keys:%s\n"
                 "\n"
                 "Each key is a file holding a decimal integer in the TV-state directory, AIPQ_TV_DIR\n"
                 "(default /var/run/aipq_tv; now %s). A missing file reads as 0. Every write notifies\n"
                 "ai_manager, also when the value does not change; aipq_supported notifies nothing.\n"
                 "Exit status: 0 done, 1 a file could not be written, 2 misuse.\n",
                 keys.c_str(), host::tvStateDir().c_str());
}

int misuse(const std::string& message) {
    std::fprintf(stderr, "tvctl: %s\nRun 'tvctl --help' for usage.\n", message.c_str());
    return kExitUsage;
}

bool isKey(const std::string& name) {
    for (const auto& key : host::tvStateKeys()) {
        if (key == name) {
            return true;
        }
    }
    return false;
}

// The whole text must be one decimal int, optionally signed.
bool parseInt(const std::string& text, int* value) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    long parsed = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX ||
        !(text[0] == '-' || text[0] == '+' || (text[0] >= '0' && text[0] <= '9'))) {
        return false;
    }
    *value = static_cast<int>(parsed);
    return true;
}

int writeAll(const std::vector<std::pair<std::string, int>>& values) {
    // A rename would replace a FIFO or symlink that someone put there on purpose, or fail on a
    // directory halfway through the pairs: refuse before anything is written.
    for (const auto& kv : values) {
        std::string problem = host::tvEntryProblem(kv.first);
        if (!problem.empty()) {
            std::fprintf(stderr, "tvctl: %s %s, not a state file; nothing written\n",
                         host::tvStatePath(kv.first).c_str(), problem.c_str());
            return kExitFailed;
        }
    }
    for (const auto& kv : values) {
        if (!host::writeTvInt(kv.first, kv.second)) {
            std::fprintf(stderr, "tvctl: cannot write %s: %s\n", host::tvStatePath(kv.first).c_str(),
                         std::strerror(errno));
            return kExitFailed;
        }
    }
    return kExitOk;
}

int cmdSet(int argc, char** argv) {
    if (argc == 0 || argc % 2 != 0) {
        return misuse("set takes KEY VALUE pairs");
    }
    std::vector<std::pair<std::string, int>> values;
    for (int i = 0; i < argc; i += 2) {
        std::string key = argv[i];
        std::string text = argv[i + 1];
        int value = 0;
        if (!isKey(key)) {
            return misuse(std::string("unknown key '") + key + "'");
        }
        if (!parseInt(text, &value)) {
            return misuse("value '" + text + "' for key '" + key + "' is not an integer");
        }
        values.emplace_back(key, value);
    }
    return writeAll(values);
}

// The value of a key for people: "1", or "0 (not set)", or "0 (holds no integer)".
std::string describe(const std::string& key) {
    host::ReadStatus status = host::ReadStatus::Ok;
    int value = host::readTvInt(key, &status);
    std::string text = std::to_string(value);
    if (status == host::ReadStatus::Missing) {
        text += " (not set)";
    } else if (status != host::ReadStatus::Ok) {
        text += std::string(" (") + host::readProblem(status) + ")";
    }
    return text;
}

int cmdGet(int argc, char** argv) {
    if (argc != 1) {
        return misuse("get takes one KEY");
    }
    if (!isKey(argv[0])) {
        return misuse(std::string("unknown key '") + argv[0] + "'");
    }
    host::ReadStatus status = host::ReadStatus::Ok;
    int value = host::readTvInt(argv[0], &status);
    if (status == host::ReadStatus::Garbage || status == host::ReadStatus::Unreadable) {
        std::fprintf(stderr, "tvctl: %s %s; it reads as 0\n", host::tvStatePath(argv[0]).c_str(),
                     host::readProblem(status));
    }
    std::printf("%d\n", value);
    return kExitOk;
}

// Parses the offset row; on failure `problem` says what is wrong with it.
bool parseOffsets(const std::string& text, std::vector<int>* offsets, std::string* problem) {
    std::istringstream in(text);
    std::string token;
    while (in >> token) {
        int value = 0;
        if (!parseInt(token, &value)) {
            *problem = "'" + token + "' is not an integer";
            return false;
        }
        offsets->push_back(value);
    }
    if (offsets->size() != static_cast<size_t>(pq_row::kSize)) {
        *problem =
            "holds " + std::to_string(offsets->size()) + " values, expected " + std::to_string(pq_row::kSize);
        return false;
    }
    return true;
}

int cmdShow(int argc) {
    if (argc != 0) {
        return misuse("show takes no arguments");
    }
    std::printf("TV state in %s:\n", host::tvStateDir().c_str());
    for (const auto& key : host::tvStateKeys()) {
        std::printf("  %-22s %s\n", key.c_str(), describe(key).c_str());
    }

    std::string path = host::tvStatePath(host::tvfile::kPqParameters);
    if (access(path.c_str(), F_OK) != 0) {
        std::printf("PQ offsets in force: (none applied yet)\n");
        return kExitOk;
    }
    std::vector<int> offsets;
    std::string problem;
    if (!parseOffsets(host::readTvText(host::tvfile::kPqParameters), &offsets, &problem)) {
        std::printf("PQ offsets in force: malformed %s: %s\n", path.c_str(), problem.c_str());
        return kExitOk;
    }
    std::printf("PQ offsets in force:\n");
    for (int i = 0; i < pq_row::kSize; ++i) {
        std::printf("  %-22s %d%s\n", pq_row::kNames[i], offsets[static_cast<size_t>(i)],
                    pq_row::isColorTunerSelector(i) ? " (colour selector)" : "");
    }
    return kExitOk;
}

int cmdPreset(int argc, char** argv) {
    if (argc != 1) {
        return misuse("preset takes one NAME (watching)");
    }
    if (std::strcmp(argv[0], "watching") != 0) {
        return misuse(std::string("unknown preset '") + argv[0] + "'");
    }
    return writeAll(kPresetWatching);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        printUsage(stderr);
        return kExitUsage;
    }
    std::string command = argv[1];
    int restc = argc - 2;
    char** restv = argv + 2;
    if (command == "--help" || command == "-h" || command == "help") {
        printUsage(stdout);
        return kExitOk;
    }
    if (command == "set") {
        return cmdSet(restc, restv);
    }
    if (command == "get") {
        return cmdGet(restc, restv);
    }
    if (command == "show") {
        return cmdShow(restc);
    }
    if (command == "preset") {
        return cmdPreset(restc, restv);
    }
    return misuse(std::string("unknown command '") + command + "'");
}
