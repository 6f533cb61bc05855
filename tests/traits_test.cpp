// Recognising binding samples, creating them for entities, and refusing foreign samples.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <generated/opcua/m2Types/m2Types.hpp>

namespace {

using vesk::duvo::opcua::detail::binding::DuvoOpcUaTraits;
using vesk::duvo::opcua::detail::ps::createDataEntityInternal;
using vesk::duvo::opcua::detail::ps::obtainImpl;
using ST = generated::opcua::m2Types::M2FloatVector6;
using T = m2Types::M2FloatVector6;

/// Keeps the events that reach a logger.
class RecordingAppender : public log4cplus::Appender {
public:
    std::vector<std::pair<log4cplus::LogLevel, std::string>> events;
    ~RecordingAppender() override { destructorImpl(); }
    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& e) override {
        events.emplace_back(e.getLogLevel(), e.getMessage());
    }
};

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

TEST(ObtainImpl, returns_the_binding_or_refuses_with_one_error_line) {
    log4cplus::Logger logger = log4cplus::Logger::getInstance("test.traits.obtain");
    log4cplus::SharedAppenderPtr appender(new RecordingAppender);
    auto& recorded = static_cast<RecordingAppender&>(*appender).events;
    logger.addAppender(appender);
    logger.setAdditivity(false);

    ST own;
    const ST& seen = obtainImpl<T, ST>(own, logger);
    EXPECT_EQ(&seen, &own);
    EXPECT_TRUE(recorded.empty());

    ForeignSample foreign;
    const std::string message = "data type for instance or value is incorrect. Not a OpcUa supported type";
    try {
        obtainImpl<T, ST>(foreign, logger);
        FAIL() << "foreign sample accepted";
    } catch (const vesk::duvo::IllegalStateException& e) {
        EXPECT_EQ(e.what(), message);
    }
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].first, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(recorded[0].second, message);
    logger.removeAllAppenders();
}

} // namespace
