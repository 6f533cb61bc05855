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
    virtual ~Subscription();
    virtual void close() = 0;
};

/// Receives samples of T into a queue.
template <class T>
class Subscriber {
public:
    using EventCallback = std::function<void(Subscriber<T>&, const DataEvent<T>&)>;
    using NotifyCallback = std::function<void(Subscriber<T>&)>;

    virtual ~Subscriber() = default;
    /// Takes up to maxCount samples (0: all) from the queue, oldest first.
    virtual std::vector<std::shared_ptr<T>> read(unsigned long maxCount) = 0;
    virtual std::vector<std::shared_ptr<T>> readInstance(const T& instance) = 0;
    /// Copies a queued sample of the instance into out; false when there is none.
    virtual bool readInstance(const T& instance, T& out) = 0;
    /// Takes up to maxCount events that match the filter, waiting up to timeout for them.
    virtual void readDataEvents(const DataEventFilter<T>& filter, std::vector<std::shared_ptr<DataEvent<T>>>& events,
                                unsigned long maxCount, const std::chrono::milliseconds& timeout) = 0;
    /// Dispatches up to maxCount events to the synchronous subscriptions; returns how many.
    virtual unsigned long poll(unsigned long maxCount, const std::chrono::milliseconds& timeout) = 0;
    virtual std::unique_ptr<Subscription> subscribe(const DataEventFilter<T>& filter, EventCallback callback) = 0;
    virtual std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, EventCallback callback) = 0;
    virtual std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, NotifyCallback callback) = 0;
    virtual std::unique_ptr<LoanedDataEntity<T>> loanedRead() = 0;
    virtual std::unique_ptr<LoanedDataEntity<T>> loanedReadInstance(const T& instance) = 0;
    virtual std::shared_ptr<T> createDataEntity() = 0;
    virtual void close() = 0;
};

/// Keeps only the newest sample of each instance.
template <class T>
class MrvSubscriber {
public:
    virtual ~MrvSubscriber() = default;
    virtual std::vector<std::shared_ptr<T>> readMostRecent(const std::chrono::milliseconds& timeout) = 0;
    virtual void close() = 0;
};

} // namespace vesk::duvo::ps
