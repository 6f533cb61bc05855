// A server that answers late or not at all: every wait ends at its own deadline, from many
// threads at once, and a reply that comes after its deadline harms nothing.
#include "faults/faultRig.hpp"

namespace duvo::test {
namespace {

class SlowServer : public SimulatorSuite {
protected:
    /// Runs request, which must fail with one of the texts, and checks when it ended.
    template <class F>
    void expectRefusedAt(double deadlineMs, const std::vector<std::string>& texts, Figures& figures, F request) {
        const Refusal r = timed(request);
        EXPECT_TRUE(r.refused);
        EXPECT_NE(std::find(texts.begin(), texts.end(), r.text), texts.end()) << r.text;
        EXPECT_GE(r.ms, deadlineMs - 1);
        EXPECT_LE(r.ms, deadlineMs + 500) << r.text;
        figures.add(r.ms - deadlineMs);
    }
};

TEST_F(SlowServer, deadlines_hold_for_every_request_from_many_threads_and_for_a_slow_method) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    const std::string endpoint = proxy.endpoint();
    auto publisher = make<OpcUaPublisher<P, PT>>(psUri("M2FloatVector6", endpoint), {}, duvo);
    const std::string rr = rrUri("PsRpcSetpower", "RPC_SetPower", endpoint);
    AsyncClient caller50(rr, replyTime(50ms), Properties{}, duvo);
    AsyncClient caller150(rr, replyTime(150ms), Properties{}, duvo);
    SyncClient syncCaller(rr, replyTime(200ms), Properties{}, duvo);
    Watched monitored("monitored",
                      make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0", endpoint), monitoredProps, duvo));
    // Connected and answered once, with time to spare on a slow build.
    ASSERT_NO_THROW(publisher->publish(applicationSample(1), 5000ms));
    ASSERT_TRUE(AsyncClient(rr, replyTime(5000ms), Properties{}, duvo).RPC_SetPower(true).get());

    // Replies take a second: longer than every deadline below, shorter than the connection
    // check's own timeout, so the session stays up throughout.
    proxy.delayReplies(1000ms);
    const std::string noReply = "timeout: no reply from " + endpoint + " before the deadline";
    Figures publishOver("slow: publish 20..400 ms, overshoot");
    Figures callOver("slow: async call reply 50/150 ms, overshoot");
    Figures syncOver("slow: sync call reply 200 ms, overshoot");
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t)
        threads.push_back(std::async(std::launch::async, [&, t] {
            for (int round = 0; round < 3; ++round) {
                const int timeout = std::vector<int>{20, 50, 100, 250, 400}[(t + round) % 5];
                expectRefusedAt(timeout, {"timeout when publishing"}, publishOver,
                                [&] { publisher->publish(applicationSample(t), std::chrono::milliseconds(timeout)); });
                AsyncClient& caller = (t + round) % 2 ? caller150 : caller50;
                expectRefusedAt((t + round) % 2 ? 150 : 50, {noReply}, callOver,
                                [&] { caller.RPC_SetPower(true).get(); });
                expectRefusedAt(200, {"timeout when waiting for data"}, syncOver,
                                [&] { syncCaller.RPC_SetPower(true); });
            }
        }));
    for (auto& thread : threads) thread.get();

    // The late replies arrive after their requests were given up: the session survives them.
    proxy.passThrough();
    std::this_thread::sleep_for(1200ms);
    EXPECT_NO_THROW(publisher->publish(applicationSample(2), 2000ms));
    EXPECT_TRUE(caller150.RPC_SetPower(true).get());
    monitored.pump();
    EXPECT_EQ(monitored.notAlive, 0) << "a late reply cost the connection";

    // A slow method: answered within a long deadline, timed out by a short one.
    vesk::duvo::sim::Reply slow;
    slow.delay = 200ms;
    simulator->setReply(slow);
    // Without a reply time the caller waits as long as the method takes.
    AsyncClient patient(rr, RrQoS{}, Properties{}, duvo);
    const auto start = Clock::now();
    EXPECT_TRUE(patient.RPC_SetPower(true).get());
    EXPECT_GE(msSince(start), 199);
    Figures over("slow method: call reply 50 ms, overshoot");
    for (int i = 0; i < 3; ++i) expectRefusedAt(50, {noReply}, over, [&] { caller50.RPC_SetPower(true).get(); });
    simulator->setReply(vesk::duvo::sim::Reply{});
    std::this_thread::sleep_for(700ms); // the held replies drain
    EXPECT_TRUE(caller50.RPC_SetPower(true).get());
}

TEST_F(SlowServer, late_reads_of_a_poll_hold_up_no_other_entity_on_the_endpoint) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    const std::string endpoint = proxy.endpoint();
    // Reads of this node are answered after the poll's deadline; every other reply at once.
    const auto slowReads = [&] { proxy.delayRepliesTo("NoSuchNode", 4000ms); };
    slowReads();
    Device device(*simulator);
    Watched monitored("monitored",
                      make<OpcUaSubscriber<T, ST>>(psUri("M2Int32Value0", endpoint), monitoredProps, duvo));
    ASSERT_TRUE(monitored.waitForValue(1, Clock::now() + 10s));
    // Polls at 0, 2.5, 5 s...: each read waits out its period.
    const auto start = Clock::now();
    auto polled = make<OpcUaSubscriber<T, ST>>(psUri("NoSuchNode", endpoint), polledProps(2500), duvo);

    // Notifications keep coming while reads wait for their replies.
    Figures gaps("late reads: longest gap between notifications");
    double worst = 0;
    auto last = Clock::now();
    while (Clock::now() < start + 4500ms) {
        const long before = monitored.samples;
        monitored.pump(20ms);
        if (monitored.samples == before) continue;
        worst = std::max(worst, msSince(last));
        last = Clock::now();
    }
    gaps.add(worst);
    EXPECT_LT(worst, 1200) << "a read held up the notifications";

    // Connection callbacks too: the loss, then the session's return while the poll made
    // during the outage (at 5 s) waits for its read.
    const int lost = monitored.notAlive;
    proxy.closeAll();
    ASSERT_TRUE(monitored.waitForNotAlive(lost + 1, Clock::now() + 2s));
    std::this_thread::sleep_until(start + 5300ms);
    const std::int32_t mark = device.mark();
    const auto restored = Clock::now();
    slowReads();
    ASSERT_TRUE(monitored.waitForValue(mark, restored + 10s));
    Figures back("late reads: data again after an outage");
    back.add(msSince(restored));
    EXPECT_LT(msSince(restored), 1200) << "a read held up the session's return";
    polled.reset();
    proxy.passThrough();
}

} // namespace
} // namespace duvo::test
