// A server that goes away and comes back, or a connection that goes silent and speaks again
// (the proxy keeps both sockets open and drops every reply, as a cut cable or a hung device
// would, and nothing tells the client), again and again, while publishers, monitored and
// polled subscribers and callers keep working on one endpoint.
#include "faults/faultRig.hpp"

namespace duvo::test {
namespace {

class Outages : public SimulatorSuite {
protected:
    /// `outages` times: the server stops and starts again, or (silent) the proxy drops every
    /// reply and forwards again. Each outage is reported once, never with data, and
    /// everything flows again afterwards.
    void run(bool silent, int outages);
};

void Outages::run(bool silent, int outages) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    Device device(*simulator);
    const std::string endpoint = silent ? proxy.endpoint() : simulator->endpoint();
    const std::string deviceUri = psUri("M2Int32Value0", endpoint);
    // The period is also the read deadline: long enough that no read times out on a slow build
    // (a read that times out is reported as not alive, which would count as an outage here).
#ifdef __SANITIZE_THREAD__
    const Properties polling = polledProps(1000);
#else
    const Properties polling = polledProps(200);
#endif

    Watched monitored("monitored", make<OpcUaSubscriber<T, ST>>(deviceUri, monitoredProps, duvo));
    // Default properties (items sampled every 1000 ms), on a client of its own: the others'
    // interval of 0 would otherwise set the pace.
    Watched defaulted("monitored, default",
                      make<OpcUaSubscriber<T, ST>>(deviceUri, Properties{}, std::make_shared<OpcUaDuvo>()));
    Watched polled("polled", make<OpcUaSubscriber<T, ST>>(deviceUri, polling, duvo));
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(deviceUri, monitoredProps, duvo);
    auto publisher = make<OpcUaPublisher<P, PT>>(psUri("M2FloatVector6", endpoint), {}, duvo);
    const std::string rr = rrUri("PsRpcSetpower", "RPC_SetPower", endpoint);
    AsyncClient caller(rr, replyTime(300ms), {{"opc.asyncCallSubmitTimeoutMs", "300"}}, duvo);
    SyncClient syncCaller(rr, replyTime(300ms), Properties{}, duvo);
    // A stopped server leaves no session; a silent one was sent the call and never answers.
    const std::string callText = silent ? "timeout: no reply from " + endpoint + " before the deadline"
                                        : "not connected: no session with " + endpoint + " before the deadline";

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

        const std::string name = silent ? "silence: " : "restart: ";
        const std::string back = silent ? "silence: forwarding resumes -> " : "restart: server back -> ";
        Figures monitoredBack(back + "monitored sample"), defaultBack(back + "monitored, default props"),
            polledBack(back + "polled sample"), mostRecentBack(back + "most-recent value"),
            publishBack(back + "publish done"), callBack(back + "call done"),
            lossSeen(name + "outage -> monitored not-alive"), publishOver(name + "publish 300 ms, overshoot"),
            callOver(name + "async call 300 ms, overshoot"), syncOver(name + "sync call reply 300 ms, overshoot");

