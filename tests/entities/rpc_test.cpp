// Calling every interface of both servers both ways, with the arguments checked as the server
// received them, and every way a call can fail.
#include <condition_variable>
#include <mutex>
#include <type_traits>
#include <utility>

#include <boost/thread/future.hpp>

#include <duvo/opcua/detail/rr/arguments.hpp>
#include <duvo/opcua/detail/rr/clientEntity.hpp>

#include "support/servers.hpp"

namespace duvo::test {
namespace {

/// One argument as the server recorded it: its OPC UA type, shape and value.
template <class P>
void expectArgument(const OwnedVariant& got, int position) {
    SCOPED_TRACE("argument " + std::to_string(position));
    const P sent = sampleArgument<P>(position);
    if constexpr (std::is_arithmetic_v<P>) {
        ASSERT_TRUE(got.hasType(uaTypeOf<P>()));
        ASSERT_TRUE(got.isScalar());
        EXPECT_EQ(got.at<P>(), sent);
    } else {
        using E = typename P::value_type;
        ASSERT_TRUE(got.hasType(uaTypeOf<E>()));
        ASSERT_FALSE(got.isScalar());
        ASSERT_EQ(got.arrayLength(), sent.size());
        for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(got.at<E>(i), sent[i]);
    }
}

/// Calls a stub with the sample arguments of a catalogue row, and checks their record.
template <class... Ps>
struct Arguments {
    template <class Stub, class Method>
    static auto invoke(Stub& stub, Method method) {
        return invokeImpl(stub, method, std::index_sequence_for<Ps...>{});
    }
    template <class Stub, class Method, std::size_t... Is>
    static auto invokeImpl(Stub& stub, Method method, std::index_sequence<Is...>) {
        return (stub.*method)(sampleArgument<Ps>(int(Is))...);
    }
    static void expectRecorded(const CallRecord& record) {
        ASSERT_EQ(record.lastArguments.size(), sizeof...(Ps));
        expectEach(record, std::index_sequence_for<Ps...>{});
    }
    template <std::size_t... Is>
    static void expectEach(const CallRecord& record, std::index_sequence<Is...>) {
        (expectArgument<Ps>(record.lastArguments[Is], int(Is)), ...);
    }
};

/// Calls the method through both stubs and checks each call as the server saw it.
template <class Sync, class Async, class Args, class Fixture, class Call>
void callBothWays(Fixture& f, const std::string& iface, const std::string& method, Call call) {
    SCOPED_TRACE(iface);
    const auto duvo = f.middleware();
    const RrQoS qos = replyTime(kWait);
    auto async = duvo->template createClient<Async>(f.rrUri(iface, method), qos);
    auto sync = duvo->template createClient<Sync>(f.rrUri(iface, method), qos);
    const std::size_t before = f.server->calls(iface, method).count;
    EXPECT_TRUE(call(*async).get());
    EXPECT_EQ(f.server->calls(iface, method).count, before + 1);
    Args::expectRecorded(f.server->calls(iface, method));
    EXPECT_TRUE(call(*sync));
    const CallRecord record = f.server->calls(iface, method);
    EXPECT_EQ(record.count, before + 2);
    Args::expectRecorded(record);

    // The server's answer is what the stub returns.
    f.server->answer(iface, method, false);
    EXPECT_FALSE(call(*sync));
    EXPECT_FALSE(call(*async).get());
    f.server->answer(iface, method, true);
}

class EveryInterface : public OnSimulator {};
class CallNodeServer : public OnNodeServer {};

TEST_ON_BOTH(EveryInterface, CallNodeServer, sends_its_exact_arguments_and_returns_the_boolean) {
#define CALL_INTERFACE(Iface, Method, ...)                                                                             \
    callBothWays<m2Types::Iface##Sync, m2Types::Iface##Async, Arguments<__VA_ARGS__>>(                                 \
        f, #Iface, "RPC_" #Method, [](auto& stub) {                                                                    \
            return Arguments<__VA_ARGS__>::invoke(stub, &std::remove_reference_t<decltype(stub)>::RPC_##Method);       \
        });
    M2TYPES_INTERFACE_CATALOGUE(CALL_INTERFACE)
#undef CALL_INTERFACE
}

TEST_ON_BOTH(EveryInterface, CallNodeServer, concurrent_calls_of_one_stub_all_complete) {
    auto stub =
        f.middleware()->template createClient<m2Types::PsRpcSetpowerAsync>(f.rrUri("PsRpcSetpower", "RPC_SetPower"));
    const std::size_t before = f.server->calls("PsRpcSetpower", "RPC_SetPower").count;
    std::vector<boost::future<bool>> futures;
    for (int i = 0; i < 64; ++i) futures.push_back(stub->RPC_SetPower(i % 2 == 0));
    for (auto& future : futures) EXPECT_TRUE(future.get());
    EXPECT_EQ(f.server->calls("PsRpcSetpower", "RPC_SetPower").count, before + 64);
}

class RpcTest : public OnSimulator {
protected:
    using Async = m2Types::PsRpcSetpowerAsync;
    using Sync = m2Types::PsRpcSetpowerSync;
    std::string uri(const std::string& endpoint = simulator->endpoint()) const {
        return rrUri("PsRpcSetpower", "RPC_SetPower", endpoint);
    }
};

TEST_F(RpcTest, uri_and_property_faults_are_refused_at_construction) {
    const auto refused = [&](const std::string& uri) {
        return failure<std::invalid_argument>([&] { duvo->createClient<Async>(uri); });
    };
    const std::string ps = psUri("M2Int32Value0");
    EXPECT_EQ(refused(ps), "URI is not request/response URI. Uri:" + ps);
    EXPECT_EQ(refused(uri() + ",ns=1;s=PsRpcSetpower"),
              "even number of node IDs expected in URI fragment, n pairs of (objectId, methodId)");
    EXPECT_EQ(refused(uri() + "," + uri().substr(uri().find('#') + 1)),
              "interface has 1 methods, but 2 methods specified in URI");
    EXPECT_EQ(failure<std::runtime_error>([&] {
                  middleware({{"opc.asyncCallSubmitTimeoutMs", "soon"}})->createClient<Async>(uri());
              }).rfind("invalid value for DUVO property \"opc.asyncCallSubmitTimeoutMs\"", 0),
              0u);
}

TEST_F(RpcTest, server_failures_reach_the_caller) {
    auto stub = duvo->createClient<Sync>(uri(), replyTime(kWait));
    vesk::duvo::sim::Reply bad;
    bad.status = UA_STATUSCODE_BADINTERNALERROR;
    simulator->setReply(bad);
    EXPECT_EQ(failure<std::runtime_error>([&] { stub->RPC_SetPower(true); }), "RPC call failed: BadInternalError");
    vesk::duvo::sim::Reply wrongType;
    wrongType.wrongOutputType = true;
    simulator->setReply(wrongType);
    EXPECT_EQ(failure<vesk::duvo::DuvoException>([&] { stub->RPC_SetPower(true); }),
              "PsRpcSetpower::RPC_SetPower (return value): expected Boolean, received Int32");
    // The asynchronous stub reports the same through its future.
    EXPECT_THROW(duvo->createClient<Async>(uri())->RPC_SetPower(false).get(), vesk::duvo::DuvoException);
}

TEST_F(RpcTest, sync_call_waits_for_the_reply_time_only) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    auto limited = duvo->createClient<Sync>(uri(proxy.endpoint()), replyTime(500ms));
    EXPECT_TRUE(limited->RPC_SetPower(true)); // connected and answered
    proxy.blackhole();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failure<vesk::duvo::TimeoutException>([&] { limited->RPC_SetPower(true); }),
              "timeout when waiting for data");
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 450ms);
    EXPECT_LT(waited, 3000ms);
    proxy.passThrough();

    // Without a reply time the call waits as long as the server takes.
    vesk::duvo::sim::Reply slow;
    slow.delay = 300ms;
    simulator->setReply(slow);
    EXPECT_TRUE(duvo->createClient<Sync>(uri())->RPC_SetPower(true));
}

