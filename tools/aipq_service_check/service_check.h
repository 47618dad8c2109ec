#ifndef TOOLS_AIPQ_SERVICE_CHECK_SERVICE_CHECK_H
#define TOOLS_AIPQ_SERVICE_CHECK_SERVICE_CHECK_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "segment_view.h"
#include "service_process.h"

namespace service_check {

struct Settings {
    std::string serviceCommand;  // empty: the service already runs
    std::string serviceLog;      // where a started service writes; empty: our stderr
    int rounds = 5;
};

enum class Verdict { Pass, Fail, Warn, NotRun };

class CheckClient;

// Runs every check against one AI service and prints one line per check.
class ServiceCheck {
public:
    ServiceCheck(Settings settings, FILE* out);
    ~ServiceCheck();
    // 0 when nothing failed, 1 when a check failed, 2 when the check could not run at all.
    int run();

private:
    // One request through the daemon's client, timed on the state word.
    Answer request(const char* command, const void* in = nullptr, int inSize = 0, void* out = nullptr,
                   bool settle = false);
    void report(const std::string& name, Verdict verdict, const std::string& text);
    void notRun(const std::vector<std::string>& names, const std::string& reason);
    bool serviceGone(const std::vector<std::string>& names);
    bool prepareChannel(bool first);
    bool startService();
    void newClient();
    void writePicture(const std::vector<uint8_t>& picture);
    std::string describe(const Answer& answer);

    void firstContact();
    void coldSequence();
    void predictions();
    void statesWithModel();
    void requeue();
    void unknownCommand();
    void stopService();
    void serviceFirst();
    void headerAndWorstAnswer();

    Settings m_settings;
    FILE* m_out;
    SegmentView m_view;
    std::unique_ptr<CheckClient> m_client;
    std::unique_ptr<ServiceProcess> m_service;
    std::map<Verdict, int> m_counts;
    // Every answer seen, for the header and the worst latency.
    std::vector<std::pair<std::string, Answer>> m_answers;
    std::vector<uint8_t> m_coldPredict;
    std::string m_gone;  // why the service can no longer be asked, once it cannot
};

}  // namespace service_check

#endif
