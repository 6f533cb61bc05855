// A server that goes away and comes back, again and again, while publishers, monitored and
// polled subscribers and callers keep working on one endpoint.
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "faults/faultRig.hpp"

namespace duvo::faults {
namespace {

constexpr int restarts = 20;

class Restarts : public duvo::test::SimulatorSuite {};

/// A refused request: what it said and how long it took.
struct Refusal {
    std::string text;
    double ms = 0;
    bool refused = false;
};

template <class F>
Refusal timed(F request) {
    Refusal out;
    const auto start = Clock::now();
    try {
        request();
    } catch (const std::exception& e) {
        out.text = e.what();
        out.refused = true;
    }
    out.ms = msSince(start);
    return out;
}

TEST_F(Restarts, every_outage_is_reported_once_and_everything_flows_again) {
    Device device(*simulator);
    const std::string endpoint = simulator->endpoint();
    const std::string deviceUri = psUri("M2Int32Value0");
    const Properties monitoredProps{{"opc.ps.pollingPeriodMs", "0"}};
    // The period is also the read deadline: long enough that no read times out on a slow build
    // (a read that times out is reported as not alive, which would count as an outage here).
#ifdef __SANITIZE_THREAD__
    const Properties polledProps{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "1000"}};
#else
    const Properties polledProps{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "200"}};
#endif

    Watched monitored("monitored", make<OpcUaSubscriber<T, ST>>(deviceUri, monitoredProps, duvo));
    // Default properties (items sampled every 1000 ms), on a client of its own: the others'
    // interval of 0 would otherwise set the pace.
    Watched defaulted("monitored, default",
                      make<OpcUaSubscriber<T, ST>>(deviceUri, Properties{}, std::make_shared<OpcUaDuvo>()));
    Watched polled("polled", make<OpcUaSubscriber<T, ST>>(deviceUri, polledProps, duvo));
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(deviceUri, monitoredProps, duvo);
    auto publisher = std::make_shared<OpcUaPublisher<P, PT>>(psUri("M2FloatVector6"), PsQoS{}, Properties{}, duvo);
    publisher->setState(EntityState::Initialized);
    AsyncClient caller(rrUri("PsRpcSetpower", "RPC_SetPower"), RrQoS{}, {{"opc.asyncCallSubmitTimeoutMs", "300"}}, duvo);
    SyncClient syncCaller(rrUri("PsRpcSetpower", "RPC_SetPower"), replyTime(300ms), Properties{}, duvo);

