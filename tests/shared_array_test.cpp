// The copy-on-write element buffers of numeric vectors: sharing, refills in place, thawing
// to a fresh buffer, and growth.
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/binding/flexibleSharedArray.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>

namespace {

using vesk::duvo::freeze;
using vesk::duvo::shared_vector;
using vesk::duvo::thaw;
using vesk::duvo::opcua::detail::binding::FlexibleSharedArray;

UA_Variant arrayVariant(std::vector<double>& values) {
    UA_Variant v;
    UA_Variant_setArray(&v, values.empty() ? UA_EMPTY_ARRAY_SENTINEL : values.data(), values.size(),
                        &UA_TYPES[UA_TYPES_DOUBLE]);
    return v;
}

std::vector<double> elements(const shared_vector<const double>& v) { return {v.begin(), v.end()}; }

TEST(SharedVector, copies_share_the_buffer_and_freezing_needs_a_sole_owner) {
    shared_vector<double> thawed{1, 2, 3};
    shared_vector<double> other = thawed;
    EXPECT_EQ(thawed.use_count(), 2);
    try {
        freeze(std::move(thawed));
        FAIL() << "froze a shared vector";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Can't freeze non-unique vector");
    }
    EXPECT_EQ(thawed.size(), 3u); // a refused freeze leaves the vector as it was
    other = shared_vector<double>();
    const shared_vector<const double> frozen = freeze(std::move(thawed));
    const shared_vector<const double> copy = frozen;
    EXPECT_EQ(copy.data(), frozen.data());
    EXPECT_EQ(frozen.use_count(), 2);
}

TEST(SharedVector, thawing_copies_only_when_shared) {
    shared_vector<const double> frozen{1, 2, 3};
    const double* original = frozen.data();
    shared_vector<const double> kept = frozen;
    shared_vector<double> mine = thaw(std::move(frozen));
    EXPECT_NE(mine.data(), original);
    mine[0] = 9;
    EXPECT_EQ(kept[0], 1); // the other holder keeps the old elements
    kept = shared_vector<const double>();

    shared_vector<const double> alone{4, 5};
    const double* buffer = alone.data();
    EXPECT_EQ(thaw(std::move(alone)).data(), buffer);
}

TEST(SharedVector, resize_and_push_back_keep_elements) {
    shared_vector<int> v;
    for (int i = 0; i < 10; ++i) v.push_back(i);
    v.resize(12);
    EXPECT_EQ(v[9], 9);
    EXPECT_EQ(v[11], 0);
    v.resize(3);
    EXPECT_EQ(std::vector<int>(v.begin(), v.end()), (std::vector<int>{0, 1, 2}));
}

TEST(FlexibleSharedArray, refills_a_sole_owners_buffer_moves_from_a_shared_one_and_grows_and_empties_exactly) {
    FlexibleSharedArray<double> array;
    const auto fill = [&array](std::vector<double> values) {
        UA_Variant v = arrayVariant(values);
        array.assignFromVariant("ctx", &v);
    };
    fill({1, 2, 3, 4, 5, 6, 7, 8});
    const double* buffer = array.data();
    ASSERT_EQ(array.capacity(), 8u);
    fill({6, 5, 4, 3, 2, 1}); // a sole owner: in place
    EXPECT_EQ(array.data(), buffer);
    EXPECT_EQ(array.size(), 6u);
    EXPECT_EQ(array.capacity(), 8u);
    EXPECT_EQ(elements(array.get()), (std::vector<double>{6, 5, 4, 3, 2, 1}));

    const shared_vector<const double> clone = array.get();
    fill({7, 8, 9}); // shared: a new buffer, the clone keeps its elements
    EXPECT_NE(array.data(), clone.data());
    EXPECT_EQ(elements(clone), (std::vector<double>{6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(elements(array.get()), (std::vector<double>{7, 8, 9}));
    EXPECT_EQ(array.use_count(), 1);

    fill(std::vector<double>(10, 1.5)); // beyond the capacity: exactly the new count
    EXPECT_EQ(array.capacity(), 10u);
    fill({});
    EXPECT_EQ(array.size(), 0u);
    EXPECT_EQ(array.capacity(), 0u);
    EXPECT_EQ(array.use_count(), 0);

    // A scalar of the right type is an array of length 0.
    fill({1, 2, 3, 4, 5});
    UA_Double scalar = 3;
    UA_Variant vs;
    UA_Variant_setScalar(&vs, &scalar, &UA_TYPES[UA_TYPES_DOUBLE]);
    array.assignFromVariant("ctx", &vs);
    EXPECT_EQ(array.size(), 0u);
}

TEST(VectorSample, clone_get_set_and_swap_share_without_copying) {
    generated::opcua::m2Types::M2DoubleVector6 sample;
    shared_vector<const double> value{1, 2, 3, 4, 5, 6};
    const double* buffer = value.data();
    sample.setValue0(value);
    EXPECT_EQ(sample.getValue0().data(), buffer);

    auto clone = sample.clone();
    EXPECT_EQ(clone->getValue0().data(), buffer);

    // Refilling the sample from OPC UA leaves the clone and the application's copy intact.
    std::vector<double> fresh{9, 9};
    UA_DataValue dv;
    UA_DataValue_init(&dv);
    dv.value = arrayVariant(fresh);
    sample.setOpcUaDataValues(&dv);
    EXPECT_NE(sample.getValue0().data(), buffer);
    EXPECT_EQ(clone->getValue0().data(), buffer);
    EXPECT_EQ(value[5], 6);

    shared_vector<const double> mine{42};
    const double* mineBuffer = mine.data();
    sample.swapValue0(mine);
    EXPECT_EQ(sample.getValue0().data(), mineBuffer);
    EXPECT_EQ(elements(mine), fresh);
}

} // namespace
