// Entities closed and destroyed from several threads while notifications, polls and replies
// are in flight and the connection misbehaves underneath. Meant for the sanitizer builds:
// what it asserts is that nothing crashes, hangs or reports an unknown failure.
#include "faults/faultRig.hpp"

namespace duvo::faults {
namespace {

class Teardown : public duvo::test::SimulatorSuite {};

TEST_F(Teardown, entities_go_in_any_order_while_the_connection_fails) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    const std::string endpoint = proxy.endpoint();
    Device device(*simulator);
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::atomic<int> unknown{0};
    std::atomic<int> hung{0};

    // The connection underneath: slow, cut, silent and whole again, over and over.
    std::thread chaos([&] {
        std::mt19937 random(7);
        while (!stop.load()) {
            switch (random() % 4) {
            case 0:
                proxy.delayReplies(std::chrono::milliseconds(random() % 80));
                break;
            case 1:
                proxy.closeAll();
                break;
            case 2:
                proxy.blackhole();
                break;
            default:
                proxy.passThrough();
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 250));
        }
        proxy.passThrough();
    });

    // A publish says its own timeout, never the client's; a call's future carries the client's reason.
    const auto checkFailure = [&](bool expected, const std::string& text) {
        if (!expected) {
            ++unknown;
            ADD_FAILURE() << "unexpected failure: " << text;
        }
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(100 + t);
            const auto chance = [&random](int percent) { return static_cast<int>(random() % 100) < percent; };
            const Properties monitoredProps{{"opc.ps.pollingPeriodMs", "0"}};
            const Properties polledProps{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "5"}};
            const std::string uri = psUri("M2Int32Value0", endpoint);
            while (!stop.load()) {
                // Some rounds have a middleware of their own, so that the client goes with them.
                auto own = chance(30) ? std::make_shared<OpcUaDuvo>() : duvo;
                auto queued = make<OpcUaSubscriber<T, ST>>(uri, chance(50) ? monitoredProps : polledProps, own);
                auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri, chance(50) ? monitoredProps : polledProps, own);
                std::atomic<int> delivered{0};
                auto subscription =
                    queued->subscribeAsync(DataEventFilter<T>(), [&delivered](vesk::duvo::ps::Subscriber<T>&,
                                                                              const DataEvent<T>&) { ++delivered; });
                auto publisher = make<OpcUaPublisher<P, PT>>(psUri("M2FloatVector6", endpoint), {}, own);
                auto caller = std::make_unique<AsyncClient>(rrUri("PsRpcSetpower", "RPC_SetPower", endpoint),
                                                            replyTime(std::chrono::milliseconds(20 + random() % 200)),
                                                            Properties{{"opc.asyncCallSubmitTimeoutMs", "100"}}, own);
                std::vector<boost::future<bool>> kept;
                const int steps = 3 + static_cast<int>(random() % 20);
                for (int i = 0; i < steps; ++i) {
                    try {
                        publisher->publish(applicationSample(i), std::chrono::milliseconds(chance(50) ? 0 : 30));
                    } catch (const std::exception& e) {
                        checkFailure(isPublishFailure(e.what()), e.what());
                    }
                    auto call = caller->RPC_SetPower(true);
                    if (chance(40)) kept.push_back(std::move(call)); // the rest are dropped in flight
                    queued->read(0);
                    mostRecent->readMostRecent(0ms);
                    if (chance(30)) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
                }
                // Gone in a random order, closed first or not.
                if (chance(50)) caller->close();
                if (chance(50)) caller.reset();
                if (chance(50)) publisher->close();
                if (chance(50)) queued->close();
                if (chance(50)) mostRecent->close();
                if (chance(50)) subscription->close();
                if (chance(50)) publisher.reset();
                queued.reset();
                mostRecent.reset();
                subscription.reset();
                publisher.reset();
                caller.reset();
                own.reset();
                for (auto& call : kept) {
                    if (call.wait_for(boost::chrono::seconds(10)) != boost::future_status::ready) {
                        ++hung;
                        continue;
                    }
                    try {
                        call.get();
                    } catch (const std::exception& e) {
                        checkFailure(isClientFailure(e.what()), e.what());
                    }
                }
                ++rounds;
            }
        });

    // A server restart in the middle of it all.
    std::this_thread::sleep_for(2s);
    simulator->restart();
    std::this_thread::sleep_for(3s);
    stop = true;
    for (auto& thread : threads) thread.join();
    chaos.join();
    std::printf("[figures] teardown: %d rounds of create, use and destroy\n", rounds.load());
    EXPECT_EQ(hung.load(), 0);
    EXPECT_EQ(unknown.load(), 0);
    EXPECT_GT(rounds.load(), 4);

    // The shared middleware still works afterwards.
    Watched after("after", make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0", endpoint),
                                                        {{"opc.ps.pollingPeriodMs", "0"}}, duvo));
    EXPECT_TRUE(after.waitForValue(device.mark(), Clock::now() + 15s));
    AsyncClient caller(rrUri("PsRpcSetpower", "RPC_SetPower", endpoint), RrQoS{}, Properties{}, duvo);
    EXPECT_TRUE(caller.RPC_SetPower(true).get());
}

} // namespace
} // namespace duvo::faults
