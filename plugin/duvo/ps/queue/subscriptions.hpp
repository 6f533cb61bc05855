#pragma once
#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include <vesk/duvo/ps/subscriber.hpp>

namespace vesk::duvo::ps::queue {

namespace detail {
class QueuedSubscriberCore;
}

/// Handle of a subscription made by subscribe; its callbacks run inside poll.
///
/// The handle holds the subscriber weakly: closing it after the subscriber is gone is harmless.
/// Dropping the handle without close() leaves the subscription in place until the subscriber
/// is destroyed, so that a caller may ignore the handle.
class SyncQueuedSubscription final : public Subscription {
public:
    SyncQueuedSubscription(std::string key, std::weak_ptr<detail::QueuedSubscriberCore> subscriber)
        : key_(std::move(key)), subscriber_(std::move(subscriber)) {}

    void close() override;

private:
    const std::string key_;
    const std::weak_ptr<detail::QueuedSubscriberCore> subscriber_;
    std::atomic<bool> closed_{false};
};

/// Handle of a subscription made by subscribeAsync. Once close() returns, its callback is
/// neither running nor called again (close() must not be called from that callback).
class AsyncQueuedSubscription final : public Subscription {
public:
    AsyncQueuedSubscription(std::string key, std::weak_ptr<detail::QueuedSubscriberCore> subscriber)
        : key_(std::move(key)), subscriber_(std::move(subscriber)) {}

    void close() override;

private:
    const std::string key_;
    const std::weak_ptr<detail::QueuedSubscriberCore> subscriber_;
    std::atomic<bool> closed_{false};
};

} // namespace vesk::duvo::ps::queue
