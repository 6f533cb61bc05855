// Calling every interface both ways against the simulator, and every way a call can fail.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <generated/opcua/m2Types/rpc.hpp>
#include <vesk/duvo/sim/faultProxy.hpp>

#include "entities/logRecorder.hpp"
#include "support/simulatorFixture.hpp"

namespace {

using namespace std::chrono_literals;
using vesk::duvo::shared_vector;
using vesk::duvo::opcua::detail::binding::UaTypeOf;
using RrQoS = std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>;

/// A recognisable argument of each parameter type, different per position.
template <class P>
P argument(int position) {
    if constexpr (std::is_same_v<P, bool>)
        return position % 2 == 0;
    else if constexpr (std::is_arithmetic_v<P>)
        return static_cast<P>(position + 2) / static_cast<P>(std::is_floating_point_v<P> ? 4 : 1);
    else
        return P{typename P::value_type(position + 1), typename P::value_type(-2.5), typename P::value_type(1e3)};
}

/// Checks one recorded argument against what was sent.
template <class P>
void expectArgument(const vesk::duvo::sim::OwnedVariant& got, int position) {
    SCOPED_TRACE(position);
    const P sent = argument<P>(position);
    if constexpr (std::is_arithmetic_v<P>) {
        ASSERT_TRUE(got.hasType(UaTypeOf<P>::type()));
        ASSERT_TRUE(got.isScalar());
        EXPECT_EQ(got.at<P>(), sent);
    } else {
        using E = typename P::value_type;
        ASSERT_TRUE(got.hasType(UaTypeOf<E>::type()));
        ASSERT_EQ(got.arrayLength(), sent.size());
        for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(got.at<E>(i), sent[i]);
    }
}

template <class... Ps, std::size_t... Is>
void expectArguments(const vesk::duvo::sim::CallRecord& record, std::index_sequence<Is...>) {
    ASSERT_EQ(record.lastArguments.size(), sizeof...(Ps));
    (expectArgument<Ps>(record.lastArguments[Is], int(Is)), ...);
}

class EveryInterface : public duvo::test::SimulatorSuite {
protected:
    /// Calls the method through both stubs with the same arguments and checks what arrived.
    template <class Async, class Sync, class... Ps, class Call>
    void callBothWays(const std::string& iface, const std::string& method, Call call) {
        SCOPED_TRACE(iface);
        const std::string uri = rrUri(iface, method);
        Async async(uri, RrQoS{}, {}, duvo);
        Sync sync(uri, RrQoS{}, {}, duvo);
        EXPECT_TRUE(call(async).get());
        EXPECT_EQ(simulator->calls(iface).count, 1u);
        expectArguments<Ps...>(simulator->calls(iface), std::index_sequence_for<Ps...>{});
        EXPECT_TRUE(call(sync));
        EXPECT_EQ(simulator->calls(iface).count, 2u);
        expectArguments<Ps...>(simulator->calls(iface), std::index_sequence_for<Ps...>{});

        vesk::duvo::sim::Reply no;
        no.result = false;
        simulator->setReply(iface, no);
        EXPECT_FALSE(call(sync));
    }
};

/// Expands the argument list of a catalogue row into argument<P>(i) calls.
template <class... Ps>
struct Arguments {
    template <class Stub, class R, class... Params>
    static auto invoke(Stub& stub, R (Stub::*method)(Params...)) {
        return invokeImpl(stub, method, std::index_sequence_for<Ps...>{});
    }
    template <class Stub, class Method, std::size_t... Is>
    static auto invokeImpl(Stub& stub, Method method, std::index_sequence<Is...>) {
        return (stub.*method)(argument<Ps>(int(Is))...);
    }
};

TEST_F(EveryInterface, sends_its_exact_arguments_and_returns_the_boolean) {
#define CALL_INTERFACE(Iface, Method, ...)                                                                            \
    callBothWays<generated::opcua::m2Types::Iface##AsyncImpl, generated::opcua::m2Types::Iface##SyncImpl,          \
                 __VA_ARGS__>(#Iface, "RPC_" #Method, [](auto& stub) {                                             \
        return Arguments<__VA_ARGS__>::invoke(stub, &std::remove_reference_t<decltype(stub)>::RPC_##Method);       \
    });
    M2TYPES_INTERFACE_CATALOGUE(CALL_INTERFACE)
#undef CALL_INTERFACE
}

class RpcTest : public duvo::test::SimulatorSuite {
protected:
    using Async = generated::opcua::m2Types::PsRpcSetpowerAsyncImpl;
    using Sync = generated::opcua::m2Types::PsRpcSetpowerSyncImpl;
    std::string uri() const { return rrUri("PsRpcSetpower", "RPC_SetPower"); }
    static RrQoS replyTime(std::chrono::milliseconds ms) {
        return {std::make_shared<vesk::duvo::rr::qos::ReplyTime>(ms)};
    }
};

TEST_F(RpcTest, uri_faults_are_refused_at_construction) {
    const auto refused = [&](const std::string& uri, const std::string& message) {
        try {
            Async stub(uri, RrQoS{}, {}, duvo);
            ADD_FAILURE() << "accepted " << uri;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    };
    const std::string ps = psUri("M2Int32Value0");
    refused(ps, "URI is not request/response URI. Uri:" + ps);
    refused(uri() + ",ns=1;s=PsRpcSetpower",
            "even number of node IDs expected in URI fragment, n pairs of (objectId, methodId)");
    refused(uri() + "," + uri().substr(uri().find('#') + 1), "interface has 1 methods, but 2 methods specified in URI");
}

TEST_F(RpcTest, reply_time_and_submit_timeout_come_from_qos_and_properties) {
    Async noReplyTime(uri(), RrQoS{}, {}, duvo);
    EXPECT_EQ(noReplyTime.getReplyTimeMs(), 0);
    EXPECT_EQ(noReplyTime.getSubmitTimeoutMs(), 1000);
    Async configured(uri(), replyTime(250ms), {{"opc.asyncCallSubmitTimeoutMs", "40"}}, duvo);
    EXPECT_EQ(configured.getReplyTimeMs(), 250);
    EXPECT_EQ(configured.getSubmitTimeoutMs(), 40);
    try {
        Async bad(uri(), RrQoS{}, {{"opc.asyncCallSubmitTimeoutMs", "soon"}}, duvo);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("invalid value for DUVO property \"opc.asyncCallSubmitTimeoutMs\"", 0), 0u)
            << e.what();
    }
}

TEST_F(RpcTest, server_failures_reach_the_caller) {
    Sync stub(uri(), replyTime(2000ms), {}, duvo);
    vesk::duvo::sim::Reply bad;
    bad.status = UA_STATUSCODE_BADINTERNALERROR;
    simulator->setReply(bad);
    try {
        stub.RPC_SetPower(true);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "RPC call failed: BadInternalError");
    }
    vesk::duvo::sim::Reply wrongType;
    wrongType.wrongOutputType = true;
    simulator->setReply(wrongType);
    try {
        stub.RPC_SetPower(true);
        FAIL();
    } catch (const vesk::duvo::DuvoException& e) {
        EXPECT_STREQ(e.what(), "PsRpcSetpower::RPC_SetPower (return value): expected Boolean, received Int32");
    }
    // The asynchronous stub reports the same through its future.
    Async async(uri(), RrQoS{}, {}, duvo);
    EXPECT_THROW(async.RPC_SetPower(false).get(), vesk::duvo::DuvoException);
}

