// Entities closed and destroyed while notifications, poll timers and call replies are still
// in flight, from several threads; run these under the sanitizers.
#include <cstdint>
#include <random>

#include <boost/asio/post.hpp>
#include <boost/thread/future.hpp>

#include "entities/pairSample.hpp"
#include "support/servers.hpp"

namespace duvo::test {
namespace {

using Subscriber = vesk::duvo::ps::Subscriber<T>;
using AsyncClient = m2Types::PsRpcSetpowerAsync;
const Properties monitoredOrPolled[] = {monitoredProps, polledProps(2)};

/// Completed within the time, with a result or with one of the client's failures.
::testing::AssertionResult completes(boost::future<bool>& future, std::chrono::milliseconds within = kWait) {
    if (future.wait_for(boost::chrono::milliseconds(within.count())) != boost::future_status::ready)
        return ::testing::AssertionFailure() << "a call never completed";
    const std::string text = failure([&] { future.get(); });
    if (text.empty()) return ::testing::AssertionSuccess();
    for (const char* prefix : {"timeout", "not connected", "connection lost", "client shut down", "request failed"})
        if (text.rfind(prefix, 0) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "unexpected failure: " << text;
}

/// A Loop's step that writes the two nodes, as a device would.
auto writesOf(Server& server) {
    return [&server, i = 0]() mutable {
        try {
            server.writeValue<T>(++i);
            server.writeValue<m2Types::M2FloatValue0>(static_cast<float>(i));
        } catch (const std::exception&) {
            // the server is restarting
        }
        std::this_thread::sleep_for(1ms);
    };
}

class Lifetime : public OnSimulator {
protected:
    static std::string pairUri(const std::string& endpoint = simulator->endpoint()) {
        return psUri("M2Int32Value0", endpoint) + "," + vesk::duvo::sim::fieldNodeId("M2FloatValue0");
    }

    /// Returns once whatever the client's delivery thread is doing now has finished.
    static void flushDeliveries(vesk::duvo::opcua::detail::OpcUaClient& client) {
        boost::promise<void> flushed;
        boost::asio::post(client.ioContext(), [&flushed] { flushed.set_value(); });
        flushed.get_future().wait();
    }

    /// Drops the subscriber, as the middleware hands it out, in its own asynchronous callback;
    /// the number of calls, -1 when none came.
    template <class Type>
    int dropInOwnCallback(const std::shared_ptr<OpcUaDuvo>& middleware,
                          std::unique_ptr<vesk::duvo::ps::Subscriber<Type>> subscriber) {
        const auto client = middleware->getClient(simulator->endpoint(), {}); // outlives the subscriber
        std::atomic<int> calls{0};
        std::atomic<bool> dropped{false};
        subscriber->subscribeAsync(DataEventFilter<Type>(),
                                   [&](vesk::duvo::ps::Subscriber<Type>&, const DataEvent<Type>&) {
                                       if (calls++ != 0) return;
                                       subscriber.reset();
                                       dropped = true;
                                   });
        if (!eventually([&] { return dropped.load(); })) return -1;
        flushDeliveries(*client);
        return calls.load();
    }
};

TEST_F(Lifetime, threads_create_use_and_drop_entities_while_the_server_writes_and_the_connection_fails) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    const std::string endpoint = proxy.endpoint();
    Loop writer(writesOf(*server));
    const auto monitoring = middleware(monitoredProps);
    const auto polling = middleware(polledProps(5));
    const std::string uri = psUri("M2Int32Value0", endpoint);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};

