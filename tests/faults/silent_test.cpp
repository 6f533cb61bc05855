// A connection that goes silent: the proxy keeps both sockets open and drops every reply, as
// a cut cable or a hung device would. Nothing tells the client; it must find out by itself.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include <vesk/duvo/sim/faultProxy.hpp>

#include "faults/faultRig.hpp"

namespace duvo::faults {
namespace {

constexpr int silences = 3;

class Silence : public duvo::test::SimulatorSuite {};

TEST_F(Silence, the_loss_is_noticed_reported_once_and_forwarding_brings_the_data_back) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    Device device(*simulator);
    const std::string deviceUri = psUri("M2Int32Value0", proxy.endpoint());
    Watched monitored("monitored", make<OpcUaSubscriber<T, ST>>(deviceUri, {{"opc.ps.pollingPeriodMs", "0"}}, duvo));
    Watched polled("polled",
                   make<OpcUaSubscriber<T, ST>>(
                       deviceUri, {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "200"}}, duvo));
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(deviceUri, {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    auto publisher =
        std::make_shared<OpcUaPublisher<P, PT>>(psUri("M2FloatVector6", proxy.endpoint()), PsQoS{}, Properties{}, duvo);
    publisher->setState(EntityState::Initialized);
    AsyncClient caller(rrUri("PsRpcSetpower", "RPC_SetPower", proxy.endpoint()), replyTime(300ms), Properties{}, duvo);

    Figures noticed("silence: forwarding stops -> loss reported");
    Figures polledNoticed("silence: forwarding stops -> polled not-alive");
    Figures back("silence: forwarding resumes -> monitored sample");
    Figures polledBack("silence: forwarding resumes -> polled sample");
    Figures publishOver("silence: publish 300 ms, overshoot");
    Figures callOver("silence: call reply 300 ms, overshoot");

    const std::string noReply = "timeout: no reply from " + proxy.endpoint() + " before the deadline";
    ASSERT_TRUE(monitored.waitForValue(device.mark(), Clock::now() + 10s));
    ASSERT_TRUE(polled.waitForValue(device.mark(), Clock::now() + 10s));
    for (int silence = 1; silence <= silences; ++silence) {
        SCOPED_TRACE("silence " + std::to_string(silence));
        ASSERT_NO_THROW(publisher->publish(applicationSample(silence), 2000ms));
        monitored.pump();
        polled.pump();

        proxy.blackhole();
        const auto cut = Clock::now();
        // Requests made right away are sent and never answered: they fail at their deadlines.
        const auto publishStart = Clock::now();
        try {
            publisher->publish(applicationSample(-silence), 300ms);
            ADD_FAILURE() << "a publish into the silence succeeded";
        } catch (const vesk::duvo::TimeoutException& e) {
            // The publisher's wait and the client's deadline end together; the publisher tells.
            EXPECT_STREQ(e.what(), "timeout when publishing");
        }
        const double publishMs = msSince(publishStart);
        const auto callStart = Clock::now();
        auto call = caller.RPC_SetPower(true);
        try {
            call.get();
            ADD_FAILURE() << "a call into the silence succeeded";
        } catch (const vesk::duvo::TimeoutException& e) {
            EXPECT_EQ(std::string(e.what()), noReply);
        }
        const double callMs = msSince(callStart);
        for (const auto& [ms, figures] : {std::pair{publishMs, &publishOver}, std::pair{callMs, &callOver}}) {
            EXPECT_GE(ms, 299);
            EXPECT_LE(ms, 800);
            figures->add(ms - 300);
        }

        // The poller's reads time out first; the connection check notices the silence.
        ASSERT_TRUE(polled.waitForNotAlive(silence, cut + 10s));
        polledNoticed.add(msSince(cut));
        ASSERT_TRUE(monitored.waitForNotAlive(silence, cut + 10s));
        const double lossMs = msSince(cut);
        noticed.add(lossMs);
        EXPECT_LE(lossMs, 6000) << "the silence went unnoticed too long";
        // Values already past the proxy may still land; from here on nothing can.
        const auto kept = mostRecent->readMostRecent(0ms);
        ASSERT_EQ(kept.size(), 1u);
        const std::int32_t keptValue = kept[0]->getValue0();
        // Stay silent a while: no second report for the same loss.
        std::this_thread::sleep_for(500ms);
        monitored.pump();
        polled.pump();
        EXPECT_EQ(monitored.notAlive, silence);
        EXPECT_EQ(polled.notAlive, silence);
        const auto stillKept = mostRecent->readMostRecent(0ms);
        ASSERT_EQ(stillKept.size(), 1u);
        EXPECT_EQ(stillKept[0]->getValue0(), keptValue);

        proxy.passThrough();
        const auto resumed = Clock::now();
        const std::int32_t mark = device.mark();
        ASSERT_TRUE(monitored.waitForValue(mark, resumed + 15s)) << "no data after forwarding resumed";
        back.add(msSince(resumed));
        ASSERT_TRUE(polled.waitForValue(mark, resumed + 15s));
        polledBack.add(msSince(resumed));
        EXPECT_TRUE(caller.RPC_SetPower(true).get());
    }
    std::this_thread::sleep_for(300ms);
    monitored.pump();
    polled.pump();
    EXPECT_EQ(monitored.notAlive, silences);
    EXPECT_EQ(polled.notAlive, silences);
    EXPECT_EQ(monitored.notAliveWithData + polled.notAliveWithData, 0);
}

} // namespace
} // namespace duvo::faults
