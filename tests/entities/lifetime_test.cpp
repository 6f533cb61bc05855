// Entities closed and destroyed while notifications, poll timers and call replies are still
// in flight, from several threads; run these under the sanitizers.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/thread/future.hpp>
#include <gtest/gtest.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <generated/opcua/m2Types/rpc.hpp>
#include <vesk/duvo/sim/faultProxy.hpp>

#include "entities/pairSample.hpp"
#include "support/makeEntity.hpp"
#include "support/simulatorFixture.hpp"

namespace {

using duvo::test::make;
using namespace std::chrono_literals;
using duvo::test::Pair;
using duvo::test::PairBinding;
using vesk::duvo::opcua::detail::OpcUaClient;
using vesk::duvo::opcua::detail::OpcUaDuvo;
using vesk::duvo::opcua::detail::ps::EntityState;
using vesk::duvo::opcua::detail::ps::OpcUaMrvSubscriber;
using vesk::duvo::opcua::detail::ps::OpcUaPublisher;
using vesk::duvo::opcua::detail::ps::OpcUaPublisherDelegator;
using vesk::duvo::opcua::detail::ps::OpcUaSubscriber;
using vesk::duvo::opcua::detail::ps::OpcUaSubscriberDelegator;
using vesk::duvo::ps::DataEvent;
using vesk::duvo::ps::DataEventFilter;
using PsQoS = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
using RrQoS = std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>;
using Properties = vesk::duvo::Duvo::Properties;
using T = m2Types::M2Int32Value0;
using ST = generated::opcua::m2Types::M2Int32Value0;
using AsyncClient = generated::opcua::m2Types::PsRpcSetpowerAsyncImpl;

std::unique_ptr<OpcUaPublisherDelegator<T, ST>> makePublisher(const std::string& uri,
                                                              const std::shared_ptr<OpcUaDuvo>& duvo) {
    auto publisher = std::make_shared<OpcUaPublisher<T, ST>>(uri, PsQoS{}, Properties{}, duvo);
    publisher->setState(EntityState::Initialized);
    return std::make_unique<OpcUaPublisherDelegator<T, ST>>(publisher);
}

/// Every way a client future may fail: the texts its failures begin with.
bool knownFailure(const std::string& text) {
    for (const char* prefix : {"timeout", "not connected", "connection lost", "client shut down", "request failed"})
        if (text.rfind(prefix, 0) == 0) return true;
    return false;
}

/// Completed within the time, with a result or with one of the client's failures.
::testing::AssertionResult completes(boost::future<bool>& future, std::chrono::milliseconds within = 10000ms) {
    if (future.wait_for(boost::chrono::milliseconds(within.count())) != boost::future_status::ready)
        return ::testing::AssertionFailure() << "a call never completed";
    try {
        future.get();
        return ::testing::AssertionSuccess();
    } catch (const std::exception& e) {
        if (knownFailure(e.what())) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "unexpected failure: " << e.what();
    }
}

/// Writes the two nodes over and over, as a device would, until destroyed.
class ServerWriter {
public:
    explicit ServerWriter(vesk::duvo::sim::Simulator& sim)
        : thread_([this, &sim] {
              for (std::int32_t i = 0; !stop_.load(); ++i) {
                  UA_Variant v;
                  UA_Variant_setScalar(&v, &i, &UA_TYPES[UA_TYPES_INT32]);
                  sim.write("M2Int32Value0", v);
                  float level = static_cast<float>(i);
                  UA_Variant_setScalar(&v, &level, &UA_TYPES[UA_TYPES_FLOAT]);
                  sim.write("M2FloatValue0", v);
                  std::this_thread::sleep_for(1ms);
              }
          }) {}
    ~ServerWriter() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class Lifetime : public duvo::test::SimulatorSuite {
protected:
    static std::string pairUri(const std::string& endpoint = simulator->endpoint()) {
        return psUri("M2Int32Value0", endpoint) + "," + vesk::duvo::sim::fieldNodeId("M2FloatValue0");
    }

    static bool receivesAny(vesk::duvo::ps::Subscriber<T>& subscriber, std::chrono::milliseconds within = 10000ms) {
        const auto end = std::chrono::steady_clock::now() + within;
        while (std::chrono::steady_clock::now() < end) {
            for (const auto& sample : subscriber.read(0))
                if (sample) return true;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }

    /// Returns once whatever the client's delivery thread is doing now has finished.
    static void flushDeliveries(OpcUaClient& client) {
        boost::promise<void> flushed;
        boost::asio::post(client.ioContext(), [&flushed] { flushed.set_value(); });
        flushed.get_future().wait();
    }

    /// Drops the subscriber, as createSubscriber returns it, in its own asynchronous callback;
    /// the number of calls, -1 when none came.
    template <class Type, class Binding>
    int dropInOwnCallback(const std::string& uri, const Properties& properties) {
        const auto client = duvo->getClient(simulator->endpoint(), {}); // outlives the subscriber
        std::unique_ptr<vesk::duvo::ps::Subscriber<Type>> subscriber =
            std::make_unique<OpcUaSubscriberDelegator<Type, Binding>>(make<OpcUaSubscriber<Type, Binding>>(uri, properties, duvo));
        std::atomic<int> calls{0};
        std::atomic<bool> dropped{false};
        subscriber->subscribeAsync(DataEventFilter<Type>(),
                                   [&](vesk::duvo::ps::Subscriber<Type>&, const DataEvent<Type>&) {
                                       if (calls++ != 0) return;
                                       subscriber.reset();
                                       dropped = true;
                                   });
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (!dropped.load() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
        if (!dropped.load()) return -1;
        flushDeliveries(*client);
        return calls.load();
    }
};

TEST_F(Lifetime, threads_create_use_and_drop_entities_while_the_server_writes) {
    ServerWriter writer(*simulator);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(1234 + t);
            const auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
            std::vector<boost::future<bool>> kept;
            for (int round = 0; round < 10; ++round) {
                const int kind = (t + round) % 5;
                std::shared_ptr<vesk::duvo::ps::Subscriber<T>> queued;
                std::shared_ptr<vesk::duvo::ps::MrvSubscriber<T>> mostRecent;
                std::shared_ptr<OpcUaSubscriber<Pair, PairBinding>> pair;
                const Properties monitored{{"opc.ps.pollingPeriodMs", "0"}};
                const Properties polled{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "5"}};
                const std::string uri = psUri("M2Int32Value0");
                switch (kind) {
                case 0: queued = make<OpcUaSubscriber<T, ST>>(uri, monitored, duvo); break;
                case 1: queued = make<OpcUaSubscriber<T, ST>>(uri, polled, duvo); break;
                case 2: mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri, monitored, duvo); break;
                case 3: mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri, polled, duvo); break;
                default: pair = make<OpcUaSubscriber<Pair, PairBinding>>(pairUri(), monitored, duvo); break;
                }
                std::atomic<int> delivered{0};
                std::unique_ptr<vesk::duvo::ps::Subscription> subscription;
                if (queued && chance(50))
                    subscription = queued->subscribeAsync(
                        DataEventFilter<T>(), [&delivered](vesk::duvo::ps::Subscriber<T>&, const DataEvent<T>&) { ++delivered; });
                auto publisher = makePublisher(uri, duvo);
                auto client = std::make_unique<AsyncClient>(rrUri("PsRpcSetpower", "RPC_SetPower"), RrQoS{}, Properties{},
                                                            duvo);
                ST sample;
                const int steps = 5 + static_cast<int>(random() % 25);
                for (int i = 0; i < steps; ++i) {
                    sample.setValue0(t * 100000 + round * 1000 + i);
                    publisher->publish(sample, 0ms);
                    auto call = client->RPC_SetPower(i % 2 == 0);
                    if (chance(30)) kept.push_back(std::move(call)); // the others are dropped in flight
                    if (queued) queued->read(0);
                    if (mostRecent) mostRecent->readMostRecent(0ms);
                    if (pair) pair->read(0);
                    if (chance(20)) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3));
                }
                // Go in a random order, closed first or not.
                if (chance(50)) client->close();
                if (chance(50)) {
                    if (chance(50)) publisher->close();
                    publisher.reset();
                }
                if (chance(50)) {
                    if (queued) queued->close();
                    if (mostRecent) mostRecent->close();
                    if (pair) pair->close();
                }
                if (subscription && chance(50)) subscription->close();
                queued.reset();
                mostRecent.reset();
                pair.reset();
                subscription.reset();
                client.reset();
                publisher.reset();
            }
            for (auto& call : kept)
                if (!completes(call)) ++failures;
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);

    // Everything still works on the same middleware afterwards.
    auto subscriber = make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0"), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    EXPECT_TRUE(receivesAny(*subscriber));
    AsyncClient client(rrUri("PsRpcSetpower", "RPC_SetPower"), RrQoS{}, Properties{}, duvo);
    EXPECT_TRUE(client.RPC_SetPower(true).get());
}

