#pragma once
// A simulator on a free loopback port and the middleware object that entities share.
#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>
#include <vesk/duvo/sim/simulator.hpp>

#include "support/securePki.hpp"

namespace duvo::test {

/// One simulator for the whole suite; each test starts from fresh records and default replies.
/// With DUVO_TEST_SECURE set, the simulator offers secured endpoints and knows only the
/// operator, and the entities connect with SignAndEncrypt as the operator: the same bodies
/// prove every type and interface over a secured session.
class SimulatorSuite : public ::testing::Test {
public:
    static bool secure() { return std::getenv("DUVO_TEST_SECURE") != nullptr; }

    static void SetUpTestSuite() {
        vesk::duvo::sim::Options options;
        if (secure()) options = securePki().serverOptions();
        options.logLevel = UA_LOGLEVEL_ERROR; // the stack's start-up warnings are expected here
        simulator = new vesk::duvo::sim::Simulator(options);
        simulator->start();
    }
    static void TearDownTestSuite() {
        delete simulator;
        simulator = nullptr;
    }

protected:
    void SetUp() override {
        if (!simulator->running()) simulator->start();
        simulator->clearRecords();
        simulator->setReply(vesk::duvo::sim::Reply{});
        duvo = secure() ? std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>(securePki().clientProperties())
                        : std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>();
    }

    /// "opcua-ps://127.0.0.1:PORT#ns=1;s=<variable>"
    static std::string psUri(const std::string& variable, const std::string& endpoint = simulator->endpoint()) {
        return vesk::duvo::sim::pubSubUri(endpoint, variable);
    }

    /// "opcua-rr://127.0.0.1:PORT#ns=1;s=<iface>,ns=1;s=<iface>.<method>"
    static std::string rrUri(const std::string& iface, const std::string& method,
                             const std::string& endpoint = simulator->endpoint()) {
        return vesk::duvo::sim::rpcUri(endpoint, iface, method);
    }

    static vesk::duvo::sim::Simulator* simulator;
    std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> duvo;
};

inline vesk::duvo::sim::Simulator* SimulatorSuite::simulator = nullptr;

} // namespace duvo::test
