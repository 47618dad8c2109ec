#ifndef TESTS_CONTRACT_CONTRACT_DRIVER_H
#define TESTS_CONTRACT_CONTRACT_DRIVER_H

// The TV's part in the contract tests, which each port plays in its
// platform_adaptation/<name>/contract_driver.cpp. A call the port cannot make returns false.
#include <functional>
#include <string>
#include <vector>

namespace contract {

// clang-format off
enum class TvKey { AipqSupported, AipqSwitch, AipqAvailable, SourceType, PlayerState, EncryptedSource1,
                   EncryptedSource6Or9, HdrType, GameMode, PowerState };
// clang-format on

struct Driver {
    virtual ~Driver() = default;
    // The TV takes the value and notifies it (all but AipqSupported), as when a user changes it.
    virtual bool setTvState(TvKey key, int value) = 0;
    virtual bool appliedPqRow(std::vector<int>* row) = 0;  // the PQ row the TV applied last
    // Each whole log line of this process goes to `sink`; an empty one restores the usual place.
    virtual bool captureLog(std::function<void(const std::string& line)> sink) = 0;
    virtual bool requestExit() = 0;  // as the TV's service manager asks the daemon to end
};

Driver& driver();

}  // namespace contract

#endif
