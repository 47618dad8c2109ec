#ifndef AI_MANAGER_RECOGNITION_PROCESS_MANAGER_H
#define AI_MANAGER_RECOGNITION_PROCESS_MANAGER_H

#include <mqueue.h>
#include <pthread.h>

#include <atomic>

#include "osal.h"
#include "recognition_manager_base.h"
#include "unique_lock.h"

// Client of the AI service process over the shared segment and the message queue.
// Lock order: environment mutex, then request mutex, then send mutex.
class RecognitionProcessManager : public RecognitionManagerBase {
public:
    RecognitionProcessManager();
    ~RecognitionProcessManager() override;

    int loadModel() override;
    int recognitionPicture(korvane::ai::PictureData* picture, telvo_ai_service::AiPQPredictLabel& current,
                           telvo_ai_service::AiPQPredictLabel& previous,
                           std::vector<telvo_ai_service::TelvoAiPQPredict>* predictions) override;
    int releaseModel() override;
    int isValidPicture(korvane::ai::PictureData* picture) override;
    int stopAiService() override;
    int loadAiServiceEnv() override;

    int initAiService();
    void getModelConfig(void* out);
    void setModelConfig(void* in, int size);
    void setAiType(void* in, int size);

    void start();
    void stop();
    bool initShareMemory();
    void triggerMessage(char* message);
    int handleMessage(bool withData, char* message, void* data, int size);
    int waitMessageFinished(void* out);
    int waitStopAiServiceFinished();
    void handleSendMessageQueue();
    // True once the send thread is parked in its wait, ready for the next command; gives up after
    // `seconds` of real time. triggerMessage waits so; tests may too.
    bool awaitSendThread(int seconds);

private:
    bool awaitSendThreadLocked(int seconds);
    void markSendThreadEnded();
    // The queue the name stands for, made anew when it is missing or of another shape; -1 when
    // there is none to be had. Send thread only.
    mqd_t openMessageQueue();
    // Moves `queue` to the one the name stands for now, when it was removed or replaced.
    void followMessageQueue(mqd_t& queue);
    // Under the request mutex: moves to the segment the key names now, when it was removed or
    // replaced, so that the capture, the service and the requests meet in one segment.
    void followShareMemory();
    // Sleeps in poll steps; false as soon as requests are abandoned or the process is to end.
    bool waitUnlessAbandoned(int milliseconds);

    unsigned char* m_pShareMemory;
    int m_shareMemoryId;
    bool m_shareMemoryFailureLogged;
    char m_sendMessage[ai_service_protocol::kMessageSize];
    std::atomic<bool> m_loopSendMessageQueue;
    OsalThread m_sendThread;
    pthread_mutex_t m_sendMutex;
    pthread_cond_t m_sendCond;
    Mutex m_requestMutex;
    Mutex m_envMutex;
    std::atomic<bool> m_messageQueueOpened;
    // Guarded by m_sendMutex: the send thread is parked on m_sendCond and nobody has signalled it
    // yet, or it has ended. triggerMessage waits on m_sendReadyCond for the former, so that a
    // command is not lost while the thread is still busy with the one before.
    bool m_sendThreadWaiting;
    bool m_sendThreadEnded;
    pthread_cond_t m_sendReadyCond;
};

void* threadSendMessageQueueForAiService(void* manager);

#endif