TEST_F(RpcTest, connection_listener_sees_the_connection_come_and_go) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    proxy.closeAll(); // no connection until the listener is in place
    auto stub = duvo->createClient<Async>(uri(proxy.endpoint()));
    std::mutex mutex;
    std::vector<bool> seen;
    auto unregister = stub->registerConnectionListener([&](bool up) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(up);
    });
    const auto heard = [&](std::vector<bool> expected) {
        return eventually([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return seen == expected;
        });
    };
    proxy.passThrough();
    stub->asyncConnect();
    ASSERT_TRUE(heard({true}));
    EXPECT_TRUE(stub->RPC_SetPower(true).get());
    proxy.closeAll();
    ASSERT_TRUE(heard({true, false}));
    unregister();
    unregister(); // harmless
    proxy.passThrough();
    stub->asyncConnect();
    EXPECT_TRUE(stub->RPC_SetPower(true).get()); // reconnected; the listener hears nothing more
    EXPECT_TRUE(heard({true, false}));
    stub->close();
    // A call after close() fails through its future, like any other failed call; each refusal
    // is logged once.
    LogRecorder log("orsa.duvo.opcua.internal");
    EXPECT_THROW(stub->RPC_SetPower(true).get(), vesk::duvo::IllegalStateException);
    EXPECT_THROW(stub->asyncConnect(), vesk::duvo::IllegalStateException);
    const auto lines = log.containing("Client entity closed. Uri:" + uri(proxy.endpoint()));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, log4cplus::ERROR_LOG_LEVEL);
}

