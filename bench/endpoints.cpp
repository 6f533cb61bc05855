#include "endpoints.hpp"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/duvo.hpp>
#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/faultProxy.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>

#include "rawClient.hpp"
#include "serverProcess.hpp"
#include "stats.hpp"

namespace duvo::bench {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

std::size_t threadCount() {
    std::size_t n = 0;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.') ++n;
        ::closedir(dir);
    }
    return n;
}

EndpointsResult endpointsOurs(const std::vector<std::string>& endpoints, vesk::duvo::sim::FaultProxy& lastProxy) {
    using Sample = m2Types::M2FloatValue0;
    using Watched = m2Types::M2Int32Value0;
    const std::size_t count = endpoints.size();
    EndpointsResult result;
    const std::size_t threadsBefore = threadCount();
    const double before = residentBytes();
    // Sampling once a second (the default), as a device's status would be: twenty servers
    // sampling as fast as they can would only measure the machine.
    auto duvo = std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>();
    std::vector<std::unique_ptr<vesk::duvo::ps::Publisher<Sample>>> publishers;
    std::vector<std::shared_ptr<Sample>> samples;
    std::vector<std::unique_ptr<vesk::duvo::ps::Subscriber<Watched>>> subscribers;
    for (const std::string& endpoint : endpoints) {
        publishers.push_back(duvo->createPublisher<Sample>(vesk::duvo::sim::pubSubUri(endpoint, "M2FloatValue0")));
        samples.push_back(publishers.back()->createDataEntity());
        samples.back()->setValue0(1.5f);
        subscribers.push_back(duvo->createSubscriber<Watched>(vesk::duvo::sim::pubSubUri(endpoint, "M2Int32Value0")));
    }
    for (auto& subscriber : subscribers) {
        std::vector<std::shared_ptr<vesk::duvo::ps::DataEvent<Watched>>> events;
        subscriber->readDataEvents(vesk::duvo::ps::DataEventFilter<Watched>(), events, 1, 10000ms);
        if (events.empty()) throw std::runtime_error("an endpoint gave no first sample");
    }
    result.threads = static_cast<double>(threadCount() - threadsBefore);
    result.bytesPerEndpoint = (residentBytes() - before) / static_cast<double>(count);

    // The last endpoint gets a publish every 10 ms throughout: answered, then not (its
    // publishes time out, its client finds it silent and tries again). The same light traffic
    // in both phases, so that only the black hole differs.
    struct Busy {
        std::atomic<bool> stop{false};
        std::thread thread;
        ~Busy() {
            stop = true;
            if (thread.joinable()) thread.join();
        }
    } last;
    last.thread = std::thread([&] {
        while (!last.stop.load()) {
            try {
                publishers.back()->publish(*samples.back(), 500ms);
            } catch (const vesk::duvo::DuvoException&) {}
            std::this_thread::sleep_for(10ms);
        }
    });
    auto p99 = [&](std::chrono::milliseconds span) {
        std::vector<double> latencies;
        const auto end = Clock::now() + span;
        while (Clock::now() < end)
            for (std::size_t i = 0; i + 1 < count; ++i) {
                const auto start = Clock::now();
                publishers[i]->publish(*samples[i], 2000ms);
                latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            }
        return percentile(latencies, 0.99);
    };
    // Spans long enough for the silence to be noticed and the reconnection attempts to begin,
    // and equal, so that both percentiles see as many rare events.
    result.p99HealthyUs = p99(4000ms);
    lastProxy.blackhole();
    result.p99OneBlackholedUs = p99(4000ms);
    return result;
}

EndpointsResult endpointsRaw(const std::vector<std::string>& endpoints) {
    const std::size_t count = endpoints.size();
    EndpointsResult result;
    const std::size_t threadsBefore = threadCount();
    const double before = residentBytes();
    const std::string variable = vesk::duvo::sim::fieldNodeName("M2Int32Value0");
    const UA_NodeId node = UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(variable.c_str()));
    std::vector<std::unique_ptr<RawClient>> clients;
    std::size_t firstValues = 0;
    for (const std::string& endpoint : endpoints) {
        clients.push_back(std::make_unique<RawClient>(endpoint));
        UA_Client* client = clients.back()->get();
        UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
        request.requestedPublishingInterval = 100; // as ours: at most 100 ms
        const UA_CreateSubscriptionResponse sub =
            UA_Client_Subscriptions_create(client, request, nullptr, nullptr, nullptr);
        UA_MonitoredItemCreateRequest item = UA_MonitoredItemCreateRequest_default(node);
        item.requestedParameters.samplingInterval = 1000;
        const UA_MonitoredItemCreateResult created = UA_Client_MonitoredItems_createDataChange(
            client, sub.subscriptionId, UA_TIMESTAMPSTORETURN_BOTH, item, &firstValues,
            [](UA_Client*, UA_UInt32, void*, UA_UInt32, void* context, UA_DataValue*) {
                ++*static_cast<std::size_t*>(context);
            },
            nullptr);
        if (created.statusCode != UA_STATUSCODE_GOOD) throw std::runtime_error("raw monitored item refused");
    }
    // One thread drives them all, as a user of open62541 alone would.
    const auto end = Clock::now() + 10s;
    while (firstValues < count && Clock::now() < end)
        for (auto& client : clients) UA_Client_run_iterate(client->get(), 0);
    if (firstValues < count) throw std::runtime_error("an endpoint gave no first value");
    result.threads = static_cast<double>(threadCount() - threadsBefore) + 1; // the caller's
    result.bytesPerEndpoint = (residentBytes() - before) / static_cast<double>(count);
    return result;
}

} // namespace

int endpointsMain(const std::string& self, const std::string& kind, std::size_t count) {
    try {
        std::vector<std::unique_ptr<ServerProcess>> servers;
        for (std::size_t i = 0; i < count; ++i) servers.push_back(std::make_unique<ServerProcess>(self));
        // Made before the counts start: the proxy's own thread is not the middleware's.
        vesk::duvo::sim::FaultProxy proxy(servers.back()->endpoint());
        std::vector<std::string> endpoints;
        for (std::size_t i = 0; i + 1 < count; ++i) endpoints.push_back(servers[i]->endpoint());
        endpoints.push_back(proxy.endpoint());
        const EndpointsResult r = kind == "ours" ? endpointsOurs(endpoints, proxy) : endpointsRaw(endpoints);
        std::printf("endpoints threads=%.0f bytes_per_endpoint=%.1f p99_healthy_us=%.1f p99_blackholed_us=%.1f\n",
                    r.threads, r.bytesPerEndpoint, r.p99HealthyUs, r.p99OneBlackholedUs);
        std::fflush(stdout);
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "endpoints " << kind << " " << count << ": " << e.what() << '\n';
        return 1;
    }
}

EndpointsResult runEndpoints(const std::string& self, const std::string& kind, std::size_t count) {
    const std::string command = "'" + self + "' --endpoints-run " + kind + " " + std::to_string(count);
    FILE* child = popen(command.c_str(), "r");
    if (child == nullptr) throw std::runtime_error("cannot start " + command);
    EndpointsResult r;
    const int fields =
        std::fscanf(child, "endpoints threads=%lf bytes_per_endpoint=%lf p99_healthy_us=%lf p99_blackholed_us=%lf",
                    &r.threads, &r.bytesPerEndpoint, &r.p99HealthyUs, &r.p99OneBlackholedUs);
    pclose(child);
    if (fields != 4) throw std::runtime_error("no result from " + command);
    return r;
}

} // namespace duvo::bench
