#include <duvo/opcua/detail/ps/dataMonitor.hpp>

#include <algorithm>
#include <stdexcept>

#include <log4cplus/loggingmacros.h>

#include <vesk/duvo/opcua/uriHelper.hpp>

namespace vesk::duvo::opcua::detail::ps {

DataMonitorCore::DataMonitorCore(const DeliverySink& sink, const std::shared_ptr<OpcUaClient>& client,
                                 const std::vector<NodeId>& nodeIds, double samplingIntervalMs,
                                 DataPollerCore* triggeredPoller, std::chrono::milliseconds verdictWait)
    : logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.subscriber")), sink_(sink), poller_(triggeredPoller) {
    // Verdicts come on the I/O-context thread: a subscriber made there cannot wait for them.
    verdicts_.waiting = verdictWait.count() > 0 && client->isConnected() &&
                        !client->ioContext().get_executor().running_in_this_thread();
    verdicts_.status.resize(nodeIds.size());
    if (sink.watchesConnection)
        connectionHandle_ =
            client->addConnectionCallback([this](bool connected) { onConnectionStatusChange(connected); });
    for (std::size_t i = 0; i < nodeIds.size(); ++i)
        itemHandles_.push_back(client->monitor(
            *nodeIds[i], samplingIntervalMs, [this](UA_DataValue* value) { onMonitoredDataChange(value); },
            [this, i, node = nodeIdToString(*nodeIds[i])](UA_StatusCode status) { onItemStatus(i, node, status); }));
    if (!verdicts_.waiting) return;
    std::unique_lock<std::mutex> lock(verdicts_.mutex);
    verdicts_.answered.wait_for(lock, verdictWait, [this] {
        return std::all_of(verdicts_.status.begin(), verdicts_.status.end(),
                           [](const auto& s) { return s.has_value(); });
    });
    verdicts_.waiting = false; // an item still unanswered is reported when its verdict comes
    for (std::size_t i = 0; i < nodeIds.size(); ++i)
        if (verdicts_.status[i] && *verdicts_.status[i] != UA_STATUSCODE_GOOD)
            throw std::runtime_error(refusal(nodeIdToString(*nodeIds[i]), *verdicts_.status[i]));
}

DataMonitorCore::~DataMonitorCore() = default;

void DataMonitorCore::onMonitoredDataChange(UA_DataValue* value) {
    if (poller_ != nullptr) {
        poller_->postTriggeredPoll();
        return;
    }
    const double time = notificationTime(*value);
    OwnedSample sample(nullptr, nullptr);
    try {
        sample = sink_.convert(value);
    } catch (const std::exception& e) {
        sink_.conversionFailed(logger_, e.what(), time);
        return;
    }
    sink_.sample(std::move(sample), time);
}

void DataMonitorCore::onConnectionStatusChange(bool connected) {
    if (!connected) sink_.connectionLost();
}

void DataMonitorCore::onItemStatus(std::size_t item, const std::string& node, UA_StatusCode status) {
    {
        std::lock_guard<std::mutex> lock(verdicts_.mutex);
        if (verdicts_.waiting) {
            verdicts_.status[item] = status;
            verdicts_.answered.notify_all();
            return;
        }
    }
    if (status == UA_STATUSCODE_GOOD) return;
    LOG4CPLUS_ERROR(logger_, refusal(node, status));
    if (sink_.watchesConnection) sink_.connectionLost();
}

std::string DataMonitorCore::refusal(const std::string& node, UA_StatusCode status) {
    return "cannot monitor node " + node + ": " + UA_StatusCode_name(status);
}

} // namespace vesk::duvo::opcua::detail::ps
