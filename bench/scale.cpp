#include "scale.hpp"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <unistd.h>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/duvo.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>

#include "rawClient.hpp"
#include "stats.hpp"

namespace duvo::bench {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
constexpr auto patience = 300s;
const char* const variable = "M2Int32Value0";
const std::string variableNode = vesk::duvo::sim::fieldNodeName(variable); // the raw node ids borrow it

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Which subscribers have seen a first sample, and which the changed value.
struct Arrivals {
    explicit Arrivals(std::size_t n) : first(new std::atomic<bool>[n]), changed(new std::atomic<bool>[n]) {
        for (std::size_t i = 0; i < n; ++i) first[i] = changed[i] = false;
    }
    void arrived(std::size_t i, std::int32_t value) {
        if (!first[i].exchange(true)) ++ready;
        if (value == target.load() && !changed[i].exchange(true)) ++delivered;
    }
    std::unique_ptr<std::atomic<bool>[]> first;
    std::unique_ptr<std::atomic<bool>[]> changed;
    std::atomic<std::size_t> ready{0};
    std::atomic<std::size_t> delivered{0};
    std::atomic<std::int32_t> target{0};
};

template <class Done>
void waitFor(Done done, const char* what) {
    const auto end = Clock::now() + patience;
    while (!done()) {
        if (Clock::now() > end) throw std::runtime_error(std::string("gave up waiting for ") + what);
        std::this_thread::sleep_for(100us);
    }
}

ScaleResult scaleOurs(std::size_t count, const std::string& endpoint) {
    using T = m2Types::M2Int32Value0;
    const std::string uri = vesk::duvo::sim::pubSubUri(endpoint, variable);
    auto duvo = std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>(
        vesk::duvo::Duvo::Properties{{"opc.ps.pollingPeriodMs", "0"}});
    RawClient writer(endpoint);
    // Loads the plug-in and connects the client before the baseline.
    auto warm = duvo->createSubscriber<T>(uri);
    std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<T>>> events;
    warm->readDataEvents(vesk::duvo::ps::DataEventFilter<T>(), events, 1, 10000ms);

    Arrivals arrivals(count);
    std::vector<std::unique_ptr<vesk::duvo::ps::Subscriber<T>>> subscribers;
    std::vector<std::unique_ptr<vesk::duvo::ps::Subscription>> subscriptions;
    subscribers.reserve(count);
    subscriptions.reserve(count);
    const double before = residentBytes();
    const auto start = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        subscribers.push_back(duvo->createSubscriber<T>(uri));
        subscriptions.push_back(subscribers.back()->subscribeAsync(
            vesk::duvo::ps::DataEventFilter<T>(),
            [&arrivals, i](vesk::duvo::ps::Subscriber<T>&, const vesk::duvo::ps::DataEvent<T>& event) {
                if (event.hasValidData()) arrivals.arrived(i, event.getData()->getValue0());
            }));
    }
    waitFor([&] { return arrivals.ready.load() == count; }, "the first samples");
    ScaleResult result;
    result.creationMs = msSince(start);
    result.bytesPerSubscriber = (residentBytes() - before) / static_cast<double>(count);

    arrivals.target = 1000000 + static_cast<std::int32_t>(getpid());
    const UA_Int32 value = arrivals.target.load();
    const UA_NodeId node = UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(variableNode.c_str()));
    const auto change = Clock::now();
    writer.write(node, borrowedScalar(&value, &UA_TYPES[UA_TYPES_INT32]), 1);
    waitFor([&] { return arrivals.delivered.load() == count; }, "the change");
    result.deliveryMs = msSince(change);
    return result;
}

