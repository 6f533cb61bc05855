#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <utility>

#include <duvo/ps/queue/sampleOps.hpp>

namespace vesk::duvo::ps::queue::detail {

class EventCore;

/// Events in arrival order: the global queue and every instance queue are such lists.
using EventList = std::list<std::shared_ptr<EventCore>>;

/// The events of one keyed instance, with its liveliness and expiry.
///
/// Everything but the alive count is touched only under the subscriber's data mutex. The alive
/// count is atomic because events report the instance's present state to application threads.
class InstanceQueue : public std::enable_shared_from_this<InstanceQueue> {
public:
    InstanceQueue(std::int32_t capacity, long aliveCount, OwnedSample key)
        : capacity_(capacity), aliveCount_(aliveCount), key_(std::move(key)) {}

    InstanceQueue(const InstanceQueue&) = delete;
    InstanceQueue& operator=(const InstanceQueue&) = delete;

    EventList& events() noexcept { return events_; }
    const EventList& events() const noexcept { return events_; }
    std::size_t size() const noexcept { return events_.size(); }
    std::int32_t capacity() const noexcept { return capacity_; }

    /// The third argument of the last newData for this key (0: the source is lost).
    long aliveCount() const noexcept { return aliveCount_.load(std::memory_order_acquire); }
    void setAliveCount(long alive) noexcept { aliveCount_.store(alive, std::memory_order_release); }

    /// The instance's key fields, as cloneKey made them.
    const void* key() const noexcept { return key_.get(); }

    /// Source time of the last sample plus the instance expiry; 0 when not armed.
    std::int64_t expiryTimeMs() const noexcept { return expiryTimeMs_; }
    void setExpiryTimeMs(std::int64_t t) noexcept { expiryTimeMs_ = t; }

    const std::function<void()>& expiryAction() const noexcept { return expiryAction_; }
    void setExpiryAction(std::function<void()> action) { expiryAction_ = std::move(action); }

private:
    EventList events_;
    std::int32_t capacity_;
    std::atomic<long> aliveCount_;
    OwnedSample key_;
    std::function<void()> expiryAction_;
    std::int64_t expiryTimeMs_ = 0;
};

} // namespace vesk::duvo::ps::queue::detail