        ASSERT_TRUE(monitored.waitForValue(device.mark(), Clock::now() + 10s));
        ASSERT_TRUE(defaulted.waitForValue(device.mark(), Clock::now() + 10s));
        ASSERT_TRUE(polled.waitForValue(device.mark(), Clock::now() + 10s));
        for (int outage = 1; outage <= outages; ++outage) {
            SCOPED_TRACE("outage " + std::to_string(outage));
            for (Watched* w : {&monitored, &defaulted, &polled}) {
                w->pump();
                // Each outage of the previous round was reported exactly once.
                EXPECT_EQ(w->notAlive, outage - 1) << w->name;
            }

            const auto cut = Clock::now();
            if (silent) {
                proxy.blackhole();
            } else {
                simulator->stop();
                ASSERT_TRUE(monitored.waitForNotAlive(outage, cut + 10s));
            }
            // Requests made now fail at their deadlines.
            auto publish = std::async(std::launch::async,
                                      [&] { return timed([&] { publisher->publish(applicationSample(0), 300ms); }); });
            auto call =
                std::async(std::launch::async, [&] { return timed([&] { caller.RPC_SetPower(false).get(); }); });
            auto syncCall =
                std::async(std::launch::async, [&] { return timed([&] { syncCaller.RPC_SetPower(false); }); });
            const Refusal p = publish.get(), c = call.get(), s = syncCall.get();
            ASSERT_TRUE(p.refused && c.refused && s.refused);
            // The publisher's wait and the client's deadline end together; the publisher tells.
            EXPECT_EQ(p.text, "timeout when publishing");
            EXPECT_TRUE(p.timedOut);
            EXPECT_EQ(c.text, callText);
            EXPECT_TRUE(c.timedOut || !silent);
            EXPECT_TRUE(s.text == "timeout when waiting for data" || (silent && s.text == callText)) << s.text;
            for (const auto& [r, figures] :
                 {std::pair{p, &publishOver}, std::pair{c, &callOver}, std::pair{s, &syncOver}}) {
                EXPECT_GE(r.ms, 299);
                EXPECT_LE(r.ms, 800);
                figures->add(r.ms - 300);
            }

            // A silence: the poller's reads time out first; the connection check notices it.
            ASSERT_TRUE(polled.waitForNotAlive(outage, cut + 10s));
            ASSERT_TRUE(monitored.waitForNotAlive(outage, cut + 10s));
            lossSeen.add(msSince(cut));
            EXPECT_LE(msSince(cut), 6000) << "the outage went unnoticed too long";
            // The most-recent value hears nothing of the outage: the last value stays current.
            const auto kept = mostRecent->readMostRecent(0ms);
            ASSERT_EQ(kept.size(), 1u);
            ASSERT_NE(kept[0], nullptr);
            const std::int32_t keptValue = kept[0]->getValue0();
            if (silent) {
                // Stay silent a while: no second report for the same loss, and nothing new lands.
                std::this_thread::sleep_for(500ms);
                monitored.pump();
                polled.pump();
                EXPECT_EQ(monitored.notAlive, outage);
                EXPECT_EQ(polled.notAlive, outage);
                EXPECT_EQ(mostRecent->readMostRecent(0ms).at(0)->getValue0(), keptValue);
                proxy.passThrough();
            } else {
                simulator->start();
            }

            const auto restored = Clock::now();
            const std::int32_t mark = device.mark();
            const auto until = restored + (silent ? 15s : 10s);
            ASSERT_TRUE(monitored.waitForValue(mark, until)) << "no monitored sample after the outage";
            monitoredBack.add(msSince(restored));
            ASSERT_TRUE(polled.waitForValue(mark, until)) << "no polled sample after the outage";
            polledBack.add(msSince(restored));
            eventually([&] { return mostRecent->readMostRecent(0ms).at(0)->getValue0() >= mark; },
                       std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()));
            ASSERT_GE(mostRecent->readMostRecent(0ms).at(0)->getValue0(), mark);
            mostRecentBack.add(msSince(restored));
            const double published = publishes.firstOkAfter(restored, until);
            ASSERT_GE(published, 0) << "no publish succeeded after the outage";
            publishBack.add(published);
            const double called = calls.firstOkAfter(restored, until);
            ASSERT_GE(called, 0) << "no call succeeded after the outage";
            callBack.add(called);
            // The first value of a slowly sampled item does not wait for its sampling interval.
            ASSERT_TRUE(defaulted.waitForValue(mark, until)) << "no sample with default properties after the outage";
            defaultBack.add(msSince(restored));
        }
        // Nothing late: give a stray report time to arrive.
        std::this_thread::sleep_for(500ms);
        for (Watched* w : {&monitored, &defaulted, &polled}) {
            w->pump();
            EXPECT_EQ(w->notAlive, outages) << w->name;
            EXPECT_EQ(w->notAliveWithData, 0) << w->name;
            EXPECT_EQ(w->emptyAlive, 0) << w->name;
        }
    }

    // Failures of the steady traffic are the ones an outage explains.
    std::printf("[figures] publishes %ld done, %ld failed; calls %ld done, %ld failed\n", publishes.done(),
                publishes.failures(), calls.done(), calls.failures());
    for (const auto& text : publishes.texts()) EXPECT_TRUE(isPublishFailure(text)) << text;
    for (const auto& text : calls.texts()) EXPECT_TRUE(isClientFailure(text)) << text;
    EXPECT_GT(publishes.done(), outages);
    EXPECT_GT(calls.done(), outages);
}

class Restarts : public Outages {};
class Silence : public Outages {};

TEST_F(Restarts, every_outage_is_reported_once_and_everything_flows_again) { run(false, 20); }

TEST_F(Silence, the_loss_is_noticed_reported_once_and_forwarding_brings_the_data_back) { run(true, 3); }

} // namespace
} // namespace duvo::test
