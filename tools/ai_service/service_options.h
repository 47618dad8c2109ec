#ifndef TOOLS_AI_SERVICE_SERVICE_OPTIONS_H
#define TOOLS_AI_SERVICE_SERVICE_OPTIONS_H

#include <cstdint>
#include <map>
#include <string>

namespace ai_service {

struct Options {
    std::map<std::string, int32_t> answers;  // command -> state to answer instead of handling it
    int delayMs = 0;
    bool noAnswer = false;
    long exitAfter = -1;  // commands, < 0: never
    std::string traceFile;
    std::string recordFile;
};

// Parses the command line; false with a message for the user on a bad option. `help` is set for
// --help.
bool parseOptions(int argc, char** argv, Options* options, bool* help, std::string* message);
const char* usageText();

}  // namespace ai_service

#endif
