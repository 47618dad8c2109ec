#include "process_entry.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>

#include "aipq_log.h"
#include "frame_process.h"
#include "osal.h"

namespace {
const char* const KorFactory = "KorFactory";
const char* const kBizReadyFile = "/var/run/BIZREADY2";
}  // namespace

void setPorcessPriority() {
    (void)KorFactory;
    int ret = nice(19);
    AM_LOGD("set process priority: %d.\n", ret);
}

int wait_for_bizready() {
    AM_ENTER();
    // No time-out on purpose: nothing works before the business layer is up. Only an exit request
    // ends the wait otherwise; the caller sees it.
    for (;;) {
        for (int i = 0; i < 50; ++i) {
            if (access(kBizReadyFile, F_OK) == 0 || osalWaitExitRequest(100)) {
                return 0;
            }
        }
        AM_LOGN("waiting 5s for service ready! ... \n\n");
    }
}

void initBizAccessEnv() {
    // An operator-supplied value wins.
    if (setenv("LMQR2_UDPHOST", "127.0.0.1:12321", 0) != 0) {
        AM_LOGE("setEnv error.%d\n", errno);
    }
    wait_for_bizready();
    {
        frame::Process process = frame::Process::getInstance();
        process.startAppMembersSync(CreateBizProxy);
    }
    {
        frame::Process process = frame::Process::getInstance();
        process.startAppMembersSync(CreateAppManagerProxy);
    }
}

unsigned int uptimeFloorWaitSeconds(long monotonicSeconds) {
    return monotonicSeconds < 30 ? static_cast<unsigned int>(30 - monotonicSeconds) : 0u;
}
