// Calling every interface of the independent server both ways, with the arguments checked as
// the server received them.
#include <chrono>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <m2Types/catalogue.hpp>
#include <vesk/duvo/rr/qos.hpp>

#include "interopFixture.hpp"

namespace {

using namespace std::chrono_literals;
using duvo::interop::OwnedVariant;
using duvo::interop::uaTypeOf;
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

/// One argument as the server recorded it: its OPC UA type, shape and value.
template <class P>
void expectArgument(const UA_Variant& got, int position) {
    SCOPED_TRACE("argument " + std::to_string(position));
    const P sent = argument<P>(position);
    if constexpr (std::is_arithmetic_v<P>) {
        ASSERT_EQ(got.type, uaTypeOf<P>()) << (got.type ? got.type->typeName : "no value");
        ASSERT_TRUE(UA_Variant_isScalar(&got));
        EXPECT_EQ(*static_cast<const P*>(got.data), sent);
    } else {
        using E = typename P::value_type;
        ASSERT_EQ(got.type, uaTypeOf<E>()) << (got.type ? got.type->typeName : "no value");
        ASSERT_FALSE(UA_Variant_isScalar(&got));
        ASSERT_EQ(got.arrayLength, sent.size());
        for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(static_cast<const E*>(got.data)[i], sent[i]);
    }
}

template <class... Ps>
struct Arguments {
    template <class Stub, class Method>
    static auto invoke(Stub& stub, Method method) {
        return invokeImpl(stub, method, std::index_sequence_for<Ps...>{});
    }
    template <class Stub, class Method, std::size_t... Is>
    static auto invokeImpl(Stub& stub, Method method, std::index_sequence<Is...>) {
        return (stub.*method)(argument<Ps>(int(Is))...);
    }
    /// The server's record of the last call: a Variant array, one element per argument.
    static void expectRecorded(const OwnedVariant& lastCall) {
        ASSERT_EQ(lastCall->type, &UA_TYPES[UA_TYPES_VARIANT]);
        ASSERT_EQ(lastCall.arrayLength(), sizeof...(Ps));
        expectEach(lastCall, std::index_sequence_for<Ps...>{});
    }
    template <std::size_t... Is>
    static void expectEach(const OwnedVariant& lastCall, std::index_sequence<Is...>) {
        (expectArgument<Ps>(lastCall.at<UA_Variant>(Is), int(Is)), ...);
    }
};

class CallNodeServer : public duvo::interop::NodeServerSuite {
protected:
    /// Calls the method through both stubs and checks each call as the server saw it.
    template <class Sync, class Async, class Args, class Call>
    void callBothWays(const std::string& iface, const std::string& method, Call call) {
        SCOPED_TRACE(iface);
        const std::string node = iface + "." + method;
        const auto duvo = middleware();
        const RrQoS qos{std::make_shared<vesk::duvo::rr::qos::ReplyTime>(duvo::interop::kWait)};
        auto async = duvo->createClient<Async>(rrUri(iface, method), qos);
        auto sync = duvo->createClient<Sync>(rrUri(iface, method), qos);
        const auto calls = [&] { return raw->read(node + ".CallCount").template at<UA_UInt32>(); };
        const UA_UInt32 before = calls();

        EXPECT_TRUE(call(*async).get());
        EXPECT_EQ(calls(), before + 1);
        Args::expectRecorded(raw->read(node + ".LastCall"));
        EXPECT_TRUE(call(*sync));
        EXPECT_EQ(calls(), before + 2);
        Args::expectRecorded(raw->read(node + ".LastCall"));

        // The server's answer is what the stub returns.
        UA_Boolean no = false;
        UA_Variant answer;
        UA_Variant_setScalar(&answer, &no, &UA_TYPES[UA_TYPES_BOOLEAN]);
        ASSERT_EQ(raw->write(node + ".Result", answer), UA_STATUSCODE_GOOD);
        EXPECT_FALSE(call(*sync));
        EXPECT_FALSE(call(*async).get());
        UA_Boolean yes = true;
        UA_Variant_setScalar(&answer, &yes, &UA_TYPES[UA_TYPES_BOOLEAN]);
        ASSERT_EQ(raw->write(node + ".Result", answer), UA_STATUSCODE_GOOD);
    }
};

TEST_F(CallNodeServer, every_interface_sends_its_exact_arguments_and_returns_the_boolean) {
#define CALL_INTERFACE(Iface, Method, ...)                                                                      \
    callBothWays<m2Types::Iface##Sync, m2Types::Iface##Async, Arguments<__VA_ARGS__>>(                      \
        #Iface, "RPC_" #Method, [](auto& stub) {                                                             \
            return Arguments<__VA_ARGS__>::invoke(stub, &std::remove_reference_t<decltype(stub)>::RPC_##Method); \
        });
    M2TYPES_INTERFACE_CATALOGUE(CALL_INTERFACE)
#undef CALL_INTERFACE
}

TEST_F(CallNodeServer, concurrent_calls_of_one_stub_all_complete) {
    auto stub = middleware()->createClient<m2Types::PsRpcSetpowerAsync>(rrUri("PsRpcSetpower", "RPC_SetPower"));
    const UA_UInt32 before = raw->read("PsRpcSetpower.RPC_SetPower.CallCount").at<UA_UInt32>();
    std::vector<boost::future<bool>> futures;
    for (int i = 0; i < 64; ++i) futures.push_back(stub->RPC_SetPower(i % 2 == 0));
    for (auto& f : futures) EXPECT_TRUE(f.get());
    EXPECT_EQ(raw->read("PsRpcSetpower.RPC_SetPower.CallCount").at<UA_UInt32>(), before + 64);
}

} // namespace