TEST_F(Lifetime, subscribers_destroyed_without_close_stop_delivering) {
    ServerWriter writer(*simulator);
    std::atomic<int> delivered{0};
    const auto count = [&delivered](vesk::duvo::ps::Subscriber<T>&, const DataEvent<T>&) { ++delivered; };
    for (const Properties& properties :
         {Properties{{"opc.ps.pollingPeriodMs", "0"}},
          Properties{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "2"}}}) {
        auto subscriber = make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0"), properties, duvo);
        auto subscription = subscriber->subscribeAsync(DataEventFilter<T>(), count);
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (delivered.load() < 5 && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
        ASSERT_GE(delivered.load(), 5);
        subscriber.reset(); // no close(): the destructor stops the monitor and the poller
        const int after = delivered.load();
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(delivered.load(), after);
        subscription->close(); // harmless once the subscriber is gone
        delivered = 0;
    }
    // The multi-node kind, and the most-recent-value kind, likewise.
    auto pair = make<OpcUaSubscriber<Pair, PairBinding>>(pairUri(), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(
        psUri("M2Int32Value0"), {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "2"}}, duvo);
    std::this_thread::sleep_for(50ms);
    pair.reset();
    mostRecent.reset();
}

TEST_F(Lifetime, a_subscriber_closes_or_destroys_itself_from_its_own_callbacks) {
    using Subscriber = vesk::duvo::ps::Subscriber<T>;
    ServerWriter writer(*simulator);
    const auto client = duvo->getClient(simulator->endpoint(), {}); // outlives the subscribers
    for (const Properties& properties :
         {Properties{{"opc.ps.pollingPeriodMs", "0"}},
          Properties{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "2"}}}) {
        auto subscriber = make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0"), properties, duvo);
        std::atomic<int> closes{0};
        auto subscription = subscriber->subscribeAsync(
            DataEventFilter<T>(), [&closes](Subscriber& self, const DataEvent<T>&) {
                if (closes++ == 0) self.close();
            });
        // The store closes last: once reads fail, the whole close has happened.
        const auto closed = [&] {
            try {
                subscriber->read(0);
                return false;
            } catch (const vesk::duvo::IllegalStateException&) {
                return true;
            }
        };
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (!closed() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
        ASSERT_TRUE(closed());
        EXPECT_EQ(subscriber->getState(), EntityState::Closed);
        EXPECT_FALSE(subscriber->hasMonitor());
        EXPECT_FALSE(subscriber->hasPoller());
        // Destroyed at once, while the delivery that closed it may still be leaving the store.
        subscriber.reset();
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(closes.load(), 1);

        // The one-shot pattern: the application drops the subscriber it was given inside the
        // subscriber's own delivery.
        EXPECT_EQ((dropInOwnCallback<T, ST>(psUri("M2Int32Value0"), properties)), 1);
        EXPECT_EQ((dropInOwnCallback<Pair, PairBinding>(pairUri(), properties)), 1);

        // A synchronous callback closes, or drops, the subscriber inside poll's first scan
        // while a delivery waits to enter the store.
        for (const bool destroy : {false, true}) {
            std::unique_ptr<Subscriber> polled = std::make_unique<OpcUaSubscriberDelegator<T, ST>>(
                make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0"), properties, duvo));
            int syncCalls = 0;
            auto sync = polled->subscribe(DataEventFilter<T>(), [&](Subscriber& self, const DataEvent<T>&) {
                if (syncCalls++ != 0) return;
                std::this_thread::sleep_for(100ms); // the server keeps writing: a delivery arrives meanwhile
                if (destroy)
                    polled.reset();
                else
                    self.close();
            });
            const auto stop = std::chrono::steady_clock::now() + 10s;
            while (syncCalls == 0 && std::chrono::steady_clock::now() < stop) {
                polled->poll(1, 0ms); // the first scan only
                if (syncCalls == 0) std::this_thread::sleep_for(2ms);
            }
            ASSERT_EQ(syncCalls, 1);
            if (destroy) {
                EXPECT_EQ(polled, nullptr);
            } else {
                EXPECT_THROW(polled->read(0), vesk::duvo::IllegalStateException);
                polled.reset();
            }
            flushDeliveries(*client);
            EXPECT_EQ(syncCalls, 1);
        }
    }
}

TEST_F(Lifetime, racing_closes_shut_down_once) {
    ServerWriter writer(*simulator);
    for (const Properties& properties :
         {Properties{{"opc.ps.pollingPeriodMs", "0"}},
          Properties{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "2"}}}) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            auto queued = make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0"), properties, duvo);
            auto pair = make<OpcUaSubscriber<Pair, PairBinding>>(pairUri(), properties, duvo);
            std::atomic<int> closed{0};
            std::atomic<int> refused{0};
            std::atomic<bool> go{false};
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; ++t)
                threads.emplace_back([&] {
                    while (!go.load()) std::this_thread::yield();
                    try {
                        queued->close();
                        ++closed;
                    } catch (const vesk::duvo::IllegalStateException& e) {
                        EXPECT_EQ(std::string(e.what()), "Entity closed. Uri:" + psUri("M2Int32Value0"));
                        ++refused;
                    }
                    try {
                        pair->close();
                    } catch (const vesk::duvo::IllegalStateException&) {
                        // another thread closed it
                    }
                });
            go = true;
            for (auto& thread : threads) thread.join();
            EXPECT_EQ(closed.load(), 1);
            EXPECT_EQ(refused.load(), 3);
        }
    }
}

