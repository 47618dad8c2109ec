#ifndef PLATFORM_ADAPTATION_HOST_TV_STATE_WATCHER_H
#define PLATFORM_ADAPTATION_HOST_TV_STATE_WATCHER_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Internal to the host clients of the TV-state directory.
namespace host {

// Reads one key of the TV state: a missing file is 0; anything else that holds no integer is 0 as
// well, and says so in the log, once until the key reads otherwise.
int readTvState(const std::string& key);

// Watches the TV-state directory with inotify on a thread of its own and hands each completed
// write of one of `keys` (close after writing, or a rename into the directory) to the handler with
// the value read. Hidden files are writers' temporaries and are skipped; after a queue overflow
// every key is handed over once. The directory may be deleted and made again, or swapped under a
// symlink: the new one is watched (within a second while it is missing), and every key whose value
// differs from the one last handed over is handed over. The destructor stops and joins the thread.
class TvStateWatcher {
public:
    using Handler = std::function<void(const std::string& key, int value)>;

    // `name` is only for the log.
    TvStateWatcher(std::string name, std::vector<std::string> keys, Handler handler);
    ~TvStateWatcher();
    TvStateWatcher(const TvStateWatcher&) = delete;
    TvStateWatcher& operator=(const TvStateWatcher&) = delete;

private:
    void run();
    // True when the directory must be looked up again.
    bool dispatch(const char* buffer, size_t length);
    // Watches what the path names now; true when that is another directory than before.
    bool watchDirectory();
    void handOver(size_t index, bool onlyWhenChanged);

    std::string m_name;
    std::vector<std::string> m_keys;
    std::vector<int> m_values;  // as last handed over, by the index of the key
    Handler m_handler;
    int m_inotifyFd;
    int m_stopFd;
    int m_dirWatch = -1;   // -1 while the directory is missing
    int m_linkWatch = -1;  // on the path itself while that is a symlink
    bool m_lost = false;   // said once in the log while the directory cannot be watched
    std::thread m_thread;
};

// One platform callback with its user data, called on the watcher thread and replaced on any other.
// Once set() returns, the callback it replaced is not running and will not run again; set() from
// inside a callback (on the watcher thread) does not wait for itself.
template <typename Callback>
class CallbackSlot {
public:
    void set(Callback callback, void* userData) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_callback = callback;
        m_userData = callback != nullptr ? userData : nullptr;
        m_idle.wait(lock, [this] { return m_calls == 0 || m_caller == std::this_thread::get_id(); });
    }

    template <typename... Args>
    void invoke(Args... args) {
        Callback callback;
        void* userData;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_callback == nullptr) {
                return;
            }
            callback = m_callback;
            userData = m_userData;
            ++m_calls;
            m_caller = std::this_thread::get_id();
        }
        callback(args..., userData);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            --m_calls;
        }
        m_idle.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_idle;
    Callback m_callback = nullptr;
    void* m_userData = nullptr;
    int m_calls = 0;
    std::thread::id m_caller;
};

}  // namespace host

#endif
