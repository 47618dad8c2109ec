#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "ai_recognition.h"
#include "aipq_log.h"
#include "frame_process.h"
#include "mem_monitor.h"
#include "osal.h"
#include "picture_capture.h"
#include "recognition_process_manager.h"
#include "system_info_manager.h"
#include "system_setting_manager.h"
#include "system_state_manager.h"

namespace {
const char* const KorFactory = "KorFactory";
const char* const kBizReadyFile = "/var/run/BIZREADY2";
}  // namespace

void setPorcessPriority() {
    int ret = nice(19);
    AM_LOGD("set process priority: %d.\n", ret);
}

int wait_for_bizready() {
    AM_ENTER();
    // No time-out on purpose: nothing works before the business layer is up.
    for (;;) {
        for (int i = 0; i < 50; ++i) {
            if (access(kBizReadyFile, F_OK) == 0) {
                return 0;
            }
            osalUsleep(100000);
        }
        AM_LOGN("waiting 5s for service ready! ... \n\n");
    }
}

void initBizAccessEnv() {
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

int main() {
    (void)KorFactory;
    osalInitOnce();
    dbgInit();
    setPorcessPriority();
    initBizAccessEnv();
    AM_ENTER();

    // A second floor after the readiness wait: the controller never starts in the first 30 s.
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    AM_LOGD("CLOCK_MONOTONIC time: %d.\n", static_cast<int>(ts.tv_sec));
    if (ts.tv_sec < 30) {
        AM_LOGD("TV is not ready, need waiting...\n");
        osalSleep(static_cast<unsigned int>(30 - ts.tv_sec));
    }

    PictureCapture* pictureCapture = new PictureCapture();
    MemoryMonitor* memoryMonitor = new MemoryMonitor();
    SystemInfoManager* systemInfoManager = new SystemInfoManager(std::shared_ptr<SystemInfoInterface>());
    SystemSettingManager* systemSettingManager =
        new SystemSettingManager(std::shared_ptr<SystemSettingInterface>());
    SystemStateManager* systemStateManager = new SystemStateManager();
    RecognitionProcessManager* recognitionProcessManager = new RecognitionProcessManager();

    // Never destroyed: the process ends with _exit below.
    AIRecognition aiRecognition;
    aiRecognition.init(pictureCapture, memoryMonitor, systemInfoManager, systemSettingManager,
                       recognitionProcessManager, systemStateManager);

    if (aiRecognition.handleAIPQSupported()) {
        AM_LOGD("Process Run Start.\n");
        {
            frame::Process process = frame::Process::getInstance();
            process.run();
        }
        AM_LOGD("Process Run End.\n");
    } else {
        AM_LOGD("AIPQ is not supported on current TV.\n");
    }

    aiRecognition.init(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    delete pictureCapture;
    delete memoryMonitor;
    delete systemInfoManager;
    delete systemSettingManager;
    delete recognitionProcessManager;
    delete systemStateManager;
    osalSleep(1);
    _exit(0);
}
