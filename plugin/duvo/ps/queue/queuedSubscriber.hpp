#pragma once
#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include <vesk/duvo/ps/qos.hpp>
#include <vesk/duvo/ps/subscriber.hpp>
#include <vesk/duvo/util.hpp>

#include <duvo/ps/queue/queuedSubscriberImpl.hpp>

namespace vesk::duvo::ps::queue {

/// The queued store behind every subscriber: the sources push samples with newData, the
/// application reads them through the Subscriber interface. A thin front: the rules live in
/// detail::QueuedSubscriberImpl, which it owns.
///
/// close() first, then destroy: a subscriber must not be destroyed while other threads are
/// still inside its calls; close() makes waiting readers return. Its own callbacks may close
/// or destroy it.
template <class T, class ST>
class QueuedSubscriber : public Subscriber<T> {
public:
    using Impl = detail::QueuedSubscriberImpl<T, ST>;
    using QoSList = typename Impl::QoSList;
    using EventCallback = typename Subscriber<T>::EventCallback;
    using NotifyCallback = typename Subscriber<T>::NotifyCallback;

    /// Latency and Deadline are taken from the QoS list (the last of each kind wins).
    explicit QueuedSubscriber(const QoSList& qos = {}, const detail::QueueCapacities& capacities = {})
        : impl_(std::make_shared<Impl>(static_cast<Subscriber<T>&>(*this), qos, capacities)) {}

    QueuedSubscriber(const QueuedSubscriber&) = delete;
    QueuedSubscriber& operator=(const QueuedSubscriber&) = delete;

    /// A sample from the source, received now. data may be empty; sourceTime: seconds since
    /// the Unix epoch; alive: 0 when the source was lost.
    void newData(std::unique_ptr<T> data, double sourceTime, long alive) {
        // A callback of this delivery may drop the front: the store stays until it ends.
        const std::shared_ptr<Impl> impl = impl_;
        impl->newData(std::move(data), sourceTime, alive, static_cast<long>(util::currentTimeMillis()));
    }

    std::vector<std::shared_ptr<T>> read(unsigned long maxCount) override { return impl_->read(maxCount); }
    std::vector<std::shared_ptr<T>> readInstance(const T& instance) override { return impl_->readInstance(instance); }
    bool readInstance(const T& instance, T& out) override { return impl_->readInstance(instance, out); }
    void readDataEvents(const DataEventFilter<T>& filter, std::vector<std::shared_ptr<DataEvent<T>>>& events,
                        unsigned long maxCount, const std::chrono::milliseconds& timeout) override {
        impl_->readDataEvents(filter, events, maxCount, timeout);
    }
    unsigned long poll(unsigned long maxCount, const std::chrono::milliseconds& timeout) override {
        return impl_->poll(maxCount, timeout);
    }
    std::unique_ptr<Subscription> subscribe(const DataEventFilter<T>& filter, EventCallback callback) override {
        return impl_->subscribe(filter, std::move(callback));
    }
    std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, EventCallback callback) override {
        return impl_->subscribeAsync(filter, std::move(callback));
    }
    std::unique_ptr<Subscription> subscribeAsync(const DataEventFilter<T>& filter, NotifyCallback callback) override {
        return impl_->subscribeAsync(filter, std::move(callback));
    }
    std::unique_ptr<LoanedDataEntity<T>> loanedRead() override { return impl_->loanedRead(); }
    std::unique_ptr<LoanedDataEntity<T>> loanedReadInstance(const T& instance) override {
        return impl_->loanedReadInstance(instance);
    }
    std::shared_ptr<T> createDataEntity() override { return impl_->createDataEntity(); }
    void close() override { impl_->close(); }
    /// Deliveries that wait for the store give up from now on (see DataLock).
    void stopDeliveries() noexcept { impl_->stopDeliveries(); }

    const std::shared_ptr<Impl>& getImpl() const noexcept { return impl_; }

protected:
    std::shared_ptr<Impl> impl_;
};

} // namespace vesk::duvo::ps::queue
