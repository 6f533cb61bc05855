#pragma once
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/dataPoller.hpp>
#include <duvo/opcua/detail/ps/sinks.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/notificationQueue.hpp>
#include <vesk/duvo/opcua/time.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>
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

    /// triggeredPoller: the owner's poller in the multi-node case, else null. With a session up,
    /// waits up to verdictWait for the server to accept every item, and throws
    /// std::runtime_error naming the first node it refused; a refusal that comes later is
    /// logged and reported as the connection's loss is.
    BasicDataMonitor(Sink sink, const std::shared_ptr<OpcUaClient>& client, const std::vector<NodeId>& nodeIds,
                     double samplingIntervalMs, Poller* triggeredPoller,
                     std::chrono::milliseconds verdictWait = std::chrono::milliseconds(0))
        : logger(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")), sink(sink), poller(triggeredPoller) {
        // Verdicts come on the I/O-context thread: a subscriber made there cannot wait for them.
        verdicts.waiting = verdictWait.count() > 0 && client->isConnected() &&
                           !client->ioContext().get_executor().running_in_this_thread();
        verdicts.status.resize(nodeIds.size());
        if constexpr (Sink::watchesConnection)
            connectionHandle = client->addConnectionCallback([this](bool connected) { onConnectionStatusChange(connected); });
        for (std::size_t i = 0; i < nodeIds.size(); ++i)
            itemHandles.push_back(client->monitor(
                *nodeIds[i], samplingIntervalMs, [this](UA_DataValue* value) { onMonitoredDataChange(value); },
                [this, i, node = nodeIdToString(*nodeIds[i])](UA_StatusCode status) { onItemStatus(i, node, status); }));
        if (!verdicts.waiting) return;
        std::unique_lock<std::mutex> lock(verdicts.mutex);
        verdicts.answered.wait_for(lock, verdictWait, [this] {
            return std::all_of(verdicts.status.begin(), verdicts.status.end(), [](const auto& s) { return s.has_value(); });
        });
        verdicts.waiting = false; // an item still unanswered is reported when its verdict comes
        for (std::size_t i = 0; i < nodeIds.size(); ++i)
            if (verdicts.status[i] && *verdicts.status[i] != UA_STATUSCODE_GOOD)
                throw std::runtime_error(refusal(nodeIdToString(*nodeIds[i]), *verdicts.status[i]));
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

    /// A refusal after construction (a new session, a server that lost the node) is one
    /// ERROR and, for a queue, a lost source (not alive, if it was alive): no value will come.
    void onItemStatus(std::size_t item, const std::string& node, UA_StatusCode status) {
        {
            std::lock_guard<std::mutex> lock(verdicts.mutex);
            if (verdicts.waiting) {
                verdicts.status[item] = status;
                verdicts.answered.notify_all();
                return;
            }
        }
        if (status == UA_STATUSCODE_GOOD) return;
        LOG4CPLUS_ERROR(logger, refusal(node, status));
        if constexpr (Sink::watchesConnection) sink.connectionLost();
    }

    static std::string refusal(const std::string& node, UA_StatusCode status) {
        return "cannot monitor node " + node + ": " + UA_StatusCode_name(status);
    }

private:
    log4cplus::Logger logger;
    Sink sink;
    Poller* poller;
    struct {
        std::mutex mutex;
        std::condition_variable answered;
        bool waiting = false; // the constructor waits, and reports a refusal itself
        std::vector<std::optional<UA_StatusCode>> status;
    } verdicts;
    NotificationQueue<std::function<void(bool)>>::Handle connectionHandle;
    std::vector<NotificationQueue<OpcUaClient::MonitoredNode>::Handle> itemHandles;
};

template <class T, class ST>
using OpcUaDataMonitor = BasicDataMonitor<ST, QueuedSink<T, ST>>;
template <class T, class ST>
using OpcUaMrvDataMonitor = BasicDataMonitor<ST, MrvSink<T, ST>>;

} // namespace vesk::duvo::opcua::detail::ps
