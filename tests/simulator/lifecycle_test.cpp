// Starting, stopping and restarting the simulator, and where it listens.
#include <gtest/gtest.h>

#include "simTestSupport.hpp"

using namespace duvo::simtest;
using vesk::duvo::sim::Simulator;

namespace {

TEST(SimulatorLifecycle, restart_keeps_the_port_resets_values_and_keeps_records) {
    Simulator sim(quietOptions());
    EXPECT_FALSE(sim.running());
    sim.start();
    ASSERT_TRUE(sim.running());
    const std::uint16_t port = sim.port();
    ASSERT_NE(port, 0);
    EXPECT_EQ(sim.endpoint(), "opc.tcp://127.0.0.1:" + std::to_string(port));

    Client before;
    ASSERT_EQ(before.connect(sim.endpoint()), UA_STATUSCODE_GOOD);
    ASSERT_EQ(before.write("M2Int16Value0", scalar<short>(-5)), UA_STATUSCODE_GOOD);
    ASSERT_EQ(before.call("PsRpcSetpower", "RPC_SetPower", {scalar(true)}).status, UA_STATUSCODE_GOOD);

    sim.restart();
    ASSERT_TRUE(sim.running());
    EXPECT_EQ(sim.port(), port);
    Client after;
    ASSERT_EQ(after.connect(sim.endpoint()), UA_STATUSCODE_GOOD);
    OwnedVariant value;
    ASSERT_EQ(after.read("M2Int16Value0", value), UA_STATUSCODE_GOOD);
    EXPECT_EQ(value.at<UA_Int16>(), 0); // a fresh server
    EXPECT_EQ(sim.calls("PsRpcSetpower").count, 1u);
    EXPECT_EQ(sim.writeCount("M2Int16Value0"), 1u);

    sim.stop();
    EXPECT_FALSE(sim.running());
    EXPECT_THROW(sim.read("M2Int16Value0"), std::logic_error);
    Client refused(200);
    EXPECT_NE(refused.connect("opc.tcp://127.0.0.1:" + std::to_string(port)), UA_STATUSCODE_GOOD);
    sim.stop(); // stopping twice is harmless
}

TEST(SimulatorLifecycle, a_client_of_the_old_server_loses_its_connection_across_a_restart) {
    Simulator sim(quietOptions());
    sim.start();
    Client client(2000);
    ASSERT_EQ(client.connect(sim.endpoint()), UA_STATUSCODE_GOOD);
    sim.restart();
    // The first request after the restart sees the old connection gone.
    OwnedVariant value;
    EXPECT_NE(client.read("M2Int32Value0", value), UA_STATUSCODE_GOOD);
}

TEST(SimulatorLifecycle, a_busy_port_or_a_foreign_address_is_reported) {
    Simulator first(quietOptions());
    first.start();
    auto options = quietOptions();
    options.port = first.port();
    options.logLevel = UA_LOGLEVEL_FATAL;
    Simulator second(options);
    EXPECT_THROW(second.start(), std::runtime_error);
    EXPECT_FALSE(second.running());

    options.port = 0;
    options.bindAddress = "192.0.2.1"; // a documentation address, never this machine's
    Simulator foreign(options);
    EXPECT_THROW(foreign.start(), std::runtime_error);
    EXPECT_FALSE(foreign.running());
}

TEST(SimulatorLifecycle, listens_only_on_its_bind_address) {
    auto options = quietOptions();
    options.bindAddress = "127.0.0.2";
    Simulator sim(options);
    sim.start();
    EXPECT_EQ(sim.endpoint(), "opc.tcp://127.0.0.2:" + std::to_string(sim.port()));
    Client there;
    EXPECT_EQ(there.connect(sim.endpoint()), UA_STATUSCODE_GOOD);
    Client elsewhere(200);
    EXPECT_NE(elsewhere.connect("opc.tcp://127.0.0.1:" + std::to_string(sim.port())), UA_STATUSCODE_GOOD);
}

} // namespace
