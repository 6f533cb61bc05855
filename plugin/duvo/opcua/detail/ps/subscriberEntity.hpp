#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <duvo/opcua/detail/ps/basePubSub.hpp>
#include <duvo/opcua/detail/ps/dataMonitor.hpp>
#include <duvo/opcua/detail/ps/dataPoller.hpp>
#include <vesk/duvo/opcua/properties.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// What the queued and the most-recent-value subscriber entities share: the store (Core),
/// the URI part, and the choice between monitoring and polling made from the properties.
template <class T, class ST, class Core, class Sink>
class OpcUaSubscriberEntity : public Core, public OpcUaBasePubSub<T, ST> {
    using Base = OpcUaBasePubSub<T, ST>;

public:
    using Monitor = BasicDataMonitor<ST, Sink>;
    using Poller = BasicDataPoller<ST, Sink>;

    void close() override {
        this->checkState();
        // Only the caller that moves the state to closed shuts down: two closes racing would
        // otherwise both destroy the monitor and the poller. The other one is refused.
        EntityState expected = EntityState::Initialized;
        if (!this->state.compare_exchange_strong(expected, EntityState::Closed, std::memory_order_acq_rel))
            this->checkState();
        shutDown();
    }

    ~OpcUaSubscriberEntity() override {
        if (this->getState() != EntityState::Closed) {
            shuttingDown = true;
            shutDown();
        }
        // A close() made from the application's callback returned before the delivery that
        // called it left the store.
        gate->drain();
    }

    bool hasMonitor() const noexcept { return monitor.has_value(); }
    bool hasPoller() const noexcept { return poller.has_value(); }
    const Poller* getPoller() const noexcept { return poller ? &*poller : nullptr; }

protected:
    /// coreArguments build the store; the rest is the base entity's.
    template <class... CoreArguments>
    OpcUaSubscriberEntity(const char* kind, const std::string& uri, const typename Base::QoSList& qos,
                          const typename Base::Properties& properties, const std::shared_ptr<OpcUaDuvo>& duvo,
                          CoreArguments&&... coreArguments)
        : Core(std::forward<CoreArguments>(coreArguments)...),
          Base(uri, qos, properties, duvo),
          logger(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")) {
        const bool usePoll = getDuvoProperty<bool>(properties, "opc.ps.usePollSubscriber", false);
        const int periodMs = getDuvoProperty<int>(properties, "opc.ps.pollingPeriodMs", 1000);
        const Sink sink{this, gate};
        if (usePoll) {
            poller.emplace(sink, this->client, this->nodeIds, periodMs);
        } else {
            // A type spread over several nodes is never assembled from single notifications:
            // each one triggers a consistent read of all nodes.
            if (this->nodeIds.size() > 1) poller.emplace(sink, this->client, this->nodeIds, 0);
            // A node the server refuses fails the construction, within the submit timeout.
            const int verdictMs = getDuvoProperty<int>(properties, "opc.asyncCallSubmitTimeoutMs", 1000);
            monitor.emplace(sink, this->client, this->nodeIds, static_cast<double>(periodMs),
                            poller ? &*poller : nullptr, std::chrono::milliseconds(verdictMs));
        }
        LOG4CPLUS_TRACE(logger, kind << " for " << uri << " created");
    }

private:
    void shutDown() {
        this->setState(EntityState::Closed);
        // A delivery waiting for the store then gives up, so the monitor and the poller need
        // not wait for it: the closing thread may hold the store's lock.
        Core::stopDeliveries();
        monitor.reset();
        poller.reset();
        Core::close();
    }

    log4cplus::Logger logger;
    std::atomic<bool> shuttingDown{false};
    // Outlives the monitor and the poller, which deliver through it.
    const std::shared_ptr<DeliveryGate> gate = std::make_shared<DeliveryGate>();
    std::optional<Monitor> monitor;
    std::optional<Poller> poller;
};

} // namespace vesk::duvo::opcua::detail::ps
