#pragma once
// Tests against the independent server: the program's one node-opcua server, entities made
// through the loaded plug-in as an application makes them, and a plain client to look at
// what arrived.
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>

#include "nodeServer.hpp"
#include "support/securePki.hpp"
#include "rawClient.hpp"

namespace duvo::interop {

using namespace std::chrono_literals;
using vesk::duvo::opcua::detail::OpcUaDuvo;

/// How long a publish or a call may take. The first one of an entity waits for its session,
/// which node-opcua sets up in seconds, not milliseconds, on a loaded machine.
constexpr std::chrono::milliseconds kWait = 10000ms;

/// "opcua-ps://HOST:PORT#ns=1;s=<variable>" of an endpoint.
inline std::string psUri(const std::string& endpoint, const std::string& variable) {
    return vesk::duvo::sim::pubSubUri(endpoint, variable);
}

/// "opcua-rr://HOST:PORT#ns=1;s=<iface>,ns=1;s=<iface>.<method>" of an endpoint.
inline std::string rrUri(const std::string& endpoint, const std::string& iface, const std::string& method) {
    return vesk::duvo::sim::rpcUri(endpoint, iface, method);
}

/// Skips when node is absent and the interop run is not required; fails when the server
/// should run and does not.
class NodeServerSuite : public ::testing::Test {
protected:
    void SetUp() override {
        Availability availability;
        server = sharedServer(availability);
        if (!server) {
            if (availability.skip) GTEST_SKIP() << "interop tests skipped, " << availability.reason;
            FAIL() << availability.reason;
        }
        raw = std::make_unique<RawClient>(server->endpoint(), secure());
    }

    std::string psUri(const std::string& variable) const { return interop::psUri(server->endpoint(), variable); }
    std::string rrUri(const std::string& iface, const std::string& method) const {
        return interop::rrUri(server->endpoint(), iface, method);
    }

    /// A middleware object whose entities read these properties.
    static std::shared_ptr<OpcUaDuvo> middleware(OpcUaDuvo::Properties properties = {}) {
        properties.emplace("opc.asyncCallSubmitTimeoutMs", std::to_string(kWait.count()));
        if (secure())
            for (auto& [key, value] : duvo::test::securePki().clientProperties(secureClientPki()))
                properties.emplace(key, value);
        return std::make_shared<OpcUaDuvo>(std::move(properties));
    }

    /// The value the server holds for T, read with the plain client.
    template <class T>
    typename T::value_type serverValue() {
        return valueOf<T>(*raw->read(T::typeName));
    }

    /// Polls the server until it holds the value (a publish without wait lands later).
    template <class T>
    bool serverHolds(const typename T::value_type& value, std::chrono::milliseconds within = kWait) {
        const auto end = std::chrono::steady_clock::now() + within;
        do {
            if (serverValue<T>() == value) return true;
            std::this_thread::sleep_for(10ms);
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }

    NodeServer* server = nullptr;
    std::unique_ptr<RawClient> raw;
};

} // namespace duvo::interop
