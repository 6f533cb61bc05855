#pragma once
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <duvo/opcua/detail/ps/subscriberEntity.hpp>
#include <duvo/ps/queue/mapMrvSubscriber.hpp>
#include <vesk/duvo/ps/subscriber.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// Keeps the newest sample of T from the nodes of its URI.
template <class T, class ST>
class OpcUaMrvSubscriber
    : public OpcUaSubscriberEntity<T, ST, vesk::duvo::ps::queue::MapMrvSubscriber<T, ST>, MrvStoreSink> {
    using Entity = OpcUaSubscriberEntity<T, ST, vesk::duvo::ps::queue::MapMrvSubscriber<T, ST>, MrvStoreSink>;

public:
    OpcUaMrvSubscriber(const std::string& uri, const std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>& qos,
                       const vesk::duvo::Duvo::Properties& properties, const std::shared_ptr<OpcUaDuvo>& duvo)
        : Entity("MrvSubscriber", uri, qos, properties, duvo) {}

    std::vector<std::shared_ptr<T>> readMostRecent(const std::chrono::milliseconds& timeout) override {
        try {
            return Entity::readMostRecent(timeout);
        } catch (const vesk::duvo::IllegalStateException& e) {
            // A state error is logged once, as the queued subscriber's are.
            LOG4CPLUS_ERROR(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber"), e.what());
            throw;
        }
    }
};

/// The most-recent-value subscriber the middleware holds.
template <class T, class ST>
class OpcUaMrvSubscriberDelegator : public vesk::duvo::ps::MrvSubscriber<T> {
public:
    OpcUaMrvSubscriberDelegator() = default;
    explicit OpcUaMrvSubscriberDelegator(std::shared_ptr<OpcUaMrvSubscriber<T, ST>> e) : entity_(std::move(e)) {}
    void setEntity(std::shared_ptr<OpcUaMrvSubscriber<T, ST>> e) noexcept { entity_ = std::move(e); }
    const std::shared_ptr<OpcUaMrvSubscriber<T, ST>>& getEntity() const noexcept { return entity_; }

    std::vector<std::shared_ptr<T>> readMostRecent(const std::chrono::milliseconds& timeout) override {
        return entity_->readMostRecent(timeout);
    }
    void close() override { entity_->close(); }

private:
    std::shared_ptr<OpcUaMrvSubscriber<T, ST>> entity_;
};

} // namespace vesk::duvo::opcua::detail::ps
