// The simulator's methods, called by a real client with argument lists built from the
// interface catalogue, independently of the simulator's own tables.
#include <gtest/gtest.h>

#include <m2Types/catalogue.hpp>
#include <m2Types/m2Types.hpp>
#include <support/sampleValues.hpp>

#include "simTestSupport.hpp"

using namespace duvo::simtest;
using vesk::duvo::sim::Reply;
using vesk::duvo::sim::Simulator;

namespace {

/// A distinct argument per parameter; a shared vector becomes one array.
template <class... P>
std::vector<OwnedVariant> sampleArguments() {
    int seed = 0;
    return {variantOf(sampleArgument<P>(++seed))...};
}

struct Interface {
    std::string name;
    std::string method;
    std::vector<OwnedVariant> arguments;
};

std::vector<Interface> catalogue() {
#define DUVO_TEST_INTERFACE(Iface, Method, ...) {#Iface, "RPC_" #Method, sampleArguments<__VA_ARGS__>()},
    return {M2TYPES_INTERFACE_CATALOGUE(DUVO_TEST_INTERFACE)};
#undef DUVO_TEST_INTERFACE
}

/// Another OPC UA type than the argument's, with its shape.
OwnedVariant retyped(const OwnedVariant& argument) {
    if (argument.isScalar()) return argument.hasType(&UA_TYPES[UA_TYPES_INT32]) ? scalar(1.0) : scalar(7);
    const int values[2] = {1, 2};
    return array(values, 2);
}

class Method : public ::testing::TestWithParam<std::size_t> {
protected:
    const Interface iface = catalogue().at(GetParam());
    const RawClient& client = sharedClient();
};

TEST_P(Method, refuses_a_missing_or_mistyped_argument_and_answers_true_to_its_exact_arguments_recording_them) {
    Simulator& sim = sharedSimulator();
    const std::size_t before = sim.calls(iface.name).count;
    std::vector<OwnedVariant> missing(iface.arguments.begin(), iface.arguments.end() - 1);
    EXPECT_NE(client.call(iface.name, iface.method, missing).status, UA_STATUSCODE_GOOD);
    for (std::size_t i = 0; i < iface.arguments.size(); ++i) {
        auto mistyped = iface.arguments;
        mistyped[i] = retyped(iface.arguments[i]);
        EXPECT_NE(client.call(iface.name, iface.method, mistyped).status, UA_STATUSCODE_GOOD) << "argument " << i;
    }
    // A vector parameter is one array argument; its elements as scalars do not fit.
    if (!iface.arguments[0].isScalar()) {
        std::vector<OwnedVariant> spread;
        for (std::size_t i = 0; i < iface.arguments[0].arrayLength(); ++i) spread.push_back(scalar(1.0));
        EXPECT_NE(client.call(iface.name, iface.method, spread).status, UA_STATUSCODE_GOOD);
    }
    EXPECT_EQ(sim.calls(iface.name).count, before); // refusals are not recorded

    const CallResult result = client.call(iface.name, iface.method, iface.arguments);
    ASSERT_EQ(result.status, UA_STATUSCODE_GOOD) << UA_StatusCode_name(result.status);
    ASSERT_EQ(result.outputs.size(), 1u);
    ASSERT_TRUE(result.outputs[0].isScalar() && result.outputs[0].hasType(&UA_TYPES[UA_TYPES_BOOLEAN]));
    EXPECT_TRUE(result.outputs[0].at<UA_Boolean>());
    const auto record = sim.calls(iface.name);
    EXPECT_EQ(record.count, before + 1);
    ASSERT_EQ(record.lastArguments.size(), iface.arguments.size());
    for (std::size_t i = 0; i < iface.arguments.size(); ++i) {
        EXPECT_TRUE(sameValue(*record.lastArguments[i], *iface.arguments[i])) << "argument " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Method, ::testing::Range<std::size_t>(0, 23),
                         [](const auto& info) { return catalogue().at(info.param).name; });

TEST(MethodKnobs, bad_status_wrong_output_false_result_and_a_stuck_reply_that_stop_does_not_wait_for) {
    Simulator sim{quietOptions()};
    sim.start();
    RawClient client(60000);
    ASSERT_EQ(client.connect(sim.endpoint()), UA_STATUSCODE_GOOD);
    const auto setPower = [&] { return client.call("PsRpcSetpower", "RPC_SetPower", {scalar(true)}); };
    Reply bad;
    bad.status = UA_STATUSCODE_BADUSERACCESSDENIED;
    sim.setReply(bad);
    EXPECT_EQ(setPower().status, UA_STATUSCODE_BADUSERACCESSDENIED);
    EXPECT_EQ(client.call("OpRpcSystemStop", "RPC_Stop", {scalar(true)}).status, UA_STATUSCODE_BADUSERACCESSDENIED);
    EXPECT_EQ(sim.calls("PsRpcSetpower").count, 1u); // refused calls still arrived

    Reply wrongType;
    wrongType.wrongOutputType = true;
    sim.setReply("PsRpcSetpower", wrongType);
    CallResult result = setPower();
    ASSERT_EQ(result.status, UA_STATUSCODE_GOOD);
    ASSERT_EQ(result.outputs.size(), 1u);
    EXPECT_TRUE(result.outputs[0].hasType(&UA_TYPES[UA_TYPES_INT32]));
    // The other interfaces keep the reply set for all.
    EXPECT_EQ(client.call("OpRpcSystemStop", "RPC_Stop", {scalar(true)}).status, UA_STATUSCODE_BADUSERACCESSDENIED);

    Reply no;
    no.result = false;
    sim.setReply(no);
    result = setPower();
    ASSERT_EQ(result.status, UA_STATUSCODE_GOOD);
    ASSERT_EQ(result.outputs.size(), 1u);
    EXPECT_FALSE(result.outputs[0].at<UA_Boolean>());

    sim.clearRecords();
    EXPECT_EQ(sim.calls("PsRpcSetpower").count, 0u);
    EXPECT_TRUE(sim.calls("PsRpcSetpower").lastArguments.empty());

    Reply stuck;
    stuck.delay = std::chrono::minutes(5);
    sim.setReply(stuck);
    std::thread call([&] { setPower(); });
    ASSERT_TRUE(eventually([&] { return sim.calls("PsRpcSetpower").count == 1; }));
    const auto start = std::chrono::steady_clock::now();
    sim.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    call.join();
}

} // namespace
