#include <time.h>
#include <unistd.h>

#include <memory>

#include "ai_recognition.h"
#include "aipq_log.h"
#include "frame_process.h"
#include "mem_monitor.h"
#include "osal.h"
#include "picture_capture.h"
#include "process_entry.h"
#include "recognition_process_manager.h"
#include "system_info_manager.h"
#include "system_setting_manager.h"
#include "system_state_manager.h"

int main() {
    osalInitOnce();
    dbgInit();
    setPorcessPriority();
    initBizAccessEnv();
    AM_ENTER();

    // A second floor after the readiness wait: the controller never starts in the first 30 s.
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    AM_LOGD("CLOCK_MONOTONIC time: %d.\n", static_cast<int>(ts.tv_sec));
    unsigned int floorWait = uptimeFloorWaitSeconds(static_cast<long>(ts.tv_sec));
    if (floorWait > 0) {
        AM_LOGD("TV is not ready, need waiting...\n");
        osalWaitExitRequest(floorWait * 1000u);
    }
    if (osalWaitExitRequest(0)) {
        _exit(0);  // nothing built yet, nothing to tear down
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
        // Before the end is logged: from that line on no worker starts.
        aiRecognition.beginShutdown();
        AM_LOGD("Process Run End.\n");
    } else {
        AM_LOGD("AIPQ is not supported on current TV.\n");
        aiRecognition.beginShutdown();
    }

    // More than a detach: a worker or a platform callback left running would reach the collaborators
    // deleted below, so this also unsubscribes and then joins the worker; beginShutdown has made
    // both prompt.
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