TEST_F(Lifetime, connection_loss_during_polls) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    ServerWriter writer(*simulator);
    const std::string uri = psUri("M2Int32Value0", proxy.endpoint());
    const Properties polled{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "100"}};
    auto queued = make<OpcUaSubscriber<T, ST>>(uri, polled, duvo);
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri, polled, duvo);
    auto pair = make<OpcUaSubscriber<Pair, PairBinding>>(pairUri(proxy.endpoint()), {{"opc.ps.pollingPeriodMs", "0"}},
                                                         duvo);
    ASSERT_TRUE(receivesAny(*queued));

    const DataEventFilter<T> gone(nullptr, vesk::duvo::ps::InstanceState::NotAlive, {});
    for (int outage = 0; outage < 3; ++outage) {
        proxy.closeAll(); // polls in progress lose their connection
        std::vector<std::shared_ptr<DataEvent<T>>> events;
        queued->readDataEvents(gone, events, 1, 5000ms);
        ASSERT_EQ(events.size(), 1u) << "outage " << outage << " went unreported";
        EXPECT_FALSE(events[0]->hasValidData());
        std::this_thread::sleep_for(std::chrono::milliseconds(50 * outage));
        proxy.passThrough();
        queued->read(0);
        EXPECT_TRUE(receivesAny(*queued)) << "no data after outage " << outage;
    }
    EXPECT_EQ(mostRecent->readMostRecent(0ms).size(), 1u); // the last value stayed

    // Destroyed in the middle of an outage, with polls failing.
    proxy.closeAll();
    std::this_thread::sleep_for(30ms);
    queued.reset();
    mostRecent.reset();
    pair.reset();
    proxy.passThrough();
}

TEST_F(Lifetime, calls_and_writes_in_flight_when_the_client_goes) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    std::vector<boost::future<bool>> calls;
    {
        // A middleware of its own, so that the client goes with these entities.
        auto own = std::make_shared<OpcUaDuvo>();
        AsyncClient client(rrUri("PsRpcSetpower", "RPC_SetPower", proxy.endpoint()), RrQoS{}, Properties{}, own);
        auto publisher = makePublisher(psUri("M2Int32Value0", proxy.endpoint()), own);
        ASSERT_TRUE(client.RPC_SetPower(true).get()); // connected
        proxy.delayReplies(2000ms);
        ST sample;
        for (int i = 0; i < 20; ++i) {
            calls.push_back(client.RPC_SetPower(true));
            sample.setValue0(i);
            publisher->publish(sample, 0ms);
        }
        client.close();
        publisher->close();
    } // the last holders of the client are gone: it shuts down with replies outstanding
    for (auto& call : calls) {
        ASSERT_TRUE(completes(call, 5000ms));
    }
    proxy.passThrough();
}

} // namespace