    // The application's steady traffic, through every outage.
    Outcomes publishes, calls;
    {
        Loop publishing([&, i = 0]() mutable {
            try {
                publisher->publish(applicationSample(++i), 200ms);
                publishes.ok();
            } catch (const std::exception& e) {
                publishes.failed(e.what());
            }
            std::this_thread::sleep_for(5ms);
        });
        Loop calling([&] {
            auto call = caller.RPC_SetPower(true);
            if (call.wait_for(boost::chrono::seconds(10)) != boost::future_status::ready) {
                calls.failed("a call never completed");
                return;
            }
            try {
                call.get();
                calls.ok();
            } catch (const std::exception& e) {
                calls.failed(e.what());
            }
            std::this_thread::sleep_for(5ms);
        });

        Figures monitoredBack("restart: server back -> monitored sample");
        Figures defaultBack("restart: server back -> monitored, default props");
        Figures polledBack("restart: server back -> polled sample");
        Figures mostRecentBack("restart: server back -> most-recent value");
        Figures publishBack("restart: server back -> publish done");
        Figures callBack("restart: server back -> call done");
        Figures lossSeen("restart: server stop -> monitored not-alive");
        Figures publishOver("outage: publish 250 ms, overshoot");
        Figures callOver("outage: async call submit 300 ms, overshoot");
        Figures syncOver("outage: sync call reply 300 ms, overshoot");

        const std::string notConnected = "not connected: no session with " + endpoint + " before the deadline";
        ASSERT_TRUE(monitored.waitForValue(device.mark(), Clock::now() + 10s));
        ASSERT_TRUE(defaulted.waitForValue(device.mark(), Clock::now() + 10s));
        ASSERT_TRUE(polled.waitForValue(device.mark(), Clock::now() + 10s));
        for (int outage = 1; outage <= restarts; ++outage) {
            SCOPED_TRACE("outage " + std::to_string(outage));
            monitored.pump();
            defaulted.pump();
            polled.pump();
            // Each outage of the previous round was reported exactly once, and never with data.
            EXPECT_EQ(monitored.notAlive, outage - 1);
            EXPECT_EQ(defaulted.notAlive, outage - 1);
            EXPECT_EQ(polled.notAlive, outage - 1);

            const auto stopped = Clock::now();
            simulator->stop();
            ASSERT_TRUE(monitored.waitForNotAlive(outage, Clock::now() + 10s));
            lossSeen.add(msSince(stopped));

            // Requests made now fail at their deadlines.
            auto publish = std::async(std::launch::async, [&] {
                return timed([&] { publisher->publish(applicationSample(0), 250ms); });
            });
            auto call = std::async(std::launch::async, [&] { return timed([&] { caller.RPC_SetPower(false).get(); }); });
            auto syncCall = std::async(std::launch::async, [&] { return timed([&] { syncCaller.RPC_SetPower(false); }); });
            const Refusal p = publish.get(), c = call.get(), s = syncCall.get();
            ASSERT_TRUE(p.refused && c.refused && s.refused);
            EXPECT_EQ(p.text, "timeout when publishing"); // never the client's "not connected"
            EXPECT_EQ(c.text, notConnected);
            EXPECT_EQ(s.text, "timeout when waiting for data");
            for (const auto& [r, deadline, figures] :
                 {std::tuple{p, 250.0, &publishOver}, std::tuple{c, 300.0, &callOver}, std::tuple{s, 300.0, &syncOver}}) {
                EXPECT_GE(r.ms, deadline - 1);
                EXPECT_LE(r.ms, deadline + 500);
                figures->add(r.ms - deadline);
            }

            ASSERT_TRUE(polled.waitForNotAlive(outage, Clock::now() + 10s));
            // The most-recent value hears nothing of the outage: the last value stays current.
            const auto kept = mostRecent->readMostRecent(0ms);
            ASSERT_EQ(kept.size(), 1u);
            ASSERT_NE(kept[0], nullptr);

            simulator->start();
            const auto back = Clock::now();
            const std::int32_t mark = device.mark();
            const auto until = back + 10s;
            ASSERT_TRUE(monitored.waitForValue(mark, until)) << "no monitored sample after the restart";
            monitoredBack.add(msSince(back));
            ASSERT_TRUE(polled.waitForValue(mark, until)) << "no polled sample after the restart";
            polledBack.add(msSince(back));
            while (Clock::now() < until) {
                const auto current = mostRecent->readMostRecent(0ms);
                if (current.size() == 1 && current[0]->getValue0() >= mark) break;
                std::this_thread::sleep_for(2ms);
            }
            ASSERT_GE(mostRecent->readMostRecent(0ms).at(0)->getValue0(), mark);
            mostRecentBack.add(msSince(back));
            const double published = publishes.firstOkAfter(back, until);
            ASSERT_GE(published, 0) << "no publish succeeded after the restart";
            publishBack.add(published);
            const double called = calls.firstOkAfter(back, until);
            ASSERT_GE(called, 0) << "no call succeeded after the restart";
            callBack.add(called);
            // The first value of a slowly sampled item does not wait for its sampling interval.
            ASSERT_TRUE(defaulted.waitForValue(mark, until)) << "no sample with default properties after the restart";
            defaultBack.add(msSince(back));
        }
        // Nothing late: give a stray report time to arrive.
        std::this_thread::sleep_for(500ms);
        monitored.pump();
        defaulted.pump();
        polled.pump();
        EXPECT_EQ(monitored.notAlive, restarts);
        EXPECT_EQ(defaulted.notAlive, restarts);
        EXPECT_EQ(polled.notAlive, restarts);
        for (const Watched* w : {&monitored, &defaulted, &polled}) {
            EXPECT_EQ(w->notAliveWithData, 0) << w->name;
            EXPECT_EQ(w->emptyAlive, 0) << w->name;
        }
    }

    // Failures of the steady traffic are the ones an outage explains.
    std::printf("[figures] publishes %ld done, %ld failed; calls %ld done, %ld failed\n", publishes.done(),
                publishes.failures(), calls.done(), calls.failures());
    for (const auto& text : publishes.texts()) EXPECT_TRUE(isPublishFailure(text)) << text;
    for (const auto& text : calls.texts()) EXPECT_TRUE(isClientFailure(text)) << text;
    EXPECT_GT(publishes.done(), restarts);
    EXPECT_GT(calls.done(), restarts);
}

} // namespace
} // namespace duvo::faults