ScaleResult scaleRaw(std::size_t count, const std::string& endpoint) {
    RawClient client(endpoint);
    UA_CreateSubscriptionRequest subscription = UA_CreateSubscriptionRequest_default();
    subscription.requestedPublishingInterval = 0; // the server's fastest, as our client asks
    const UA_CreateSubscriptionResponse created =
        UA_Client_Subscriptions_create(client.get(), subscription, nullptr, nullptr, nullptr);
    if (created.responseHeader.serviceResult != UA_STATUSCODE_GOOD)
        throw std::runtime_error("cannot create a subscription");

    Arrivals arrivals(count);
    struct Slot {
        Arrivals* arrivals;
        std::size_t index;
    };
    std::vector<Slot> slots(count);
    const double before = residentBytes();
    const auto start = Clock::now();
    const UA_NodeId node = UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(variableNode.c_str()));
    constexpr std::size_t batch = 1000;
    for (std::size_t first = 0; first < count; first += batch) {
        const std::size_t n = std::min(batch, count - first);
        std::vector<UA_MonitoredItemCreateRequest> items(n, UA_MonitoredItemCreateRequest_default(node));
        std::vector<void*> contexts(n);
        std::vector<UA_Client_DataChangeNotificationCallback> callbacks(n);
        std::vector<UA_Client_DeleteMonitoredItemCallback> deletes(n, nullptr);
        for (std::size_t i = 0; i < n; ++i) {
            items[i].requestedParameters.samplingInterval = 0;
            items[i].requestedParameters.queueSize = 100;
            items[i].requestedParameters.discardOldest = true;
            slots[first + i] = Slot{&arrivals, first + i};
            contexts[i] = &slots[first + i];
            callbacks[i] = [](UA_Client*, UA_UInt32, void*, UA_UInt32, void* context, UA_DataValue* value) {
                if (!value->hasValue || !UA_Variant_hasScalarType(&value->value, &UA_TYPES[UA_TYPES_INT32])) return;
                const auto* slot = static_cast<Slot*>(context);
                slot->arrivals->arrived(slot->index, *static_cast<UA_Int32*>(value->value.data));
            };
        }
        UA_CreateMonitoredItemsRequest request;
        UA_CreateMonitoredItemsRequest_init(&request);
        request.subscriptionId = created.subscriptionId;
        request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
        request.itemsToCreate = items.data();
        request.itemsToCreateSize = n;
        UA_CreateMonitoredItemsResponse response = UA_Client_MonitoredItems_createDataChanges(
            client.get(), request, contexts.data(), callbacks.data(), deletes.data());
        const bool ok = response.responseHeader.serviceResult == UA_STATUSCODE_GOOD;
        UA_CreateMonitoredItemsResponse_clear(&response);
        if (!ok) throw std::runtime_error("cannot create monitored items");
    }
    client.runUntil([&] { return arrivals.ready.load() == count; });
    ScaleResult result;
    result.creationMs = msSince(start);
    result.bytesPerSubscriber = (residentBytes() - before) / static_cast<double>(count);

    arrivals.target = 1000000 + static_cast<std::int32_t>(getpid());
    const UA_Int32 value = arrivals.target.load();
    const auto change = Clock::now();
    client.write(node, borrowedScalar(&value, &UA_TYPES[UA_TYPES_INT32]), 1);
    client.runUntil([&] { return arrivals.delivered.load() == count; });
    result.deliveryMs = msSince(change);
    return result;
}

} // namespace

int scaleMain(const std::string& kind, std::size_t count, const std::string& endpoint) {
    try {
        const ScaleResult r = kind == "ours" ? scaleOurs(count, endpoint) : scaleRaw(count, endpoint);
        std::printf("scale creation_ms=%.3f bytes_per_subscriber=%.1f delivery_ms=%.3f\n", r.creationMs,
                    r.bytesPerSubscriber, r.deliveryMs);
        std::fflush(stdout);
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "scale " << kind << " " << count << ": " << e.what() << '\n';
        return 1;
    }
}

ScaleResult runScale(const std::string& self, const std::string& kind, std::size_t count, const std::string& endpoint) {
    const std::string command =
        "'" + self + "' --scale-run " + kind + " " + std::to_string(count) + " '" + endpoint + "'";
    FILE* child = popen(command.c_str(), "r");
    if (child == nullptr) throw std::runtime_error("cannot start " + command);
    ScaleResult r;
    const int fields = std::fscanf(child, "scale creation_ms=%lf bytes_per_subscriber=%lf delivery_ms=%lf",
                                   &r.creationMs, &r.bytesPerSubscriber, &r.deliveryMs);
    pclose(child);
    if (fields != 3) throw std::runtime_error("no result from " + command);
    return r;
}

} // namespace duvo::bench
