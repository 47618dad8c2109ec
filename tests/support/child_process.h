#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// A real binary started by a test, its stdout and stderr collected in one file.
class ChildProcess {
public:
    // env entries are "NAME=value" added to (or replacing in) the test's own environment.
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
    ~ChildProcess();  // kills and reaps the child if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    bool running();
    void signal(int sig);
    // Exit status (0-255), 128 + signal when killed by one, -1 when it did not end in time.
    int wait(std::chrono::milliseconds timeout);
    std::string output() const;
    int count(const std::string& needle) const;
    bool waitForOutput(const std::string& needle, std::chrono::milliseconds timeout, int times = 1) const;
    const std::string& outputPath() const { return m_outputPath; }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    bool m_reaped = false;
    std::string m_outputPath;
};

// Runs a command to its end (through /bin/sh -c) and returns its exit status; output appended to *out.
int runCommand(const std::string& command, std::string* out = nullptr);

#endif
