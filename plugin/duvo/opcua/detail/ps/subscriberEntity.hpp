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

namespace vesk::duvo::opcua::detail::ps {

/// The sources of a subscriber entity, whatever its sample type: a monitor, a poller, or a
/// monitor that triggers the poller, chosen from the properties.
struct SubscriberSources {
    using NodeId = DataMonitorCore::NodeId;

    /// Starts them; sink delivers into the store and outlives them.
    void start(const DeliverySink& sink, const std::shared_ptr<OpcUaClient>& client, const std::vector<NodeId>& nodeIds,
               const std::map<std::string, std::string>& properties);
    /// Stops them: once this returns no handler of theirs runs, but on the calling thread.
    void stop() noexcept;

    std::optional<DataMonitorCore> monitor;
    // Apart: most subscribers monitor, and a poller is the bigger of the two.
    std::unique_ptr<DataPollerCore> poller;
};

/// The store's untyped face, as its sink takes it.
template <class T, class ST>
vesk::duvo::ps::queue::detail::QueuedSubscriberCore* storeOf(vesk::duvo::ps::queue::QueuedSubscriber<T, ST>& store) {
    return store.getImpl().get();
}
template <class T, class ST>
vesk::duvo::ps::queue::detail::MapMrvCore* storeOf(vesk::duvo::ps::queue::MapMrvSubscriber<T, ST>& store) {
    return &store.getCore();
}

/// What the queued and the most-recent-value subscriber entities share: the store (Core),
/// the URI part, and the choice between monitoring and polling made from the properties.
/// StoreSink is the store's untyped delivery.
template <class T, class ST, class Core, class StoreSink>
class OpcUaSubscriberEntity : public Core, public OpcUaBasePubSub<T, ST> {
    using Base = OpcUaBasePubSub<T, ST>;

public:
    using Monitor = DataMonitorCore;
    using Poller = DataPollerCore;

    void close() override {
        this->checkState();
        // Only the caller that moves the state to closed shuts down: two closes racing would
        // otherwise both destroy the monitor and the poller. The other one is refused.
        EntityState expected = EntityState::Initialized;
        if (!this->state_.compare_exchange_strong(expected, EntityState::Closed, std::memory_order_acq_rel))
            this->checkState();
        shutDown();
    }

    ~OpcUaSubscriberEntity() override {
        if (this->getState() != EntityState::Closed) {
            shuttingDown_ = true;
            shutDown();
        }
        // A close() made from the application's callback returned before the delivery that
        // called it left the store.
        gate_->drain();
    }

    bool hasMonitor() const noexcept { return sources_.monitor.has_value(); }
    bool hasPoller() const noexcept { return sources_.poller != nullptr; }
    const Poller* getPoller() const noexcept { return sources_.poller.get(); }

protected:
    /// coreArguments build the store; the rest is the base entity's.
    template <class... CoreArguments>
    OpcUaSubscriberEntity(const char* kind, const std::string& uri, const typename Base::QoSList& qos,
                          const typename Base::Properties& properties, const std::shared_ptr<OpcUaDuvo>& duvo,
                          CoreArguments&&... coreArguments)
        : Core(std::forward<CoreArguments>(coreArguments)...), Base(uri, qos, properties, duvo),
          logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")),
          sink_(storeOf(static_cast<Core&>(*this)), gate_, sampleMaker<T, ST>()) {
        sources_.start(sink_, this->client_, this->nodeIds_, properties);
        LOG4CPLUS_TRACE(logger_, kind << " for " << uri << " created");
    }

private:
    void shutDown() {
        this->setState(EntityState::Closed);
        // A delivery waiting for the store then gives up, so the monitor and the poller need
        // not wait for it: the closing thread may hold the store's lock.
        Core::stopDeliveries();
        sources_.stop();
        Core::close();
    }

    log4cplus::Logger logger_;
    std::atomic<bool> shuttingDown_{false};
    // Outlives the sink, the monitor and the poller, which deliver through it.
    const std::shared_ptr<DeliveryGate> gate_ = std::make_shared<DeliveryGate>();
    const StoreSink sink_;
    SubscriberSources sources_;
};

} // namespace vesk::duvo::opcua::detail::ps