    // The connection underneath: slow, cut, silent and whole again, and one server restart.
    std::thread chaos([&] {
        std::mt19937 random(7);
        for (int step = 0; !stop.load(); ++step) {
            switch (step == 8 ? 4 : random() % 4) {
            case 0:
                proxy.delayReplies(std::chrono::milliseconds(random() % 80));
                break;
            case 1:
                proxy.closeAll();
                break;
            case 2:
                proxy.blackhole();
                break;
            case 3:
                proxy.passThrough();
                break;
            default:
                simulator->restart();
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 250));
        }
        proxy.passThrough();
    });

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(1234 + t);
            const auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
            std::vector<boost::future<bool>> kept;
            // Every kind at least twice, and on until the chaos ends.
            for (int round = 0; round < 10 || !stop.load(); ++round) {
                const int kind = (t + round) % 5;
                // Some rounds have a middleware of their own, so that the client goes with them.
                const bool alone = chance(30);
                const auto m =
                    !alone ? (kind % 2 ? polling : monitoring) : middleware(kind % 2 ? polledProps(5) : monitoredProps);
                std::shared_ptr<Subscriber> queued;
                std::shared_ptr<vesk::duvo::ps::MrvSubscriber<T>> mostRecent;
                std::shared_ptr<vesk::duvo::ps::Subscriber<Pair>> pair;
                if (kind < 2)
                    queued = m->createSubscriber<T>(uri);
                else if (kind < 4)
                    mostRecent = m->createMrvSubscriber<T>(uri);
                else
                    pair = pairSubscriber(pairUri(endpoint), monitoredProps, m);
                std::atomic<int> delivered{0};
                std::unique_ptr<vesk::duvo::ps::Subscription> subscription;
                if (queued && chance(50))
                    subscription = queued->subscribeAsync(
                        DataEventFilter<T>(), [&delivered](Subscriber&, const DataEvent<T>&) { ++delivered; });
                auto publisher = (alone ? m : duvo)->createPublisher<T>(uri);
                auto client =
                    (alone ? m : duvo)
                        ->createClient<AsyncClient>(rrUri("PsRpcSetpower", "RPC_SetPower", endpoint),
                                                    replyTime(std::chrono::milliseconds(20 + random() % 200)));
                auto sample = publisher->createDataEntity();
                const int steps = 5 + static_cast<int>(random() % 25);
                for (int i = 0; i < steps; ++i) {
                    sample->setValue0(t * 100000 + round * 1000 + i);
                    // A publish that waits says its own timeout, or why the client lost it.
                    const std::string text = failure([&] { publisher->publish(*sample, chance(50) ? 0ms : 30ms); });
                    if (!text.empty() && !isPublishFailure(text)) {
                        ++failures;
                        ADD_FAILURE() << "unexpected failure: " << text;
                    }
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
    std::this_thread::sleep_for(5s);
    stop = true;
    for (auto& thread : threads) thread.join();
    chaos.join();
    EXPECT_EQ(failures.load(), 0);

    // Everything still works on the same middleware afterwards.
    const auto after = monitoring->createSubscriber<T>(uri);
    EXPECT_TRUE(eventually([&] { return !after->read(0).empty(); }, 15s));
    EXPECT_TRUE(
        duvo->createClient<AsyncClient>(rrUri("PsRpcSetpower", "RPC_SetPower", endpoint))->RPC_SetPower(true).get());
}

TEST_F(Lifetime, subscribers_stop_when_destroyed_and_may_close_or_destroy_themselves_from_their_own_callbacks) {
    Loop writer(writesOf(*server));
    for (const Properties& properties : monitoredOrPolled) {
        const auto m = middleware(properties);
        const auto client = m->getClient(simulator->endpoint(), {}); // outlives the subscribers
        {
            std::atomic<int> delivered{0};
            auto subscriber = m->createSubscriber<T>(psUri("M2Int32Value0"));
            auto subscription = subscriber->subscribeAsync(
                DataEventFilter<T>(), [&delivered](Subscriber&, const DataEvent<T>&) { ++delivered; });
            ASSERT_TRUE(eventually([&] { return delivered.load() >= 5; }));
            subscriber.reset(); // no close(): the destructor stops the monitor and the poller
            const int after = delivered.load();
            std::this_thread::sleep_for(100ms);
            EXPECT_EQ(delivered.load(), after);
            subscription->close(); // harmless once the subscriber is gone
        }

        auto subscriber = m->createSubscriber<T>(psUri("M2Int32Value0"));
        std::atomic<int> closes{0};
        auto subscription =
            subscriber->subscribeAsync(DataEventFilter<T>(), [&closes](Subscriber& self, const DataEvent<T>&) {
                if (closes++ == 0) self.close();
            });
        // The store closes last: once reads fail, the whole close has happened.
        ASSERT_TRUE(eventually([&] { return failure([&] { subscriber->read(0); }) != ""; }));
        // Destroyed at once, while the delivery that closed it may still be leaving the store.
        subscriber.reset();
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(closes.load(), 1);

        // The one-shot pattern: the application drops the subscriber it was given inside the
        // subscriber's own delivery.
        EXPECT_EQ(dropInOwnCallback<T>(m, m->createSubscriber<T>(psUri("M2Int32Value0"))), 1);
        EXPECT_EQ(dropInOwnCallback<Pair>(m, pairSubscriber(pairUri(), properties, m)), 1);

        // A synchronous callback closes, or drops, the subscriber inside poll's first scan
        // while a delivery waits to enter the store.
        for (const bool destroy : {false, true}) {
            std::unique_ptr<Subscriber> polled = m->createSubscriber<T>(psUri("M2Int32Value0"));
            int syncCalls = 0;
            auto sync = polled->subscribe(DataEventFilter<T>(), [&](Subscriber& self, const DataEvent<T>&) {
                if (syncCalls++ != 0) return;
                std::this_thread::sleep_for(100ms); // the server keeps writing: a delivery arrives meanwhile
                if (destroy)
                    polled.reset();
                else
                    self.close();
            });
            eventually([&] {
                polled->poll(1, 0ms); // the first scan only
                return syncCalls != 0;
            });
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
    Loop writer(writesOf(*server));
    for (const Properties& properties : monitoredOrPolled) {
        const auto m = middleware(properties);
        for (int attempt = 0; attempt < 5; ++attempt) {
            auto queued = m->createSubscriber<T>(psUri("M2Int32Value0"));
            auto pair = pairSubscriber(pairUri(), properties, m);
            std::atomic<int> closed{0}, refused{0};
            std::atomic<bool> go{false};
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; ++t)
                threads.emplace_back([&] {
                    while (!go.load()) std::this_thread::yield();
                    const std::string text = failure<vesk::duvo::IllegalStateException>([&] { queued->close(); });
                    ++(text.empty() ? closed : refused);
                    EXPECT_TRUE(text.empty() || text == "Entity closed. Uri:" + psUri("M2Int32Value0")) << text;
                    failure<vesk::duvo::IllegalStateException>([&] { pair->close(); }); // another thread closed it
                });
            go = true;
            for (auto& thread : threads) thread.join();
            EXPECT_EQ(closed.load(), 1);
            EXPECT_EQ(refused.load(), 3);
        }
    }
}

TEST_F(Lifetime, calls_and_writes_in_flight_when_the_client_goes) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    std::vector<boost::future<bool>> calls;
    {
        // A middleware of its own, so that the client goes with these entities.
        auto own = middleware();
        auto client = own->createClient<AsyncClient>(rrUri("PsRpcSetpower", "RPC_SetPower", proxy.endpoint()));
        auto publisher = own->createPublisher<T>(psUri("M2Int32Value0", proxy.endpoint()));
        ASSERT_TRUE(client->RPC_SetPower(true).get()); // connected
        proxy.delayReplies(2000ms);
        auto sample = publisher->createDataEntity();
        for (int i = 0; i < 20; ++i) {
            calls.push_back(client->RPC_SetPower(true));
            sample->setValue0(i);
            publisher->publish(*sample, 0ms);
        }
        client->close();
        publisher->close();
    } // the last holders of the client are gone: it shuts down with replies outstanding
    for (auto& call : calls) ASSERT_TRUE(completes(call, 5000ms));
    proxy.passThrough();
}

} // namespace
} // namespace duvo::test
