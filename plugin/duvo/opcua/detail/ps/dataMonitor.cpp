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
    // The I/O-context thread runs the verdicts' callbacks: a subscriber made there does not wait.
    verdicts_.waiting = verdictWait.count() > 0 && client->isConnected() &&
                        !client->ioContext().get_executor().running_in_this_thread();
    verdicts_.first.resize(nodeIds.size());
    if (sink.watchesConnection)
        connectionHandle_ =
            client->addConnectionCallback([this](bool connected) { onConnectionStatusChange(connected); });
    itemHandles_.reserve(nodeIds.size());
    for (std::size_t i = 0; i < nodeIds.size(); ++i)
        itemHandles_.push_back(client->monitor(
            nodeIds[i], samplingIntervalMs, [this](UA_DataValue* value) { onMonitoredDataChange(value); },
            [this, i](const UA_NodeId& node, UA_StatusCode status) { onItemStatus(i, node, status); }));
    if (!verdicts_.waiting) return;
    // This thread drives the client's loop until the verdicts are in: they need no other thread.
    client->awaitReady(
        [](const void* self) {
            const auto& handles = static_cast<const DataMonitorCore*>(self)->itemHandles_;
            return std::all_of(handles.begin(), handles.end(),
                               [](const auto& h) { return h.entry()->callback.firstVerdict.has(); });
        },
        this, OpcUaClient::Clock::now() + verdictWait);
    std::lock_guard<std::mutex> lock(verdicts_.mutex);
    verdicts_.waiting = false; // an item still unanswered is reported when its verdict comes
    std::optional<std::size_t> refused;
    for (std::size_t i = 0; i < nodeIds.size(); ++i) {
        const auto& verdict = itemHandles_[i].entry()->callback.firstVerdict;
        if (!verdict.has()) continue;
        verdicts_.first[i] |= Claimed;
        if (!refused && verdict.get() != UA_STATUSCODE_GOOD) refused = i;
    }
    if (refused)
        throw std::runtime_error(
            refusal(nodeIdToString(*nodeIds[*refused]), itemHandles_[*refused].entry()->callback.firstVerdict.get()));
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

void DataMonitorCore::onItemStatus(std::size_t item, const UA_NodeId& node, UA_StatusCode status) {
    {
        std::lock_guard<std::mutex> lock(verdicts_.mutex);
        const bool first = (verdicts_.first[item] & Seen) == 0;
        verdicts_.first[item] |= Seen;
        // The first verdict is set before its callback is posted: a constructor still
        // waiting sees it and reports it.
        if (first && (verdicts_.waiting || (verdicts_.first[item] & Claimed) != 0)) return;
    }
    if (status == UA_STATUSCODE_GOOD) return;
    LOG4CPLUS_ERROR(logger_, refusal(nodeIdToString(node), status));
    if (sink_.watchesConnection) sink_.connectionLost();
}

std::string DataMonitorCore::refusal(const std::string& node, UA_StatusCode status) {
    return "cannot monitor node " + node + ": " + UA_StatusCode_name(status);
}

} // namespace vesk::duvo::opcua::detail::ps
