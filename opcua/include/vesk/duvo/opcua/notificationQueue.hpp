#pragma once
// A registry of callbacks that the client calls, with handles that unregister on destruction.
#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace vesk::duvo::opcua::detail {

/// Registrations of Callback (a std::function, or a record holding one). The owner calls them
/// through invoke(); a registration ends when its Handle is destroyed.
///
/// Guarantee: once a Handle's destructor has returned, its callback does not start again and
/// is not running, unless the destructor runs inside that very callback (then it returns at
/// once and the callback finishes normally). The destructor therefore waits for a callback
/// running on another thread: the caller must not hold a lock that the callback takes.
template <class Callback>
class NotificationQueue {
public:
    struct Entry {
        explicit Entry(Callback c) : callback(std::move(c)) {}
        Callback callback;
        std::atomic<bool> removed{false};
        std::mutex callMutex;                  // held while the callback runs
        std::atomic<std::thread::id> caller{}; // the thread running the callback
    };

private:
    struct Shared {
        std::mutex mutex;
        bool registrationsRemoved = false;
        std::vector<std::shared_ptr<Entry>> entries;
        std::function<void()> onRemoved;
    };

public:
    /// A registration. Move-only; an empty (moved-from) handle does nothing. The handle may
    /// outlive the queue: it only points weakly at it.
    class Handle {
    public:
        Handle() = default;
        Handle(Handle&& other) noexcept : entry_(std::move(other.entry_)), queue_(std::move(other.queue_)) {}
        Handle& operator=(Handle&& other) noexcept {
            if (this != &other) {
                release();
                entry_ = std::move(other.entry_);
                queue_ = std::move(other.queue_);
            }
            return *this;
        }
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        ~Handle() { release(); }

        /// Unregisters now (what the destructor does); the handle is empty afterwards.
        void release() {
            if (!entry_) return;
            const auto queue = queue_.lock();
            if (queue) {
                std::lock_guard<std::mutex> lock(queue->mutex);
                queue->registrationsRemoved = true;
            }
            entry_->removed.store(true);
            // Inside the callback itself: it finishes on its own, waiting would deadlock.
            if (entry_->caller.load() != std::this_thread::get_id())
                std::lock_guard<std::mutex> wait(entry_->callMutex);
            entry_.reset();
            queue_.reset();
            if (queue && queue->onRemoved) queue->onRemoved();
        }

        bool empty() const { return !entry_; }
        const std::shared_ptr<Entry>& entry() const { return entry_; }

    private:
        friend class NotificationQueue;
        Handle(std::shared_ptr<Entry> entry, std::weak_ptr<Shared> queue)
            : entry_(std::move(entry)), queue_(std::move(queue)) {}

        std::shared_ptr<Entry> entry_;
        std::weak_ptr<Shared> queue_;
    };

    /// onRemoved runs after each unregistration, outside every lock of the queue.
    explicit NotificationQueue(std::function<void()> onRemoved = {}) : shared_(std::make_shared<Shared>()) {
        shared_->onRemoved = std::move(onRemoved);
    }
    NotificationQueue(const NotificationQueue&) = delete;
    NotificationQueue& operator=(const NotificationQueue&) = delete;

    /// Replaces onRemoved; only before the first add().
    void setOnRemoved(std::function<void()> onRemoved) { shared_->onRemoved = std::move(onRemoved); }

    Handle add(Callback callback) {
        auto entry = std::make_shared<Entry>(std::move(callback));
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->entries.push_back(entry);
        return Handle(std::move(entry), shared_);
    }

    /// The registrations still in place, oldest first.
    std::vector<std::shared_ptr<Entry>> entries() {
        std::vector<std::shared_ptr<Entry>> ended; // released after the lock: a capture may end a registration
        std::lock_guard<std::mutex> lock(shared_->mutex);
        if (shared_->registrationsRemoved) ended = dropRemoved();
        return shared_->entries;
    }

    /// Drops the ended registrations from the queue and returns them.
    std::vector<std::shared_ptr<Entry>> purgeRemoved() {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        return dropRemoved();
    }

    /// Runs f(callback) unless the registration has ended; returns whether it ran. The caller
    /// keeps the entry alive (a shared pointer) meanwhile.
    template <class F>
    static bool invoke(Entry& entry, F&& f) {
        if (entry.removed.load()) return false;
        std::lock_guard<std::mutex> lock(entry.callMutex);
        if (entry.removed.load()) return false;
        struct Caller {
            Entry& entry;
            explicit Caller(Entry& e) : entry(e) { entry.caller.store(std::this_thread::get_id()); }
            ~Caller() { entry.caller.store(std::thread::id()); }
        } caller(entry);
        std::forward<F>(f)(entry.callback);
        return true;
    }

private:
    std::vector<std::shared_ptr<Entry>> dropRemoved() {
        std::vector<std::shared_ptr<Entry>> removed;
        auto& entries = shared_->entries;
        const auto end =
            std::stable_partition(entries.begin(), entries.end(), [](const auto& e) { return !e->removed.load(); });
        removed.assign(std::make_move_iterator(end), std::make_move_iterator(entries.end()));
        entries.erase(end, entries.end());
        shared_->registrationsRemoved = false;
        return removed;
    }

    std::shared_ptr<Shared> shared_;
};

} // namespace vesk::duvo::opcua::detail
