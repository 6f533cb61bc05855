// The fault proxy between a real client and the simulator.
#include <gtest/gtest.h>

#include <vesk/duvo/sim/faultProxy.hpp>

#include "simTestSupport.hpp"

using namespace duvo::simtest;
using vesk::duvo::sim::FaultProxy;
using vesk::duvo::sim::Simulator;

namespace {

class FaultProxyTest : public ::testing::Test {
protected:
    void SetUp() override { sim.start(); }
    CallResult setPower(const Client& c) const { return c.call("PsRpcSetpower", "RPC_SetPower", {scalar(true)}); }

    Simulator sim{quietOptions()};
    FaultProxy& proxy() {
        if (!proxy_) proxy_ = std::make_unique<FaultProxy>(sim.endpoint());
        return *proxy_;
    }

private:
    std::unique_ptr<FaultProxy> proxy_;
};

TEST_F(FaultProxyTest, passes_calls_through_by_default) {
    EXPECT_EQ(proxy().mode(), FaultProxy::Mode::PassThrough);
    EXPECT_EQ(proxy().endpoint(), "opc.tcp://127.0.0.1:" + std::to_string(proxy().port()));
    Client client;
    ASSERT_EQ(client.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(proxy().connections(), 1u);
    EXPECT_EQ(setPower(client).status, UA_STATUSCODE_GOOD);
    // A larger message than one read, in both directions.
    std::vector<double> big(20000, 1.5);
    ASSERT_EQ(client.write("M2DoubleVector15", array(big.data(), big.size())), UA_STATUSCODE_GOOD);
    OwnedVariant back;
    ASSERT_EQ(client.read("M2DoubleVector15", back), UA_STATUSCODE_GOOD);
    EXPECT_EQ(back.arrayLength(), big.size());
}

TEST_F(FaultProxyTest, blackhole_times_out_a_call_that_the_server_received) {
    Client client(300);
    ASSERT_EQ(client.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);
    proxy().blackhole();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(setPower(client).status, UA_STATUSCODE_BADTIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(sim.calls("PsRpcSetpower").count, 1u);

    // The silenced connection is closed on leaving the mode; a new one works.
    proxy().passThrough();
    EXPECT_TRUE(eventually([&] { return proxy().connections() == 0; }));
    Client fresh;
    ASSERT_EQ(fresh.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(setPower(fresh).status, UA_STATUSCODE_GOOD);
}

TEST_F(FaultProxyTest, delay_holds_replies_back) {
    Client client;
    ASSERT_EQ(client.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);
    const auto delay = std::chrono::milliseconds(250);
    proxy().delayReplies(delay);
    EXPECT_EQ(proxy().mode(), FaultProxy::Mode::Delay);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(setPower(client).status, UA_STATUSCODE_GOOD);
    EXPECT_GE(std::chrono::steady_clock::now() - start, delay);
}

TEST_F(FaultProxyTest, close_all_drops_connections_and_refuses_new_ones_until_pass_through) {
    Client client(2000);
    ASSERT_EQ(client.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);
    proxy().closeAll();
    EXPECT_TRUE(eventually([&] { return proxy().connections() == 0; }));
    EXPECT_NE(setPower(client).status, UA_STATUSCODE_GOOD);
    Client refused(200);
    EXPECT_NE(refused.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);

    proxy().passThrough();
    Client fresh;
    ASSERT_EQ(fresh.connect(proxy().endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_EQ(setPower(fresh).status, UA_STATUSCODE_GOOD);
}

TEST_F(FaultProxyTest, a_target_that_is_down_closes_the_client_connection) {
    FaultProxy& p = proxy();
    sim.stop();
    Client client(200);
    EXPECT_NE(client.connect(p.endpoint()), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(eventually([&] { return p.connections() == 0; }));
}

} // namespace
