#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <utility>

namespace vesk::duvo::ps::queue {

template <class T, class ST>
class DataEventImpl;

/// Events in arrival order: the global queue and every instance queue are such lists.
template <class T, class ST>
using EventList = std::list<std::shared_ptr<DataEventImpl<T, ST>>>;

/// The events of one keyed instance, with its liveliness and expiry.
///
/// Everything but the alive count is touched only under the subscriber's data mutex. The alive
/// count is atomic because events report the instance's present state to application threads.
template <class T, class ST>
class InstanceQueue : public std::enable_shared_from_this<InstanceQueue<T, ST>> {
public:
    InstanceQueue(std::int32_t capacity, long aliveCount, std::unique_ptr<T> key)
        : capacity_(capacity), aliveCount_(aliveCount), key_(std::move(key)) {}

    InstanceQueue(const InstanceQueue&) = delete;
    InstanceQueue& operator=(const InstanceQueue&) = delete;

    EventList<T, ST>& events() noexcept { return events_; }
    const EventList<T, ST>& events() const noexcept { return events_; }
    std::size_t size() const noexcept { return events_.size(); }
    std::int32_t capacity() const noexcept { return capacity_; }

    /// The third argument of the last newData for this key (0: the source is lost).
    long aliveCount() const noexcept { return aliveCount_.load(std::memory_order_acquire); }
    void setAliveCount(long alive) noexcept { aliveCount_.store(alive, std::memory_order_release); }

    /// The instance's key fields, as cloneKey made them.
    const T& key() const noexcept { return *key_; }

    /// Source time of the last sample plus the instance expiry; 0 when not armed.
    std::int64_t expiryTimeMs() const noexcept { return expiryTimeMs_; }
    void setExpiryTimeMs(std::int64_t t) noexcept { expiryTimeMs_ = t; }

    const std::function<void()>& expiryAction() const noexcept { return expiryAction_; }
    void setExpiryAction(std::function<void()> action) { expiryAction_ = std::move(action); }

private:
    EventList<T, ST> events_;
    std::int32_t capacity_;
    std::atomic<long> aliveCount_;
    std::unique_ptr<T> key_;
    std::function<void()> expiryAction_;
    std::int64_t expiryTimeMs_ = 0;
};

} // namespace vesk::duvo::ps::queue
