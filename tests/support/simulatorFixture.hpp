#pragma once
// A simulator on a free loopback port and the middleware object that entities share.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/simulator.hpp>

namespace duvo::test {

/// One simulator for the whole suite; each test starts from fresh records and default replies.
class SimulatorSuite : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        vesk::duvo::sim::Options options;
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
        duvo = std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>();
    }

    /// "opcua-ps://127.0.0.1:PORT#ns=1;s=<variable>"
    static std::string psUri(const std::string& variable, const std::string& endpoint = simulator->endpoint()) {
        return "opcua-ps://" + endpoint.substr(std::string("opc.tcp://").size()) + "#ns=1;s=" + variable;
    }

    /// "opcua-rr://127.0.0.1:PORT#ns=1;s=<iface>,ns=1;s=<iface>.<method>"
    static std::string rrUri(const std::string& iface, const std::string& method,
                             const std::string& endpoint = simulator->endpoint()) {
        return "opcua-rr://" + endpoint.substr(std::string("opc.tcp://").size()) + "#ns=1;s=" + iface + ",ns=1;s=" +
               iface + "." + method;
    }

    static vesk::duvo::sim::Simulator* simulator;
    std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> duvo;
};

inline vesk::duvo::sim::Simulator* SimulatorSuite::simulator = nullptr;

} // namespace duvo::test