TEST_F(RpcTest, sync_call_waits_for_the_reply_time_only) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    const std::string viaProxy = rrUri("PsRpcSetpower", "RPC_SetPower", proxy.endpoint());
    Sync limited(viaProxy, replyTime(500ms), {}, duvo);
    EXPECT_TRUE(limited.RPC_SetPower(true)); // connected and answered
    proxy.blackhole();
    const auto start = std::chrono::steady_clock::now();
    try {
        limited.RPC_SetPower(true);
        FAIL();
    } catch (const vesk::duvo::TimeoutException& e) {
        EXPECT_STREQ(e.what(), "timeout when waiting for data");
    }
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 450ms);
    EXPECT_LT(waited, 3000ms);
    proxy.passThrough();

    // Without a reply time the call waits as long as the server takes.
    vesk::duvo::sim::Reply slow;
    slow.delay = 300ms;
    simulator->setReply(slow);
    Sync unlimited(uri(), RrQoS{}, {}, duvo);
    EXPECT_TRUE(unlimited.RPC_SetPower(true));
}

TEST_F(RpcTest, connection_listener_sees_the_connection_come_and_go) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    proxy.closeAll(); // no connection until the listener is in place
    Async stub(rrUri("PsRpcSetpower", "RPC_SetPower", proxy.endpoint()), RrQoS{}, {}, duvo);
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> seen;
    auto unregister = stub.registerConnectionListener([&](bool up) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(up);
        changed.notify_all();
    });
    const auto waitFor = [&](std::size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return seen.size() >= n; });
    };
    proxy.passThrough();
    stub.asyncConnect();
    ASSERT_TRUE(waitFor(1));
    EXPECT_TRUE(stub.RPC_SetPower(true).get());
    proxy.closeAll();
    ASSERT_TRUE(waitFor(2));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(seen, (std::vector<bool>{true, false}));
    }
    unregister();
    unregister(); // harmless
    proxy.passThrough();
    stub.asyncConnect();
    EXPECT_TRUE(stub.RPC_SetPower(true).get()); // reconnected; the listener hears nothing more
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(seen.size(), 2u);
    }
    stub.close();
    // A call after close() fails through its future, like any other failed call; each refusal
    // is logged once.
    duvo::test::LogRecorder log("orsa.duvo.opcua.internal");
    boost::future<bool> refused = stub.RPC_SetPower(true);
    EXPECT_THROW(refused.get(), vesk::duvo::IllegalStateException);
    EXPECT_THROW(stub.asyncConnect(), vesk::duvo::IllegalStateException);
    const auto lines =
        log.containing("Client entity closed. Uri:" + rrUri("PsRpcSetpower", "RPC_SetPower", proxy.endpoint()));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, log4cplus::ERROR_LOG_LEVEL);
}

} // namespace
