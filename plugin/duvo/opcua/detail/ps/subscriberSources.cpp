#include <duvo/opcua/detail/ps/subscriberEntity.hpp>

#include <vesk/duvo/opcua/properties.hpp>

namespace vesk::duvo::opcua::detail::ps {

void SubscriberSources::start(const DeliverySink& sink, const std::shared_ptr<OpcUaClient>& client,
                              const std::vector<NodeId>& nodeIds,
                              const std::map<std::string, std::string>& properties) {
    const bool usePoll = getDuvoProperty<bool>(properties, "opc.ps.usePollSubscriber", false);
    const int periodMs = getDuvoProperty<int>(properties, "opc.ps.pollingPeriodMs", 1000);
    if (usePoll) {
        poller = std::make_unique<DataPollerCore>(sink, client, nodeIds, periodMs);
    } else {
        // A type spread over several nodes is never assembled from single notifications:
        // each one triggers a consistent read of all nodes.
        if (nodeIds.size() > 1) poller = std::make_unique<DataPollerCore>(sink, client, nodeIds, 0);
        // A node the server refuses fails the construction, within the submit timeout.
        const int verdictMs = getDuvoProperty<int>(properties, "opc.asyncCallSubmitTimeoutMs", 1000);
        monitor.emplace(sink, client, nodeIds, static_cast<double>(periodMs), poller.get(),
                        std::chrono::milliseconds(verdictMs));
    }
}

void SubscriberSources::stop() noexcept {
    monitor.reset();
    poller.reset();
}

} // namespace vesk::duvo::opcua::detail::ps
