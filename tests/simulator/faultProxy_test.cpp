// The fault proxy between a real client and the simulator, through each of its modes.
#include <gtest/gtest.h>

#include <vesk/duvo/sim/faultProxy.hpp>

#include "simTestSupport.hpp"

using namespace duvo::simtest;
using vesk::duvo::sim::FaultProxy;
using vesk::duvo::sim::Simulator;

namespace {

CallResult setPower(const Client& c) { return c.call("PsRpcSetpower", "RPC_SetPower", {scalar(true)}); }

TEST(FaultProxy, passes_delays_silences_and_closes_as_told_and_follows_its_target_down) {
    Simulator sim{quietOptions()};
    sim.start();
    FaultProxy proxy(sim.endpoint());
    EXPECT_EQ(proxy.mode(), FaultProxy::Mode::PassThrough);
    EXPECT_EQ(proxy.endpoint(), "opc.tcp://127.0.0.1:" + std::to_string(proxy.port()));
    Client patient, hasty(300);
    ASSERT_EQ(patient.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    ASSERT_EQ(hasty.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(proxy.connections(), 2u);
    // A larger message than one read, in both directions.
    std::vector<double> big(20000, 1.5);
    ASSERT_EQ(patient.write("M2DoubleVector15", array(big.data(), big.size())), UA_STATUSCODE_GOOD);
    OwnedVariant back;
    ASSERT_EQ(patient.read("M2DoubleVector15", back), UA_STATUSCODE_GOOD);
    EXPECT_EQ(back.arrayLength(), big.size());

    proxy.delayReplies(std::chrono::milliseconds(250));
    EXPECT_EQ(proxy.mode(), FaultProxy::Mode::Delay);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(setPower(patient).status, UA_STATUSCODE_GOOD);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));

    proxy.blackhole();
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(setPower(hasty).status, UA_STATUSCODE_BADTIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(sim.calls("PsRpcSetpower").count, 2u); // the silenced call reached the server
    // The silenced connection is closed on leaving the mode, the idle one kept; a new one works.
    proxy.passThrough();
    EXPECT_TRUE(eventually([&] { return proxy.connections() == 1; }));
    Client fresh(2000);
    ASSERT_EQ(fresh.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(setPower(fresh).status, UA_STATUSCODE_GOOD);

    // closeAll drops connections and refuses new ones until pass-through.
    proxy.closeAll();
    EXPECT_TRUE(eventually([&] { return proxy.connections() == 0; }));
    EXPECT_NE(setPower(fresh).status, UA_STATUSCODE_GOOD);
    Client refused(200);
    EXPECT_NE(refused.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    proxy.passThrough();
    Client again;
    ASSERT_EQ(again.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(setPower(again).status, UA_STATUSCODE_GOOD);

    // A target that is down closes the client's connection.
    sim.stop();
    Client late(200);
    EXPECT_NE(late.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(eventually([&] { return proxy.connections() == 0; }));
}

} // namespace
