// Starting, stopping and restarting the simulator, where it listens, its animation, and the
// fault proxy between a real client and it.
#include <gtest/gtest.h>

#include <vesk/duvo/sim/faultProxy.hpp>

#include "simTestSupport.hpp"

using namespace duvo::simtest;
using vesk::duvo::sim::FaultProxy;
using vesk::duvo::sim::Simulator;

namespace {

TEST(SimulatorLifecycle, restart_keeps_the_port_and_records_drops_connections_and_resets_values) {
    Simulator sim(quietOptions());
    EXPECT_FALSE(sim.running());
    sim.start();
    ASSERT_TRUE(sim.running());
    const std::uint16_t port = sim.port();
    ASSERT_NE(port, 0);
    EXPECT_EQ(sim.endpoint(), "opc.tcp://127.0.0.1:" + std::to_string(port));

    RawClient before(2000);
    ASSERT_EQ(before.connect(sim.endpoint()), UA_STATUSCODE_GOOD);
    ASSERT_EQ(before.write("M2Int16Value0", scalar<short>(-5)), UA_STATUSCODE_GOOD);
    ASSERT_EQ(before.call("PsRpcSetpower", "RPC_SetPower", {scalar(true)}).status, UA_STATUSCODE_GOOD);

    sim.restart();
    ASSERT_TRUE(sim.running());
    EXPECT_EQ(sim.port(), port);
    EXPECT_THROW(before.read("M2Int32Value0"), std::runtime_error); // the old connection is gone
    RawClient after(sim.endpoint());
    EXPECT_EQ(after.read("M2Int16Value0").at<UA_Int16>(), 0); // a fresh server
    EXPECT_EQ(sim.calls("PsRpcSetpower").count, 1u);
    EXPECT_EQ(sim.writeCount("M2Int16Value0"), 1u);

    sim.stop();
    EXPECT_FALSE(sim.running());
    EXPECT_THROW(sim.read("M2Int16Value0"), std::logic_error);
    RawClient refused(200);
    EXPECT_NE(refused.connect("opc.tcp://127.0.0.1:" + std::to_string(port)), UA_STATUSCODE_GOOD);
    sim.stop(); // stopping twice is harmless
}

TEST(SimulatorLifecycle, listens_only_on_its_bind_address_and_reports_a_busy_port_or_a_foreign_address) {
    auto options = quietOptions();
    options.bindAddress = "127.0.0.2";
    Simulator sim(options);
    sim.start();
    EXPECT_EQ(sim.endpoint(), "opc.tcp://127.0.0.2:" + std::to_string(sim.port()));
    EXPECT_NO_THROW(RawClient{sim.endpoint()});
    RawClient elsewhere(200);
    EXPECT_NE(elsewhere.connect("opc.tcp://127.0.0.1:" + std::to_string(sim.port())), UA_STATUSCODE_GOOD);

    options.port = sim.port();
    options.logLevel = UA_LOGLEVEL_FATAL;
    for (const char* address : {"127.0.0.2", "192.0.2.1"}) { // busy; a documentation address, never this machine's
        options.bindAddress = address;
        Simulator refused(options);
        EXPECT_THROW(refused.start(), std::runtime_error) << address;
        EXPECT_FALSE(refused.running());
        options.port = 0;
    }
}

TEST(SimulatorLifecycle, animation_changes_variables_over_time) {
    auto options = quietOptions();
    options.animate = true;
    options.animationPeriod = std::chrono::milliseconds(10);
    Simulator sim(options);
    sim.start();
    EXPECT_TRUE(eventually([&] { return sim.read("M2Int32Value0").at<UA_Int32>() >= 2; }));
    EXPECT_TRUE(eventually([&] { return sim.read("M2FloatVector6").at<UA_Float>(0) != 0.0f; }));
}

CallResult setPower(const RawClient& c) { return c.call("PsRpcSetpower", "RPC_SetPower", {scalar(true)}); }

TEST(FaultProxy, passes_delays_silences_and_closes_as_told_and_follows_its_target_down) {
    Simulator sim{quietOptions()};
    sim.start();
    FaultProxy proxy(sim.endpoint());
    EXPECT_EQ(proxy.mode(), FaultProxy::Mode::PassThrough);
    EXPECT_EQ(proxy.endpoint(), "opc.tcp://127.0.0.1:" + std::to_string(proxy.port()));
    RawClient patient(proxy.endpoint()), hasty(300);
    ASSERT_EQ(hasty.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(proxy.connections(), 2u);
    // A larger message than one read, in both directions.
    std::vector<double> big(20000, 1.5);
    ASSERT_EQ(patient.write("M2DoubleVector15", array(big.data(), big.size())), UA_STATUSCODE_GOOD);
    EXPECT_EQ(patient.read("M2DoubleVector15").arrayLength(), big.size());

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
    RawClient fresh(2000);
    ASSERT_EQ(fresh.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(setPower(fresh).status, UA_STATUSCODE_GOOD);

    // closeAll drops connections and refuses new ones until pass-through.
    proxy.closeAll();
    EXPECT_TRUE(eventually([&] { return proxy.connections() == 0; }));
    EXPECT_NE(setPower(fresh).status, UA_STATUSCODE_GOOD);
    RawClient refused(200);
    EXPECT_NE(refused.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    proxy.passThrough();
    RawClient again(proxy.endpoint());
    EXPECT_EQ(setPower(again).status, UA_STATUSCODE_GOOD);

    // A target that is down closes the client's connection.
    sim.stop();
    RawClient late(200);
    EXPECT_NE(late.connect(proxy.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(eventually([&] { return proxy.connections() == 0; }));
}

} // namespace
