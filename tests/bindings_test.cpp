// Every m2Types sample class: its defaults, its OPC UA representation, a round trip through
// open62541's binary encoding, and the refusal of values of the wrong type.
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <open62541/types.h>

#include <generated/opcua/m2Types/m2Types.hpp>

#include "support/sampleValues.hpp"
#include "support/typeFilter.hpp"

namespace {

using vesk::duvo::opcua::detail::binding::BindingOf_t;
using vesk::duvo::opcua::detail::binding::DuvoOpcUaTraits;
using vesk::duvo::opcua::detail::binding::UaTypeOf;

/// A UA_DataValue that open62541 owns, freed at scope exit.
struct OwnedDataValue {
    UA_DataValue value;
    OwnedDataValue() { UA_DataValue_init(&value); }
    ~OwnedDataValue() { UA_DataValue_clear(&value); }
    OwnedDataValue(const OwnedDataValue&) = delete;
    OwnedDataValue& operator=(const OwnedDataValue&) = delete;
};

/// Encodes a data value with open62541 and decodes it again, as the wire would.
void throughTheWire(const UA_DataValue& in, OwnedDataValue& out) {
    UA_ByteString bytes;
    UA_ByteString_init(&bytes);
    ASSERT_EQ(UA_encodeBinary(&in, &UA_TYPES[UA_TYPES_DATAVALUE], &bytes), UA_STATUSCODE_GOOD);
    ASSERT_EQ(UA_decodeBinary(&bytes, &out.value, &UA_TYPES[UA_TYPES_DATAVALUE], nullptr), UA_STATUSCODE_GOOD);
    UA_ByteString_clear(&bytes);
}

template <class V>
void expectSameValue(const V& a, const V& b) {
    if constexpr (std::is_floating_point_v<V>)
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
    else
        EXPECT_TRUE(a == b);
}

/// How each structure's field travels, written down from the type catalogue and not from
/// the plug-in's mapping, so that a wrong row there fails here.
struct Carried {
    const char* field;
    int uaType;
    bool array;
};
const std::map<std::string, Carried>& catalogueTypes() {
    static const std::map<std::string, Carried> rows{
        {"M2BooleanValue0", {"value0", UA_TYPES_BOOLEAN, false}},
        {"M2Int8Value0", {"value0", UA_TYPES_SBYTE, false}},
        {"M2Uint8Value0", {"value0", UA_TYPES_BYTE, false}},
        {"M2Int16Value0", {"value0", UA_TYPES_INT16, false}},
        {"M2Uint16Scalar", {"value0", UA_TYPES_UINT16, false}},
        {"M2Uint16Value0", {"value0", UA_TYPES_UINT16, false}},
        {"M2Int32Value0", {"value0", UA_TYPES_INT32, false}},
        {"M2Uint32Value0", {"value0", UA_TYPES_UINT32, false}},
        {"M2Uint64Value0", {"value0", UA_TYPES_UINT64, false}},
        {"M2FloatValue0", {"value0", UA_TYPES_FLOAT, false}},
        {"M2StringValue0", {"value0", UA_TYPES_STRING, false}},
        {"M2FloatVector6", {"value0", UA_TYPES_FLOAT, true}},
        {"M2FloatVector8", {"value0", UA_TYPES_FLOAT, true}},
        {"M2FloatVector9", {"value0", UA_TYPES_FLOAT, true}},
        {"M2DoubleVector6", {"value0", UA_TYPES_DOUBLE, true}},
        {"M2DoubleVector15", {"value0", UA_TYPES_DOUBLE, true}},
        {"M2DoubleMatrix36", {"value0", UA_TYPES_DOUBLE, true}},
        {"M2Int32Vector6", {"value0", UA_TYPES_INT32, true}},
        {"M2Int32Vector15", {"value0", UA_TYPES_INT32, true}},
        {"M2Uint16Vector3", {"value0", UA_TYPES_UINT16, true}},
        {"M2Uint16Vector6", {"value0", UA_TYPES_UINT16, true}},
        {"M2Uint16Vector7", {"value0", UA_TYPES_UINT16, true}},
        {"M2Uint16Vector62", {"value0", UA_TYPES_UINT16, true}},
        {"M2StringVector15", {"value0", UA_TYPES_STRING, true}},
    };
    return rows;
}

template <class T>
class SampleBindingTest : public ::testing::Test {
protected:
    using ST = BindingOf_t<T>;
    using Field = typename T::field_type;
    using E = typename Field::element_type;
};

using AllTypes = m2Types::rebind_t<::testing::Types, m2Types::DataTypes>;
TYPED_TEST_SUITE(SampleBindingTest, AllTypes, duvo::test::TypeNames);

TYPED_TEST(SampleBindingTest,
           starts_empty_and_its_value_has_the_catalogue_type_and_shape_and_survives_wire_clone_and_copy) {
    using ST = typename TestFixture::ST;
    ST sample;
    EXPECT_TRUE(DuvoOpcUaTraits<TypeParam>::isImpl(&sample));
    EXPECT_TRUE(DuvoOpcUaTraits<TypeParam>::isImpl(DuvoOpcUaTraits<TypeParam>::makeImpl().get()));
    EXPECT_EQ(sample.getDataValueCount(), 1u);
    EXPECT_FALSE(sample.hasKey());
    EXPECT_FALSE(sample.keyEquals(ST()));
    expectSameValue(sample.getValue0(), typename TypeParam::value_type{});
    std::unique_ptr<TypeParam> key = sample.cloneKey();
    EXPECT_NE(dynamic_cast<ST*>(key.get()), nullptr);

    ASSERT_EQ(catalogueTypes().count(TypeParam::typeName), 1u) << "not in the catalogue";
    const Carried& row = catalogueTypes().at(TypeParam::typeName);
    EXPECT_EQ(std::string(ST::context), std::string("::m2Types::") + TypeParam::typeName + "." + row.field);
    sample.setValue0(duvo::test::makeValue<TypeParam>(5));
    const UA_DataValue* dv = sample.getOpcUaDataValues();
    EXPECT_TRUE(dv->hasValue);
    EXPECT_FALSE(dv->hasSourceTimestamp || dv->hasServerTimestamp || dv->hasStatus || dv->hasSourcePicoseconds);
    EXPECT_EQ(UaTypeOf<typename TestFixture::E>::index, row.uaType);
    EXPECT_EQ(dv->value.type, &UA_TYPES[row.uaType]) << (dv->value.type ? dv->value.type->typeName : "no type");
    EXPECT_EQ(dv->value.storageType, UA_VARIANT_DATA_NODELETE);
    EXPECT_EQ(dv->value.arrayDimensionsSize, 0u);
    EXPECT_EQ(!UA_Variant_isScalar(&dv->value), row.array);
    if (row.array) {
        EXPECT_EQ(dv->value.arrayLength, TypeParam::nominalLength);
    }

    OwnedDataValue wire;
    throughTheWire(*dv, wire);
    ST target;
    target.setOpcUaDataValues(&wire.value);
    expectSameValue(target.getValue0(), sample.getValue0());

    std::unique_ptr<TypeParam> clone = sample.clone();
    ASSERT_NE(dynamic_cast<ST*>(clone.get()), nullptr);
    expectSameValue(clone->getValue0(), sample.getValue0());
    ST copy;
    copy.copy(*clone);
    expectSameValue(copy.getValue0(), sample.getValue0());
    if constexpr (TypeParam::field_type::isVector && !std::is_same_v<typename TestFixture::E, std::string>) {
        EXPECT_EQ(copy.getValue0().data(), sample.getValue0().data()); // copies share, never copy
    }
    // The clone's own representation is rebuilt from its own storage.
    OwnedDataValue cloneWire;
    throughTheWire(*dynamic_cast<ST*>(clone.get())->getOpcUaDataValues(), cloneWire);
    ST cloneTarget;
    cloneTarget.setOpcUaDataValues(&cloneWire.value);
    expectSameValue(cloneTarget.getValue0(), sample.getValue0());
}

template <class T>
class VectorBindingTest : public SampleBindingTest<T> {};
using VectorTypes =
    m2Types::rebind_t<::testing::Types, duvo::test::Filter<duvo::test::IsVector, m2Types::DataTypes>::type>;
TYPED_TEST_SUITE(VectorBindingTest, VectorTypes, duvo::test::TypeNames);

TYPED_TEST(VectorBindingTest, vectors_carry_any_length_and_empty_is_the_sentinel) {
    using ST = typename TestFixture::ST;
    for (std::size_t length : {std::size_t(0), std::size_t(1), TypeParam::nominalLength + 38}) {
        SCOPED_TRACE(length);
        ST source;
        source.setValue0(duvo::test::makeValue<TypeParam>(3, length));
        const UA_DataValue* dv = source.getOpcUaDataValues();
        EXPECT_EQ(dv->value.arrayLength, length);
        if (length == 0) {
            EXPECT_EQ(dv->value.data, UA_EMPTY_ARRAY_SENTINEL);
        }
        OwnedDataValue wire;
        throughTheWire(*dv, wire);
        ST target;
        target.setValue0(duvo::test::makeValue<TypeParam>(9, 4)); // a previous value to replace
        target.setOpcUaDataValues(&wire.value);
        expectSameValue(target.getValue0(), source.getValue0());
    }
}

TYPED_TEST(SampleBindingTest, wrong_type_is_refused_and_value_kept) {
    using ST = typename TestFixture::ST;
    ST sample;
    const auto before = duvo::test::makeValue<TypeParam>(11);
    sample.setValue0(before);

    // A value of another type: Int32 for everything but Int32, where Double is used.
    const bool isInt32 = std::is_same_v<typename TestFixture::E, int>;
    UA_Int32 i = 42;
    UA_Double d = 4.2;
    OwnedDataValue wrong;
    if (isInt32)
        UA_Variant_setScalarCopy(&wrong.value.value, &d, &UA_TYPES[UA_TYPES_DOUBLE]);
    else
        UA_Variant_setScalarCopy(&wrong.value.value, &i, &UA_TYPES[UA_TYPES_INT32]);
    wrong.value.hasValue = true;
    try {
        sample.setOpcUaDataValues(&wrong.value);
        FAIL() << "no exception";
    } catch (const vesk::duvo::DuvoException& e) {
        const std::string expected = std::string(ST::context) + ": expected " +
                                     UaTypeOf<typename TestFixture::E>::type()->typeName + ", received " +
                                     (isInt32 ? "Double" : "Int32");
        EXPECT_EQ(e.what(), expected);
    }
    expectSameValue(sample.getValue0(), before);

    OwnedDataValue missing;
    try {
        sample.setOpcUaDataValues(&missing.value);
        FAIL() << "no exception";
    } catch (const vesk::duvo::DuvoException& e) {
        EXPECT_NE(std::string(e.what()).find("received no value"), std::string::npos) << e.what();
    }
    expectSameValue(sample.getValue0(), before);
}

// Shapes that need more than the catalogue gives.
TEST(Binding, takes_a_scalar_from_an_array_any_string_count_and_never_converts_or_accepts_null_strings) {
    const duvo::test::ForeignInt32 foreign;
    EXPECT_FALSE(DuvoOpcUaTraits<m2Types::M2Int32Value0>::isImpl(&foreign));
    EXPECT_FALSE(DuvoOpcUaTraits<m2Types::M2Int32Value0>::isImpl(nullptr));

    UA_DataValue dv;
    UA_DataValue_init(&dv);
    // A scalar takes the first element of an array and refuses an empty one.
    generated::opcua::m2Types::M2Int32Value0 number;
    number.setValue0(-3);
    UA_Int32 values[] = {17, 18};
    UA_Variant_setArray(&dv.value, values, 2, &UA_TYPES[UA_TYPES_INT32]);
    number.setOpcUaDataValues(&dv);
    EXPECT_EQ(number.getValue0(), 17);
    UA_Variant_setArray(&dv.value, UA_EMPTY_ARRAY_SENTINEL, 0, &UA_TYPES[UA_TYPES_INT32]);
    EXPECT_THROW(number.setOpcUaDataValues(&dv), vesk::duvo::DuvoException);
    EXPECT_EQ(number.getValue0(), 17);

    // Null characters with a length are refused, and the value is kept.
    generated::opcua::m2Types::M2StringValue0 text;
    text.setValue0("kept");
    UA_String broken{3, nullptr};
    UA_Variant_setScalar(&dv.value, &broken, &UA_TYPES[UA_TYPES_STRING]);
    try {
        text.setOpcUaDataValues(&dv);
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "basic_string: construction from null is not valid");
    }
    EXPECT_EQ(text.getValue0(), "kept");
    generated::opcua::m2Types::M2StringVector15 texts;
    texts.setValue0({"a", "b"});
    UA_String withBroken[] = {UA_STRING_STATIC("x"), broken};
    UA_Variant_setArray(&dv.value, withBroken, 2, &UA_TYPES[UA_TYPES_STRING]);
    EXPECT_THROW(texts.setOpcUaDataValues(&dv), std::logic_error);
    EXPECT_EQ(texts.getValue0(), (std::vector<std::string>{"a", "b"}));

    // A string vector takes the length as it arrives.
    std::vector<UA_String> strings(20, UA_STRING_STATIC("new"));
    for (std::size_t n : {std::size_t(20), std::size_t(2)}) {
        UA_Variant_setArray(&dv.value, strings.data(), n, &UA_TYPES[UA_TYPES_STRING]);
        texts.setOpcUaDataValues(&dv);
        EXPECT_EQ(texts.getValue0(), std::vector<std::string>(n, "new"));
    }

    // The element type is never converted.
    generated::opcua::m2Types::M2FloatVector6 floats;
    UA_Double doubles[] = {1.0, 2.0};
    UA_Variant_setArray(&dv.value, doubles, 2, &UA_TYPES[UA_TYPES_DOUBLE]);
    try {
        floats.setOpcUaDataValues(&dv);
        ADD_FAILURE() << "no exception";
    } catch (const vesk::duvo::DuvoException& e) {
        EXPECT_STREQ(e.what(), "::m2Types::M2FloatVector6.value0: expected Float, received Double");
    }
    EXPECT_TRUE(floats.getValue0().empty());
}

} // namespace
