// Converting samples to OPC UA values allocates nothing and copies no element; refilling a
// sample that owns its buffer allocates nothing either. Counted with a replaced operator new.
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>
#include <open62541/types.h>

#include <generated/opcua/m2Types/m2Types.hpp>

#include "support/sampleValues.hpp"
#include "support/typeFilter.hpp"

namespace {
std::atomic<long> allocations{0};
std::atomic<bool> exhausted{false}; // every allocation fails while set
} // namespace

void* operator new(std::size_t n) {
    ++allocations;
    if (!exhausted.load())
        if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using vesk::duvo::opcua::detail::binding::BindingOf_t;

/// Counts the allocations made while it lives.
class AllocationCount {
public:
    AllocationCount() : start_(allocations.load()) {}
    long operator()() const { return allocations.load() - start_; }

private:
    long start_;
};

template <class T>
class NumericVectorAllocation : public ::testing::Test {};
using NumericVectors =
    m2Types::rebind_t<::testing::Types, duvo::test::Filter<duvo::test::IsNumericVector, m2Types::DataTypes>::type>;
TYPED_TEST_SUITE(NumericVectorAllocation, NumericVectors, duvo::test::TypeNames);

TYPED_TEST(NumericVectorAllocation, publishing_side_borrows_the_buffer) {
    BindingOf_t<TypeParam> sample;
    const auto value = duvo::test::makeValue<TypeParam>(1, 62);
    sample.setValue0(value);

    AllocationCount count;
    const UA_DataValue* dv = sample.getOpcUaDataValues();
    UA_WriteValue write;
    UA_WriteValue_init(&write);
    write.attributeId = UA_ATTRIBUTEID_VALUE;
    write.value = *dv; // shallow, as the publisher does
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(write.value.value.data, value.data()); // the very elements of the application's vector
    EXPECT_EQ(write.value.value.arrayLength, 62u);
}

TYPED_TEST(NumericVectorAllocation, receiving_side_refills_in_place) {
    using E = typename TypeParam::field_type::element_type;
    BindingOf_t<TypeParam> sample;
    std::vector<E> incoming(62);
    UA_DataValue dv;
    UA_DataValue_init(&dv);
    UA_Variant_setArray(&dv.value, incoming.data(), incoming.size(),
                        vesk::duvo::opcua::detail::binding::UaTypeOf<E>::type());
    sample.setOpcUaDataValues(&dv); // first fill allocates the buffer

    AllocationCount count;
    sample.setOpcUaDataValues(&dv);
    sample.setOpcUaDataValues(&dv);
    EXPECT_EQ(count(), 0);

    // A clone costs its object and shares the elements.
    auto clone = sample.clone();
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(clone->getValue0().data(), sample.getValue0().data());
}

TEST(ScalarAllocation, scalars_and_strings_convert_without_allocating) {
    generated::opcua::m2Types::M2Uint64Value0 number;
    generated::opcua::m2Types::M2StringValue0 text;
    text.setValue0(std::string(100, 'x'));
    generated::opcua::m2Types::M2StringVector15 texts;
    texts.setValue0(std::vector<std::string>(15, std::string(40, 'y'))); // the nominal count

    AllocationCount count;
    number.getOpcUaDataValues();
    text.getOpcUaDataValues();
    texts.getOpcUaDataValues();
    EXPECT_EQ(count(), 0);

    // More strings than that need descriptors from the heap; without memory that is
    // std::bad_alloc for the caller, not the end of the program.
    texts.setValue0(std::vector<std::string>(20, std::string(40, 'y')));
    bool refused = false;
    exhausted = true;
    try {
        texts.getOpcUaDataValues();
    } catch (const std::bad_alloc&) {
        refused = true;
    }
    exhausted = false;
    EXPECT_TRUE(refused);
}

} // namespace
