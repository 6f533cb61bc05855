// Recognising binding samples and creating them for entities.
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <log4cplus/logger.h>

#include <generated/opcua/m2Types/m2Types.hpp>

namespace {

using vesk::duvo::opcua::detail::binding::DuvoOpcUaTraits;
using vesk::duvo::opcua::detail::ps::createDataEntityInternal;
using ST = generated::opcua::m2Types::M2FloatVector6;
using T = m2Types::M2FloatVector6;

/// A sample of the right module type made by some other binding.
class ForeignSample : public T {
public:
    std::unique_ptr<T> clone() const override { return std::make_unique<ForeignSample>(); }
    bool keyEquals(const T&) const override { return false; }
    std::unique_ptr<T> cloneKey() const override { return std::make_unique<ForeignSample>(); }
    bool hasKey() const override { return false; }
    value_type getValue0() const override { return {1.5f}; }
    void setValue0(const value_type&) override {}
    void swapValue0(value_type&) override {}
};

TEST(DuvoOpcUaTraits, recognises_only_its_own_samples) {
    EXPECT_FALSE(DuvoOpcUaTraits<T>::isImpl(nullptr));
    std::unique_ptr<T> made = DuvoOpcUaTraits<T>::makeImpl();
    EXPECT_TRUE(DuvoOpcUaTraits<T>::isImpl(made.get()));
    EXPECT_TRUE(made->getValue0().empty());
    ForeignSample foreign;
    EXPECT_FALSE(DuvoOpcUaTraits<T>::isImpl(&foreign));
}

TEST(CreateDataEntity, gives_independent_binding_samples) {
    log4cplus::Logger logger = log4cplus::Logger::getInstance("test.traits");
    std::shared_ptr<T> a = createDataEntityInternal<T, ST>(logger);
    std::shared_ptr<T> b = createDataEntityInternal<T, ST>(logger);
    ASSERT_NE(dynamic_cast<ST*>(a.get()), nullptr);
    a->setValue0({1, 2, 3});
    EXPECT_TRUE(b->getValue0().empty());
    dynamic_cast<ST&>(*b).copy(*a);
    EXPECT_EQ(b->getValue0().data(), a->getValue0().data()); // the copy shares, never copies
}

} // namespace
