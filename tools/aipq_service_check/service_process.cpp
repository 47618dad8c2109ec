#include "service_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace service_check {

ServiceProcess::ServiceProcess(std::string command, std::string logPath)
    : m_command(std::move(command)), m_logPath(std::move(logPath)) {}

ServiceProcess::~ServiceProcess() {
    end();
}

bool ServiceProcess::start(std::string* error) {
    m_ended = false;
    // Made before the fork: the child of a threaded process may not allocate.
    const std::string line = "exec " + m_command;
    const char* log = m_logPath.empty() ? nullptr : m_logPath.c_str();
    m_pid = fork();
    if (m_pid < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return false;
    }
    if (m_pid == 0) {
        // Its own process group: a service that forks helpers is ended with them.
        setpgid(0, 0);
        if (log != nullptr) {
            int fd = open(log, O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (fd >= 0) {
                dup2(fd, STDOUT_FILENO);
                dup2(fd, STDERR_FILENO);
                close(fd);
            }
        }
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    setpgid(m_pid, m_pid);
    return true;
}

bool ServiceProcess::running() {
    if (m_pid <= 0 || m_ended) {
        return false;
    }
    if (waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
        m_ended = true;
    }
    return !m_ended;
}

bool ServiceProcess::waitEnd(int ms) {
    for (int waited = 0; running(); waited += 5) {
        if (waited >= ms) {
            return false;
        }
        struct timespec step = {0, 5000000L};
        nanosleep(&step, nullptr);
    }
    return true;
}

void ServiceProcess::end() {
    if (!running()) {
        return;
    }
    kill(-m_pid, SIGTERM);
    if (!waitEnd(5000)) {
        kill(-m_pid, SIGKILL);
        waitEnd(5000);
    }
}

std::string ServiceProcess::howItEnded() const {
    if (!m_ended) {
        return "still running";
    }
    if (WIFSIGNALED(m_status)) {
        return "killed by signal " + std::to_string(WTERMSIG(m_status));
    }
    return "exit status " + std::to_string(WEXITSTATUS(m_status));
}

}  // namespace service_check
