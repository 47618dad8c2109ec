// The contract tests' handle on the host layer: the TV state is the TV-state directory, the PQ row
// applied is pq_parameters there, and the exit request is SIGTERM.
#include <signal.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "contract_driver.h"
#include "host_platform.h"
#include "tv_state_dir.h"

namespace {

class HostDriver : public contract::Driver {
public:
    // In place, as a shell's `echo 1 >file` does (tvctl renames a new file over the old one). TvKey
    // lists the keys in the order of tvStateKeys().
    bool setTvState(contract::TvKey key, int value) override {
        std::ofstream out;
        if (host::ensureTvStateDir()) {
            out.open(host::tvStatePath(host::tvStateKeys().at(static_cast<size_t>(key))));
        }
        out << value << '\n';
        out.close();
        return !out.fail();
    }
    bool appliedPqRow(std::vector<int>* row) override {
        std::istringstream in(host::readTvText(host::tvfile::kPqParameters));
        row->assign(std::istream_iterator<int>(in), std::istream_iterator<int>());
        return true;
    }
    bool captureLog(std::function<void(const std::string&)> sink) override {
        host::setLogSink(std::move(sink));
        return true;
    }
    bool requestExit() override { return raise(SIGTERM) == 0; }
};

}  // namespace

contract::Driver& contract::driver() {
    static HostDriver d;
    return d;
}
