#pragma once
#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include <vesk/duvo/ps/subscriber.hpp>

namespace vesk::duvo::ps::queue {

namespace detail {
template <class T, class ST>
class QueuedSubscriberImpl;
}

/// Handle of a subscription made by subscribe; its callbacks run inside poll.
///
/// The handle holds the subscriber weakly: closing it after the subscriber is gone is harmless.
/// Dropping the handle without close() leaves the subscription in place until the subscriber
/// is destroyed, so that a caller may ignore the handle.
template <class T, class ST>
class SyncQueuedSubscription final : public Subscription {
public:
    SyncQueuedSubscription(std::string key, std::weak_ptr<detail::QueuedSubscriberImpl<T, ST>> subscriber)
        : key_(std::move(key)), subscriber_(std::move(subscriber)) {}

    void close() override {
        if (closed_.load()) return;
        if (auto subscriber = subscriber_.lock()) subscriber->removeSyncSubscription(key_);
        closed_.store(true);
    }

private:
    const std::string key_;
    const std::weak_ptr<detail::QueuedSubscriberImpl<T, ST>> subscriber_;
    std::atomic<bool> closed_{false};
};

/// Handle of a subscription made by subscribeAsync. Once close() returns, its callback is
/// neither running nor called again (close() must not be called from that callback).
template <class T, class ST>
class AsyncQueuedSubscription final : public Subscription {
public:
    AsyncQueuedSubscription(std::string key, std::weak_ptr<detail::QueuedSubscriberImpl<T, ST>> subscriber)
        : key_(std::move(key)), subscriber_(std::move(subscriber)) {}

    void close() override {
        if (closed_.load()) return;
        if (auto subscriber = subscriber_.lock()) subscriber->removeAsyncSubscription(key_);
        closed_.store(true);
    }

private:
    const std::string key_;
    const std::weak_ptr<detail::QueuedSubscriberImpl<T, ST>> subscriber_;
    std::atomic<bool> closed_{false};
};

} // namespace vesk::duvo::ps::queue
