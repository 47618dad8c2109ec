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

enum class ReadStatus { Ok, Missing, Garbage };
// A missing file reads as 0; a file that does not hold one decimal integer reads as 0 and
// reports Garbage so that the caller can say so.
int readTvInt(const std::string& key, ReadStatus* status = nullptr);
// Whole file as text; empty when missing.
std::string readTvText(const std::string& key);
// Temporary file in the same directory, then rename: readers never see half a value.
bool writeTvFileAtomic(const std::string& key, const std::string& content);
bool writeTvInt(const std::string& key, int value);
bool appendTvFile(const std::string& key, const std::string& line);

}  // namespace host

#endif
