#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
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
/// notification only triggers one consistent read of all of them by the poller. Compiled once
/// for every sample type: the sink makes and takes the samples.
class DataMonitorCore {
public:
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;

    /// triggeredPoller: the owner's poller in the multi-node case, else null. With a session up,
    /// waits up to verdictWait for the server to accept every item, and throws
    /// std::runtime_error naming the first node it refused; a refusal that comes later is
    /// logged and reported as the connection's loss is. The sink outlives the monitor.
    DataMonitorCore(const DeliverySink& sink, const std::shared_ptr<OpcUaClient>& client,
                    const std::vector<NodeId>& nodeIds, double samplingIntervalMs, DataPollerCore* triggeredPoller,
                    std::chrono::milliseconds verdictWait = std::chrono::milliseconds(0));

    DataMonitorCore(const DataMonitorCore&) = delete;
    DataMonitorCore& operator=(const DataMonitorCore&) = delete;

    // Members go in reverse order: the item handles first, then the connection handle; once
    // both are gone no callback reaches this monitor.
    ~DataMonitorCore();

    void onMonitoredDataChange(UA_DataValue* value);

    /// A loss is reported once as an empty not-alive sample; a new connection reports
    /// nothing, since the client restores the monitored items itself.
    void onConnectionStatusChange(bool connected);

    /// A refusal after construction (a new session, a server that lost the node) is one
    /// ERROR and, for a queue, a lost source (not alive, if it was alive): no value will come.
    void onItemStatus(std::size_t item, const UA_NodeId& node, UA_StatusCode status);

    static std::string refusal(const std::string& node, UA_StatusCode status);

private:
    log4cplus::Logger logger_;
    const DeliverySink& sink_;
    DataPollerCore* poller_;
    // Each item's first verdict is reported once: by the constructor when it waited for it,
    // else by onItemStatus.
    enum Verdict : std::uint8_t { Claimed = 1, Seen = 2 };
    struct {
        std::mutex mutex;
        bool waiting = false; // the constructor waits, and reports what it sees itself
        std::vector<std::uint8_t> first;
    } verdicts_;
    NotificationQueue<std::function<void(bool)>>::Handle connectionHandle_;
    std::vector<NotificationQueue<OpcUaClient::MonitoredNode>::Handle> itemHandles_;
};

/// A monitor delivering to a sink of the typed form (see SinkAdapter).
template <class ST, class Sink>
class BasicDataMonitor : private SinkSlot<ST, Sink>, public DataMonitorCore {
public:
    using NodeId = DataMonitorCore::NodeId;
    using Poller = BasicDataPoller<ST, Sink>;

    BasicDataMonitor(Sink sink, const std::shared_ptr<OpcUaClient>& client, const std::vector<NodeId>& nodeIds,
                     double samplingIntervalMs, Poller* triggeredPoller,
                     std::chrono::milliseconds verdictWait = std::chrono::milliseconds(0))
        : SinkSlot<ST, Sink>(std::move(sink)),
          DataMonitorCore(this->adapted, client, nodeIds, samplingIntervalMs, triggeredPoller, verdictWait) {}
};

template <class T, class ST>
using OpcUaDataMonitor = BasicDataMonitor<ST, QueuedSink<T, ST>>;
template <class T, class ST>
using OpcUaMrvDataMonitor = BasicDataMonitor<ST, MrvSink<T, ST>>;

} // namespace vesk::duvo::opcua::detail::ps
