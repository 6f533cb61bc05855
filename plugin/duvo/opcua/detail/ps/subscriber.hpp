#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <duvo/opcua/detail/ps/subscriberEntity.hpp>
#include <duvo/ps/queue/queuedSubscriber.hpp>
#include <vesk/duvo/ps/subscriber.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// Receives samples of T from the nodes of its URI into a queue.
template <class T, class ST>
class OpcUaSubscriber
    : public OpcUaSubscriberEntity<T, ST, vesk::duvo::ps::queue::QueuedSubscriber<T, ST>, QueuedStoreSink> {
    using Entity = OpcUaSubscriberEntity<T, ST, vesk::duvo::ps::queue::QueuedSubscriber<T, ST>, QueuedStoreSink>;

public:
    OpcUaSubscriber(const std::string& uri, const std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>& qos,
                    const vesk::duvo::Duvo::Properties& properties, const std::shared_ptr<OpcUaDuvo>& duvo)
        : Entity("Subscriber", uri, qos, properties, duvo, qos) {}
};

/// The subscriber the middleware holds.
template <class T, class ST>
class OpcUaSubscriberDelegator : public vesk::duvo::ps::Subscriber<T> {
    using Filter = vesk::duvo::ps::DataEventFilter<T>;
    using Callback = typename vesk::duvo::ps::Subscriber<T>::EventCallback;
    using Notify = typename vesk::duvo::ps::Subscriber<T>::NotifyCallback;

public:
    OpcUaSubscriberDelegator() = default;
    explicit OpcUaSubscriberDelegator(std::shared_ptr<OpcUaSubscriber<T, ST>> e) : entity_(std::move(e)) {}
    void setEntity(std::shared_ptr<OpcUaSubscriber<T, ST>> e) noexcept { entity_ = std::move(e); }
    const std::shared_ptr<OpcUaSubscriber<T, ST>>& getEntity() const noexcept { return entity_; }

    std::vector<std::shared_ptr<T>> read(unsigned long maxCount) override { return entity_->read(maxCount); }
    std::vector<std::shared_ptr<T>> readInstance(const T& instance) override { return entity_->readInstance(instance); }
    bool readInstance(const T& instance, T& out) override { return entity_->readInstance(instance, out); }
    void readDataEvents(const Filter& filter, std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<T>>>& events,
                        unsigned long maxCount, const std::chrono::milliseconds& timeout) override {
        entity_->readDataEvents(filter, events, maxCount, timeout);
    }
    unsigned long poll(unsigned long maxCount, const std::chrono::milliseconds& timeout) override {
        return entity_->poll(maxCount, timeout);
    }
    std::unique_ptr<vesk::duvo::ps::Subscription> subscribe(const Filter& filter, Callback callback) override {
        return entity_->subscribe(filter, std::move(callback));
    }
    std::unique_ptr<vesk::duvo::ps::Subscription> subscribeAsync(const Filter& filter, Callback callback) override {
        return entity_->subscribeAsync(filter, std::move(callback));
    }
    std::unique_ptr<vesk::duvo::ps::Subscription> subscribeAsync(const Filter& filter, Notify callback) override {
        return entity_->subscribeAsync(filter, std::move(callback));
    }
    std::unique_ptr<vesk::duvo::ps::LoanedDataEntity<T>> loanedRead() override { return entity_->loanedRead(); }
    std::unique_ptr<vesk::duvo::ps::LoanedDataEntity<T>> loanedReadInstance(const T& instance) override {
        return entity_->loanedReadInstance(instance);
    }
    std::shared_ptr<T> createDataEntity() override { return entity_->createDataEntity(); }
    void close() override { entity_->close(); }

private:
    std::shared_ptr<OpcUaSubscriber<T, ST>> entity_;
};

} // namespace vesk::duvo::opcua::detail::ps
