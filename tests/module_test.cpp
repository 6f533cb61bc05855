// The module classes have the shapes that applications program against.
#include <type_traits>

#include <gtest/gtest.h>

#include <m2Types/m2Types.hpp>

namespace {

using vesk::duvo::shared_vector;

// Method signatures: scalars by value, vectors by const reference, in catalogue order.
static_assert(std::is_same_v<decltype(&m2Types::OpRpcSystemBuiltInTest::RPC_BuiltInTest),
                             bool (m2Types::OpRpcSystemBuiltInTest::*)(unsigned char, short, short)>);
static_assert(std::is_same_v<
              decltype(&m2Types::AsyncPsRpcLegPositionSetpoint::RPC_LegPositionSetpoint),
              boost::future<bool> (m2Types::AsyncPsRpcLegPositionSetpoint::*)(const shared_vector<const double>&)>);
static_assert(std::is_same_v<decltype(&m2Types::WhRpcRearmWarpingHarness::RPC_RearmRearmWarpingHarness),
                             bool (m2Types::WhRpcRearmWarpingHarness::*)(bool)>);

// Client interfaces reach both method sets and the entity operations.
static_assert(std::is_base_of_v<m2Types::PsRpcSetpower, m2Types::PsRpcSetpowerSync>);
static_assert(std::is_base_of_v<vesk::duvo::rr::ClientRrEntity, m2Types::PsRpcSetpowerSync>);
static_assert(std::is_base_of_v<m2Types::AsyncPsRpcSetpower, m2Types::PsRpcSetpowerAsync>);
static_assert(std::is_base_of_v<vesk::duvo::rr::ClientRrEntity, m2Types::PsRpcSetpowerAsync>);
static_assert(std::is_abstract_v<m2Types::WhRpcSetpowerSync>);

// Accessors of each field shape (declared by a shared base, so compare the function types).
template <class M>
struct Signature;
template <class C, class F>
struct Signature<F C::*> {
    using type = F;
};
template <class M>
using signature_t = typename Signature<M>::type;

static_assert(std::is_same_v<signature_t<decltype(&m2Types::M2Int8Value0::setValue0)>, void(signed char)>);
static_assert(std::is_same_v<signature_t<decltype(&m2Types::M2StringValue0::getValue0)>, std::string() const>);
static_assert(std::is_same_v<signature_t<decltype(&m2Types::M2Uint16Vector62::swapValue0)>,
                             void(shared_vector<const unsigned short>&)>);
static_assert(std::is_same_v<signature_t<decltype(&m2Types::M2StringVector15::setValue0)>,
                             void(const std::vector<std::string>&)>);
static_assert(!std::is_same_v<m2Types::M2Uint16Scalar, m2Types::M2Uint16Value0>);

TEST(Catalogue, has_24_types_and_23_interfaces) {
    EXPECT_EQ(m2Types::DataTypes::size, 24u);
    EXPECT_EQ(m2Types::Interfaces::size, 23u);
    EXPECT_STREQ(m2Types::WhRpcRearmWarpingHarness::methodName, "RPC_RearmRearmWarpingHarness");
    EXPECT_STREQ(m2Types::PsRpcSetpower::methodName, "RPC_SetPower");
    EXPECT_EQ(m2Types::M2DoubleMatrix36::nominalLength, 36u);
}

} // namespace