TEST(CallResults, are_unpacked_with_exact_texts) {
    namespace rr = vesk::duvo::opcua::detail::rr;
    const auto convert = rr::booleanResult("PsRpcSetpower::RPC_SetPower (return value)");
    UA_Boolean yes = true;
    UA_Int32 number = 1;
    UA_Variant boolean, int32;
    UA_Variant_setScalar(&boolean, &yes, &UA_TYPES[UA_TYPES_BOOLEAN]);
    UA_Variant_setScalar(&int32, &number, &UA_TYPES[UA_TYPES_INT32]);
    const auto unpacked = [&](std::size_t results, UA_StatusCode status, const UA_Variant* output) -> std::string {
        rr::CallResponse response;
        if (results > 0) {
            response->results =
                static_cast<UA_CallMethodResult*>(UA_Array_new(results, &UA_TYPES[UA_TYPES_CALLMETHODRESULT]));
            response->resultsSize = results;
            response->results[0].statusCode = status;
            if (output != nullptr) {
                response->results[0].outputArguments = UA_Variant_new();
                UA_Variant_copy(output, response->results[0].outputArguments);
                response->results[0].outputArgumentsSize = 1;
            }
        }
        auto future = boost::make_ready_future(std::move(response));
        std::string result;
        const std::string text =
            failure([&] { result = rr::unpackCallResult<bool>(future, convert) ? "true" : "false"; });
        return text.empty() ? result : text;
    };
    EXPECT_EQ(unpacked(1, UA_STATUSCODE_GOOD, &boolean), "true");
    EXPECT_EQ(unpacked(2, UA_STATUSCODE_GOOD, &boolean), "unexpected resultsSize in RPC call: 2");
    EXPECT_EQ(unpacked(0, UA_STATUSCODE_GOOD, nullptr), "unexpected resultsSize in RPC call: 0");
    EXPECT_EQ(unpacked(1, UA_STATUSCODE_BADARGUMENTSMISSING, nullptr), "RPC call failed: BadArgumentsMissing");
    EXPECT_EQ(unpacked(1, UA_STATUSCODE_GOOD, nullptr),
              "PsRpcSetpower::RPC_SetPower (return value): expected Boolean, received no value");
    EXPECT_EQ(unpacked(1, UA_STATUSCODE_GOOD, &int32),
              "PsRpcSetpower::RPC_SetPower (return value): expected Boolean, received Int32");
}

} // namespace
} // namespace duvo::test
