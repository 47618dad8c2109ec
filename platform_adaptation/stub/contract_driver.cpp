// The contract tests' handle on this port. The stub has no TV to drive, so its contract tests fail:
// a port makes each of these act on its TV (see the host layer's for an example).
#include "contract_driver.h"

namespace {

class StubDriver : public contract::Driver {
public:
    bool setTvState(contract::TvKey, int) override { return false; }
    bool appliedPqRow(std::vector<int>*) override { return false; }
    bool captureLog(std::function<void(const std::string&)>) override { return false; }
    bool requestExit() override { return false; }
};

}  // namespace

contract::Driver& contract::driver() {
    static StubDriver d;
    return d;
}
