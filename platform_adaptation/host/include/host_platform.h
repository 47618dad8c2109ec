#ifndef PLATFORM_ADAPTATION_HOST_HOST_PLATFORM_H
#define PLATFORM_ADAPTATION_HOST_HOST_PLATFORM_H

#include <functional>
#include <string>

// Host-only controls of the platform layer, for tests and host tools. The daemon never uses them.
namespace host {

// Every wait and sleep of the osal layer, and the uptime clock, run this many times faster.
// Also read once from the environment variable AIPQ_TIME_SCALE. 1.0 is real time.
void setTimeScale(double scale);
double timeScale();

// Receives each complete log line instead of stderr or AIPQ_LOG_FILE; an empty function restores
// the default. The highest level printed can be changed at run time as well.
void setLogSink(std::function<void(const std::string& line)> sink);
void setLogLevel(unsigned int level);

// Makes frame::Process::run() return as if SIGTERM had arrived.
void requestProcessExit();

}  // namespace host

#endif
