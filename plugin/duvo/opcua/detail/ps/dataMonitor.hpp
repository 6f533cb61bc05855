#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <log4cplus/logger.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/dataPoller.hpp>
#include <duvo/opcua/detail/ps/sinks.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/notificationQueue.hpp>
#include <vesk/duvo/opcua/time.hpp>
#include <vesk/duvo/util.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// The data time of a notification: its source time only, 0.0 without one, as a poll times
/// its read. The server's time or now would make data of unknown age pass Deadline and Latency.
inline double notificationTime(const UA_DataValue& value) {
    if (!value.hasSourceTimestamp) return 0.0;
    return unixTimestamp(value.sourceTimestamp, value.hasSourcePicoseconds ? value.sourcePicoseconds : 0);
}

/// Receives the data-change notifications of a subscription's nodes. With several nodes a
/// notification only triggers one consistent read of all of them by the poller.
template <class ST, class Sink>
class BasicDataMonitor {
public:
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;
    using Poller = BasicDataPoller<ST, Sink>;

    /// triggeredPoller: the owner's poller in the multi-node case, else null.
    BasicDataMonitor(Sink sink, const std::shared_ptr<OpcUaClient>& client, const std::vector<NodeId>& nodeIds,
                     double samplingIntervalMs, Poller* triggeredPoller)
        : logger(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")), sink(sink), poller(triggeredPoller) {
        if constexpr (Sink::watchesConnection)
            connectionHandle = client->addConnectionCallback([this](bool connected) { onConnectionStatusChange(connected); });
        for (const auto& node : nodeIds)
            itemHandles.push_back(
                client->monitor(*node, samplingIntervalMs, [this](UA_DataValue* value) { onMonitoredDataChange(value); }));
    }

    BasicDataMonitor(const BasicDataMonitor&) = delete;
    BasicDataMonitor& operator=(const BasicDataMonitor&) = delete;

    // Members go in reverse order: the item handles first, then the connection handle; once
    // both are gone no callback reaches this monitor.
    ~BasicDataMonitor() = default;

    void onMonitoredDataChange(UA_DataValue* value) {
        if (poller != nullptr) {
            poller->postTriggeredPoll();
            return;
        }
        const double time = notificationTime(*value);
        auto sample = std::make_unique<ST>();
        try {
            fillFromOwnedValues(*sample, value);
        } catch (const std::exception& e) {
            sink.conversionFailed(logger, e.what(), time);
            return;
        }
        sink.sample(std::move(sample), time);
    }

    /// A loss is reported once as an empty not-alive sample; a new connection reports
    /// nothing, since the client restores the monitored items itself.
    void onConnectionStatusChange(bool connected) {
        if (!connected) sink.connectionLost();
    }

private:
    log4cplus::Logger logger;
    Sink sink;
    Poller* poller;
    NotificationQueue<std::function<void(bool)>>::Handle connectionHandle;
    std::vector<NotificationQueue<OpcUaClient::MonitoredNode>::Handle> itemHandles;
};

template <class T, class ST>
using OpcUaDataMonitor = BasicDataMonitor<ST, QueuedSink<T, ST>>;
template <class T, class ST>
using OpcUaMrvDataMonitor = BasicDataMonitor<ST, MrvSink<T, ST>>;

} // namespace vesk::duvo::opcua::detail::ps
