// The simulator's variables, seen through a real client: one typed test body for all 24.
#include <gtest/gtest.h>

#include <open62541/client_subscriptions.h>

#include <m2Types/m2Types.hpp>
#include <support/sampleValues.hpp>

#include "simTestSupport.hpp"

using namespace duvo::simtest;
using vesk::duvo::sim::Simulator;

namespace {

template <class T>
class Variable : public ::testing::Test {
protected:
    using Field = typename T::field_type;
    using E = typename Field::element_type;

    /// A type the variable does not have.
    static OwnedVariant otherType() {
        if constexpr (std::is_same_v<E, double>)
            return Field::isVector ? array(std::vector<float>(3, 1.0f).data(), 3) : scalar(1.0f);
        else
            return Field::isVector ? array(std::vector<double>(3, 1.0).data(), 3) : scalar(1.0);
    }

    const RawClient& client = sharedClient();
    const std::string name = T::typeName;
};

using AllTypes = m2Types::rebind_t<::testing::Types, m2Types::DataTypes>;
TYPED_TEST_SUITE(Variable, AllTypes, duvo::test::TypeNames);

TYPED_TEST(Variable, exists_with_its_type_shape_and_zero_value_and_takes_its_type_at_any_length_but_no_other) {
    using E = typename TestFixture::E;
    const UA_DataType* type = UaTypeOf<E>::type();
    UA_NodeId dataType;
    ASSERT_EQ(UA_Client_readDataTypeAttribute(this->client.get(), stringNode(this->name), &dataType),
              UA_STATUSCODE_GOOD);
    EXPECT_TRUE(UA_NodeId_equal(&dataType, &type->typeId));
    UA_Int32 valueRank = 0;
    ASSERT_EQ(UA_Client_readValueRankAttribute(this->client.get(), stringNode(this->name), &valueRank),
              UA_STATUSCODE_GOOD);
    EXPECT_EQ(valueRank, TestFixture::Field::isVector ? UA_VALUERANK_ONE_DIMENSION : UA_VALUERANK_SCALAR);

    const OwnedVariant value = this->client.read(this->name);
    ASSERT_TRUE(value.hasType(type));
    const std::size_t n = TestFixture::Field::isVector ? TypeParam::nominalLength : 1;
    EXPECT_EQ(value.isScalar(), !TestFixture::Field::isVector);
    if (TestFixture::Field::isVector) {
        EXPECT_EQ(value.arrayLength(), n);
    }
    void* zero = UA_new(type);
    for (std::size_t i = 0; i < n; ++i) {
        EXPECT_TRUE(UA_equal(static_cast<const char*>(value->data) + i * type->memSize, zero, type)) << "element " << i;
    }
    UA_delete(zero, type);

    Simulator& sim = sharedSimulator();
    const std::size_t before = sim.writeCount(this->name);
    // A vector two elements longer than its nominal length: no length is imposed.
    const OwnedVariant written = variantOf(duvo::test::makeValue<TypeParam>(7, TypeParam::nominalLength + 2));
    ASSERT_EQ(this->client.write(this->name, written), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(sameValue(*sim.read(this->name), *written));
    EXPECT_EQ(sim.writeCount(this->name), before + 1);

    EXPECT_EQ(this->client.write(this->name, this->otherType()), UA_STATUSCODE_BADTYPEMISMATCH);
    // The other shape of the same type: scalars and arrays are not interchangeable.
    const auto sample = duvo::test::makeValue<TypeParam>(9, TypeParam::nominalLength);
    OwnedVariant otherShape;
    if constexpr (TestFixture::Field::isVector)
        otherShape = scalar<E>(sample[0]);
    else if constexpr (std::is_same_v<E, std::string>)
        otherShape = array(std::vector<std::string>{sample});
    else
        otherShape = array(&sample, 1);
    EXPECT_NE(this->client.write(this->name, otherShape), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(sameValue(*sim.read(this->name), *written));
    EXPECT_EQ(sim.writeCount(this->name), before + 1);
}

TEST(Simulator, names_outside_the_catalogue_are_refused) {
    Simulator& sim = sharedSimulator();
    EXPECT_THROW(sim.read("M2FloatVector7"), std::invalid_argument);
    EXPECT_THROW(sim.calls("PsRpcSetPower"), std::invalid_argument);
    EXPECT_EQ(Simulator::variableNames().size(), 24u);
    EXPECT_EQ(Simulator::interfaceNames().size(), 23u);
}

TEST(Simulator, server_side_writes_reach_a_fast_subscriber_are_not_counted_and_pass_where_clients_are_refused) {
    Simulator sim(quietOptions());
    sim.setWritable("M2Uint8Value0", false); // before start: applies to the fresh server
    sim.start();
    RawClient client(sim.endpoint());

    UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
    request.requestedPublishingInterval = 5.0;
    const UA_CreateSubscriptionResponse subscription =
        UA_Client_Subscriptions_create(client.get(), request, nullptr, nullptr, nullptr);
    ASSERT_EQ(subscription.responseHeader.serviceResult, UA_STATUSCODE_GOOD);
    // The stack's own floor is 100 ms: the simulator lowers it.
    EXPECT_EQ(subscription.revisedPublishingInterval, 5.0);

    struct Seen {
        std::mutex mutex;
        std::vector<UA_Int32> values;
    } seen;
    auto onChange = [](UA_Client*, UA_UInt32, void*, UA_UInt32, void* context, UA_DataValue* value) {
        auto* s = static_cast<Seen*>(context);
        if (value->hasValue && value->value.type == &UA_TYPES[UA_TYPES_INT32]) {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->values.push_back(*static_cast<UA_Int32*>(value->value.data));
        }
    };
    const std::string watched = "M2Int32Value0"; // the request borrows its characters
    UA_MonitoredItemCreateRequest item = UA_MonitoredItemCreateRequest_default(stringNode(watched));
    item.requestedParameters.samplingInterval = 0.0;
    const UA_MonitoredItemCreateResult created = UA_Client_MonitoredItems_createDataChange(
        client.get(), subscription.subscriptionId, UA_TIMESTAMPSTORETURN_BOTH, item, &seen, onChange, nullptr);
    ASSERT_EQ(created.statusCode, UA_STATUSCODE_GOOD);
    EXPECT_LT(created.revisedSamplingInterval, 50.0);

    sim.write("M2Int32Value0", *scalar<int>(42));
    const bool arrived = eventually([&] {
        UA_Client_run_iterate(client.get(), 5);
        std::lock_guard<std::mutex> lock(seen.mutex);
        return !seen.values.empty() && seen.values.back() == 42;
    });
    EXPECT_TRUE(arrived);
    EXPECT_EQ(sim.writeCount("M2Int32Value0"), 0u);

    // An unwritable variable answers clients BadNotWritable; the server still writes it.
    EXPECT_EQ(client.write("M2Uint8Value0", scalar<unsigned char>(3)), UA_STATUSCODE_BADNOTWRITABLE);
    EXPECT_EQ(sim.writeCount("M2Uint8Value0"), 0u);
    sim.write("M2Uint8Value0", *scalar<unsigned char>(4));
    EXPECT_EQ(sim.read("M2Uint8Value0").at<UA_Byte>(), 4);

    sim.setWritable("M2Uint8Value0", true);
    EXPECT_EQ(client.write("M2Uint8Value0", scalar<unsigned char>(5)), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(sim.waitForWrites("M2Uint8Value0", 1, std::chrono::seconds(5)));
    sim.setWritable("M2Uint8Value0", false);
    EXPECT_EQ(client.write("M2Uint8Value0", scalar<unsigned char>(6)), UA_STATUSCODE_BADNOTWRITABLE);
}

} // namespace
