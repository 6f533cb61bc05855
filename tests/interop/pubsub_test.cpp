// Publishing every type to the independent server and receiving it back, by monitored items,
// by polling and as the most recent value.
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "interopFixture.hpp"
#include "support/sampleValues.hpp"

namespace {

using namespace std::chrono_literals;
using duvo::interop::NodeServerSuite;
using duvo::test::makeValue;

/// Reads from the queue until a sample with the value arrives or the time is up.
template <class T>
bool receives(vesk::duvo::ps::Subscriber<T>& subscriber, const typename T::value_type& value,
              std::chrono::milliseconds within = duvo::interop::kWait) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (std::chrono::steady_clock::now() < end) {
        for (const auto& sample : subscriber.read(0))
            if (sample && sample->getValue0() == value) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

template <class T>
bool mostRecentIs(vesk::duvo::ps::MrvSubscriber<T>& subscriber, const typename T::value_type& value,
                  std::chrono::milliseconds within = duvo::interop::kWait) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (std::chrono::steady_clock::now() < end) {
        const auto samples = subscriber.readMostRecent(0ms);
        if (samples.size() == 1 && samples[0]->getValue0() == value) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

using AllTypes = m2Types::rebind_t<::testing::Types, m2Types::DataTypes>;

template <class T>
class PublishToNodeServer : public NodeServerSuite {};
TYPED_TEST_SUITE(PublishToNodeServer, AllTypes, duvo::test::TypeNames);

TYPED_TEST(PublishToNodeServer, lands_with_and_without_waiting_and_keeps_the_source_time) {
    auto publisher = this->middleware()->template createPublisher<TypeParam>(this->psUri(TypeParam::typeName));
    std::shared_ptr<TypeParam> sample = publisher->createDataEntity();

    sample->setValue0(makeValue<TypeParam>(41));
    publisher->publish(*sample, duvo::interop::kWait);
    EXPECT_TRUE(this->template serverValue<TypeParam>() == sample->getValue0());

    sample->setValue0(makeValue<TypeParam>(42));
    publisher->publish(1.5, *sample, duvo::interop::kWait);
    EXPECT_TRUE(this->template serverValue<TypeParam>() == sample->getValue0());
    UA_DataValue stamped = this->raw->readAttribute(duvo::interop::stringNode(TypeParam::typeName), UA_ATTRIBUTEID_VALUE);
    EXPECT_TRUE(stamped.hasSourceTimestamp);
    EXPECT_EQ(stamped.sourceTimestamp, UA_DATETIME_UNIX_EPOCH + 15000000);
    UA_DataValue_clear(&stamped);

    sample->setValue0(makeValue<TypeParam>(43));
    publisher->publish(*sample, 0ms);
    EXPECT_TRUE(this->template serverHolds<TypeParam>(sample->getValue0()));

    if constexpr (TypeParam::field_type::isVector) {
        // The binding carries any length; so does the server.
        for (std::size_t length : {TypeParam::nominalLength + 3, std::size_t(1), std::size_t(0)}) {
            sample->setValue0(makeValue<TypeParam>(44, length));
            publisher->publish(*sample, duvo::interop::kWait);
            EXPECT_TRUE(this->template serverValue<TypeParam>() == sample->getValue0()) << "length " << length;
        }
    }
    publisher->close();
}

template <class T>
class ReceiveFromNodeServer : public NodeServerSuite {};
TYPED_TEST_SUITE(ReceiveFromNodeServer, AllTypes, duvo::test::TypeNames);

TYPED_TEST(ReceiveFromNodeServer, by_monitored_items_polling_and_most_recent_value) {
    const std::string uri = this->psUri(TypeParam::typeName);
    const auto monitoring = this->middleware({{"opc.ps.pollingPeriodMs", "0"}});
    const auto polling = this->middleware({{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "20"}});
    auto monitored = monitoring->template createSubscriber<TypeParam>(uri);
    auto mostRecent = monitoring->template createMrvSubscriber<TypeParam>(uri);
    auto polled = polling->template createSubscriber<TypeParam>(uri);

    // Written as a device would, by another client.
    for (int seed : {51, 52}) {
        const auto value = makeValue<TypeParam>(seed);
        ASSERT_EQ(this->raw->write(TypeParam::typeName, *duvo::interop::variantOf<TypeParam>(value)),
                  UA_STATUSCODE_GOOD);
        EXPECT_TRUE(receives<TypeParam>(*monitored, value)) << "monitored, seed " << seed;
        EXPECT_TRUE(receives<TypeParam>(*polled, value)) << "polled, seed " << seed;
        EXPECT_TRUE(mostRecentIs<TypeParam>(*mostRecent, value)) << "most recent, seed " << seed;
    }

    // And through our own publisher: the whole round trip over the other server.
    auto publisher = this->middleware()->template createPublisher<TypeParam>(uri);
    std::shared_ptr<TypeParam> sample = publisher->createDataEntity();
    sample->setValue0(makeValue<TypeParam>(53));
    publisher->publish(*sample, duvo::interop::kWait);
    EXPECT_TRUE(receives<TypeParam>(*monitored, sample->getValue0()));
    EXPECT_TRUE(receives<TypeParam>(*polled, sample->getValue0()));
    EXPECT_TRUE(mostRecentIs<TypeParam>(*mostRecent, sample->getValue0()));

    monitored->close();
    polled->close();
    mostRecent->close();
}

class NodeServerBurst : public NodeServerSuite {};

// Every change is reported when the sampling interval is 0: node-opcua then serves the item
// by exception, and the item's queue holds what arrives between two publishes.
TEST_F(NodeServerBurst, monitored_items_lose_no_write_of_a_burst) {
    using T = m2Types::M2Int32Value0;
    const auto monitoring = middleware({{"opc.ps.pollingPeriodMs", "0"}});
    auto subscriber = monitoring->createSubscriber<T>(psUri(T::typeName));
    auto publisher = middleware()->createPublisher<T>(psUri(T::typeName));
    std::shared_ptr<T> sample = publisher->createDataEntity();
    sample->setValue0(-1);
    publisher->publish(*sample, duvo::interop::kWait);
    ASSERT_TRUE(receives<T>(*subscriber, -1)); // the item is in place

    constexpr int count = 60;
    for (int i = 0; i < count; ++i) {
        sample->setValue0(i);
        publisher->publish(*sample, i % 3 == 0 ? duvo::interop::kWait : 0ms);
    }
    std::vector<int> got;
    const auto end = std::chrono::steady_clock::now() + duvo::interop::kWait;
    while (std::chrono::steady_clock::now() < end && (got.empty() || got.back() != count - 1)) {
        for (const auto& s : subscriber->read(0)) got.push_back(s->getValue0());
        std::this_thread::sleep_for(5ms);
    }
    std::vector<int> expected;
    for (int i = 0; i < count; ++i) expected.push_back(i);
    EXPECT_EQ(got, expected);
}

} // namespace
