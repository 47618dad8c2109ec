#ifndef TOOLS_AIPQ_SERVICE_CHECK_SERVICE_PROCESS_H
#define TOOLS_AIPQ_SERVICE_CHECK_SERVICE_PROCESS_H

#include <sys/types.h>

#include <string>

namespace service_check {

// The AI service under test when the check starts it: a shell command line.
class ServiceProcess {
public:
    // `logPath` receives the service's output; empty: the check's own stderr.
    ServiceProcess(std::string command, std::string logPath);
    ~ServiceProcess();  // ends it if it still runs
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    bool start(std::string* error);
    bool running();
    // True once it has ended, within `ms`.
    bool waitEnd(int ms);
    // SIGTERM, then SIGKILL when it does not end within 5 s.
    void end();
    // "exit status N" or "killed by signal N" once it has ended.
    std::string howItEnded() const;

private:
    std::string m_command;
    std::string m_logPath;
    pid_t m_pid = -1;
    int m_status = 0;
    bool m_ended = false;
};

}  // namespace service_check

#endif
