#ifndef PLATFORM_ADAPTATION_HOST_TV_STATE_DIR_H
#define PLATFORM_ADAPTATION_HOST_TV_STATE_DIR_H

#include <string>
#include <vector>

// The host TV simulator keeps the TV state in a directory, one file per key holding a decimal
// integer (AIPQ_TV_DIR, default /var/run/aipq_tv). Shared by the host clients and tvctl.
namespace host {

// The keys of the TV state. A write of aipq_supported notifies nothing; every other key notifies
// its callback on each write, also when the value is unchanged.
namespace tvkey {
constexpr const char* kAipqSupported = "aipq_supported";
constexpr const char* kAipqSwitch = "aipq_switch";
constexpr const char* kAipqAvailable = "aipq_available";
constexpr const char* kSourceType = "source_type";
constexpr const char* kPlayerState = "player_state";
constexpr const char* kEncryptedSource1 = "encrypted_source1";
constexpr const char* kEncryptedSource6Or9 = "encrypted_source6or9";
constexpr const char* kHdrType = "hdr_type";
constexpr const char* kGameMode = "game_mode";
constexpr const char* kPowerState = "power_state";
}  // namespace tvkey

// Files the host setting client writes: the PQ row last applied, 34 integers on one line, and
// one such line per row ever applied.
namespace tvfile {
constexpr const char* kPqParameters = "pq_parameters";
constexpr const char* kPqHistory = "pq_history";
}  // namespace tvfile

// Every key above, in that order.
const std::vector<std::string>& tvStateKeys();

std::string tvStateDir();
std::string tvStatePath(const std::string& key);
// Creates the directory (and its parents) when missing; false with errno on failure.
bool ensureTvStateDir();

enum class ReadStatus { Ok, Missing, Garbage, Unreadable };
// A missing file reads as 0. Whatever else is no regular file holding one decimal integer in its
// first few dozen bytes reads as 0 too, and the status says why: Garbage for the content
// (empty, binary, too long), Unreadable for a directory, FIFO, device or a file that cannot be
// opened. Never blocks and never reads more than those few dozen bytes.
int readTvInt(const std::string& key, ReadStatus* status = nullptr);
// What is wrong with an entry that read with this status, for a message: "holds no integer" or
// "is not a readable regular file"; empty for Ok and Missing.
const char* readProblem(ReadStatus status);
// A regular file as text, at most its first 64 KiB; empty when missing or not a regular file.
std::string readTvText(const std::string& key);
// Empty when a write of `key` would create or replace a regular file; otherwise what stands there
// instead ("is a directory", "is a FIFO", "is a device", "is a symbolic link", ...).
std::string tvEntryProblem(const std::string& key);
// Temporary file in the same directory, then rename: readers never see half a value.
bool writeTvFileAtomic(const std::string& key, const std::string& content);
bool writeTvInt(const std::string& key, int value);
bool appendTvFile(const std::string& key, const std::string& line);

}  // namespace host

#endif
