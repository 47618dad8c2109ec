// The reference service with one fault of its own, named by the first argument: what
// aipq_service_check must name when a vendor's service has it.
//   record-offset    prediction records 4 bytes late, from offset 32
//   late-results     the state word first, the prediction records 100 ms later
//   silent-aitype    no answer to ai_service_set_aitype
//   dies-on-unknown  ends on a command it does not know
//   unordered        the two most confident records swapped
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "dbg_log.h"
#include "osal.h"
#include "service_runner.h"

namespace {

namespace proto = ai_service_protocol;
constexpr size_t kRecord = sizeof(telvo_ai_service::TelvoAiPQPredict);

class BrokenService : public ai_service::ServiceRunner {
public:
    BrokenService(std::string fault) : ServiceRunner(ai_service::Options()), m_fault(std::move(fault)) {}

protected:
    void answer(const char* message, size_t length, uint8_t* payload, int32_t* state) override {
        const std::string command = ai_service::CommandHandler::commandOf(message, length);
        if (m_fault == "silent-aitype" && command == proto::kCmdSetAiType) {
            return;
        }
        if (m_fault == "dies-on-unknown" && command.rfind("ai_service_conformance", 0) == 0) {
            _exit(3);
        }
        if (command != proto::kCmdPredict) {
            ServiceRunner::answer(message, length, payload, state);
            return;
        }
        std::vector<uint8_t> result(payload, payload + proto::kPayloadSize);
        const int32_t done = handler().handle(message, length, result.data());
        uint8_t* records = result.data() + proto::kPredictRecordsOffset;
        if (m_fault == "record-offset") {
            std::memmove(records + 4, records, proto::kPredictRecordCount * kRecord);
        } else if (m_fault == "unordered") {
            std::swap_ranges(records, records + kRecord, records + kRecord);
        } else if (m_fault == "late-results") {
            __atomic_store_n(state, done, __ATOMIC_RELEASE);
            usleep(100000);
            std::memcpy(payload, result.data(), proto::kPredictResultSize);
            return;
        }
        std::memcpy(payload, result.data(), proto::kPredictResultSize);
        __atomic_store_n(state, done, __ATOMIC_RELEASE);
    }

private:
    std::string m_fault;
};

}  // namespace

int main(int argc, char** argv) {
    osalInitOnce();
    signal(SIGTERM, SIG_DFL);  // the platform's exit request would not reach the service's loop
    dbgInit();
    BrokenService service(argc > 1 ? argv[1] : "");
    return service.run();
}
