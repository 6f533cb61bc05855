#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include <vesk/duvo/ps/dataEntity.hpp>
#include <vesk/duvo/ps/dataEvent.hpp>

namespace vesk::duvo::ps {

/// A registered subscription; close() ends it.
class Subscription {
public:
    /// Destroys the subscription.
    virtual ~Subscription();
    /// Ends it (for a Subscription) or releases the entity; later calls throw.
    virtual void close() = 0;
};

/// Receives samples of T into a queue.
template <class T>
class Subscriber {
public:
    /// Called with each data event that matches a subscription's filter.
    using EventCallback = std::function<void(Subscriber<T>&, const DataEvent<T>&)>;
    /// Called when matching events are queued; the callback reads them.
    using NotifyCallback = std::function<void(Subscriber<T>&)>;

    /// Destroys the subscriber.
    virtual ~Subscriber() = default;
    /// Takes up to maxCount samples (0: all) from the queue, oldest first.
    virtual std::vector<std::shared_ptr<T>> read(unsigned long maxCount) = 0;
    /// Takes the queued samples of the instance that the sample's key fields name.
    virtual std::vector<std::shared_ptr<T>> readInstance(const T& instance) = 0;
    /// Copies a queued sample of the instance into out; false when there is none.
    virtual bool readInstance(const T& instance, T& out) = 0;
    /// Takes up to maxCount events that match the filter, waiting up to timeout for them.
    virtual void readDataEvents(const DataEventFilter<T>& filter, std::vector<std::shared_ptr<DataEvent<T>>>& events,
                                unsigned long maxCount, const std::chrono::milliseconds& timeout) = 0;
    /// Dispatches up to maxCount events to the synchronous subscriptions; returns how many.
    virtual unsigned long poll(unsigned long maxCount, const std::chrono::milliseconds& timeout) = 0;
    /// Registers a callback that poll() calls with the matching events, on the polling thread.
    virtual std::unique_ptr<Subscription> subscribe(const DataEventFilter<T>& filter, EventCallback callback) = 0;
    /// Registers a callback called with each matching event on the middleware's thread.
    virtual std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, EventCallback callback) = 0;
    /// Registers a callback told on the middleware's thread that matching events are queued.
    virtual std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, NotifyCallback callback) = 0;
    /// Lends the oldest queued sample, or null when there is none.
    virtual std::unique_ptr<LoanedDataEntity<T>> loanedRead() = 0;
    /// Lends the oldest queued sample of the instance, or null.
    virtual std::unique_ptr<LoanedDataEntity<T>> loanedReadInstance(const T& instance) = 0;
    /// A new sample of T, for instance filters and readInstance.
    virtual std::shared_ptr<T> createDataEntity() = 0;
    /// Ends it (for a Subscription) or releases the entity; later calls throw.
    virtual void close() = 0;
};

/// Keeps only the newest sample of each instance.
template <class T>
class MrvSubscriber {
public:
    /// Destroys the subscriber.
    virtual ~MrvSubscriber() = default;
    /// The newest sample of each instance, waiting up to timeout for a first one.
    virtual std::vector<std::shared_ptr<T>> readMostRecent(const std::chrono::milliseconds& timeout) = 0;
    /// Ends it (for a Subscription) or releases the entity; later calls throw.
    virtual void close() = 0;
};

} // namespace vesk::duvo::ps
