#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    char tmpl[] = "/tmp/aipq_child_XXXXXX";
    int fd = mkstemp(tmpl);
    m_outputPath = tmpl;
    m_pid = fork();
    if (m_pid == 0) {
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        for (const auto& entry : env) {
            putenv(const_cast<char*>(entry.c_str()));
        }
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        // The daemon blocks its termination signals itself; the test's mask must not leak in.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execv(args[0], args.data());
        std::fprintf(stderr, "execv %s failed: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    if (fd >= 0) {
        close(fd);
    }
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !m_reaped) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
    }
    std::remove(m_outputPath.c_str());
}

bool ChildProcess::running() {
    if (m_reaped || m_pid <= 0) {
        return false;
    }
    int status = 0;
    pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        m_status = status;
        m_reaped = true;
        return false;
    }
    return true;
}

void ChildProcess::signal(int sig) {
    if (m_pid > 0 && !m_reaped) {
        ::kill(m_pid, sig);
    }
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(m_status)) {
        return WEXITSTATUS(m_status);
    }
    if (WIFSIGNALED(m_status)) {
        return 128 + WTERMSIG(m_status);
    }
    return -1;
}

std::string ChildProcess::output() const {
    std::ifstream in(m_outputPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int ChildProcess::count(const std::string& needle) const {
    std::string text = output();
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size())) {
        ++n;
    }
    return n;
}

bool ChildProcess::waitForOutput(const std::string& needle, std::chrono::milliseconds timeout,
                                 int times) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (count(needle) < times) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int runCommand(const std::string& command, std::string* out) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr) {
        return -1;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) {
        if (out != nullptr) {
            out->append(buf, n);
        }
    }
    int status = pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
