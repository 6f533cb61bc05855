// Receiving every type from the simulator by monitored items and by polling, and what a
// subscriber reports when its server goes away and comes back.
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>

#include "entities/logRecorder.hpp"
#include "support/sampleValues.hpp"
#include "support/makeEntity.hpp"
#include "support/simulatorFixture.hpp"

namespace {

using duvo::test::make;
using namespace std::chrono_literals;
using vesk::duvo::opcua::detail::binding::BindingOf_t;
using vesk::duvo::opcua::detail::ps::EntityState;
using vesk::duvo::opcua::detail::ps::OpcUaMrvSubscriber;
using vesk::duvo::opcua::detail::ps::OpcUaSubscriber;
using vesk::duvo::ps::DataEvent;
using vesk::duvo::ps::DataEventFilter;
using vesk::duvo::ps::InstanceState;
using PsQoS = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
using Properties = vesk::duvo::Duvo::Properties;

/// Writes a value of T on the server side, as a device would.
template <class T>
void serverWrite(vesk::duvo::sim::Simulator& sim, const typename T::value_type& value) {
    BindingOf_t<T> sample;
    sample.setValue0(value);
    sim.write(T::typeName, sample.getOpcUaDataValues()->value);
}

/// Reads from the queue until a sample with the value arrives or the time is up.
template <class T, class Subscriber>
bool receives(Subscriber& subscriber, const typename T::value_type& value, std::chrono::milliseconds within = 3000ms) {
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
                  std::chrono::milliseconds within = 3000ms) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (std::chrono::steady_clock::now() < end) {
        const auto samples = subscriber.readMostRecent(0ms);
        if (samples.size() == 1 && samples[0]->getValue0() == value) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

template <class T>
class ReceiveEveryType : public duvo::test::SimulatorSuite {};
using AllTypes = m2Types::rebind_t<::testing::Types, m2Types::DataTypes>;
TYPED_TEST_SUITE(ReceiveEveryType, AllTypes, duvo::test::TypeNames);

TYPED_TEST(ReceiveEveryType, by_monitored_items_and_by_polling) {
    using ST = BindingOf_t<TypeParam>;
    const std::string uri = this->psUri(TypeParam::typeName);
    auto monitored = make<OpcUaSubscriber<TypeParam, ST>>(uri, {{"opc.ps.pollingPeriodMs", "0"}}, this->duvo);
    auto polled = make<OpcUaSubscriber<TypeParam, ST>>(
        uri, {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "20"}}, this->duvo);
    auto mostRecent = make<OpcUaMrvSubscriber<TypeParam, ST>>(uri, {{"opc.ps.pollingPeriodMs", "0"}}, this->duvo);
    EXPECT_TRUE(monitored->hasMonitor() && !monitored->hasPoller());
    EXPECT_TRUE(polled->hasPoller() && !polled->hasMonitor());

    for (int seed : {31, 32}) {
        const auto value = duvo::test::makeValue<TypeParam>(seed);
        serverWrite<TypeParam>(*this->simulator, value);
        EXPECT_TRUE(receives<TypeParam>(*monitored, value)) << "monitored, seed " << seed;
        EXPECT_TRUE(receives<TypeParam>(*polled, value)) << "polled, seed " << seed;
        EXPECT_TRUE(mostRecentIs<TypeParam>(*mostRecent, value)) << "most recent, seed " << seed;
    }
    monitored->close();
    polled->close();
    mostRecent->close();
}

class SubscriberTest : public duvo::test::SimulatorSuite {
protected:
    using T = m2Types::M2Int32Value0;
    using ST = generated::opcua::m2Types::M2Int32Value0;
    std::string uri() const { return psUri("M2Int32Value0"); }
};

TEST_F(SubscriberTest, properties_choose_monitoring_or_polling) {
    auto byDefault = make<OpcUaSubscriber<T, ST>>(uri(), {}, duvo);
    EXPECT_TRUE(byDefault->hasMonitor());
    EXPECT_FALSE(byDefault->hasPoller());

    auto idle = make<OpcUaSubscriber<T, ST>>(
        uri(), {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "0"}}, duvo);
    EXPECT_FALSE(idle->hasMonitor());
    ASSERT_TRUE(idle->hasPoller());
    EXPECT_EQ(idle->getPoller()->getPeriodMs(), 1000);
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(idle->read(0).empty()); // a period of 0 never polls by itself

    try {
        make<OpcUaSubscriber<T, ST>>(uri(), {{"opc.ps.pollingPeriodMs", "abc"}}, duvo);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("invalid value for DUVO property \"opc.ps.pollingPeriodMs\"", 0), 0u)
            << e.what();
    }
}

TEST_F(SubscriberTest, poller_delivers_unchanged_data_once) {
    auto polled = make<OpcUaSubscriber<T, ST>>(
        uri(), {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "10"}}, duvo);
    serverWrite<T>(*simulator, 4711);
    ASSERT_TRUE(receives<T>(*polled, 4711));
    std::this_thread::sleep_for(200ms); // some twenty polls of the same data
    EXPECT_TRUE(polled->read(0).empty());
    serverWrite<T>(*simulator, 4712);
    EXPECT_TRUE(receives<T>(*polled, 4712));
}

TEST_F(SubscriberTest, close_twice_fails_and_reads_after_close_fail) {
    auto subscriber = make<OpcUaSubscriber<T, ST>>(uri(), {}, duvo);
    subscriber->close();
    try {
        subscriber->close();
        FAIL();
    } catch (const vesk::duvo::IllegalStateException& e) {
        EXPECT_EQ(std::string(e.what()), "Entity closed. Uri:" + uri());
    }
    try {
        subscriber->read(0);
        FAIL();
    } catch (const vesk::duvo::IllegalStateException& e) {
        EXPECT_STREQ(e.what(), "Subscriber already closed");
    }
    auto mrv = make<OpcUaMrvSubscriber<T, ST>>(uri(), {}, duvo);
    mrv->close();
    duvo::test::LogRecorder log("orsa.duvo.opcua.subscriber");
    EXPECT_THROW(mrv->readMostRecent(0ms), vesk::duvo::IllegalStateException);
    EXPECT_EQ(log.containing("ZpbMrvSubscriber already closed").size(), 1u); // logged once, as thrown
}

TEST_F(SubscriberTest, server_restart_gives_one_not_alive_sample_then_data_again) {
    auto monitored = make<OpcUaSubscriber<T, ST>>(uri(), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    auto polled = make<OpcUaSubscriber<T, ST>>(
        uri(), {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "50"}}, duvo);
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri(), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    serverWrite<T>(*simulator, 1);
    ASSERT_TRUE(receives<T>(*monitored, 1));
    ASSERT_TRUE(receives<T>(*polled, 1));
    ASSERT_TRUE(mostRecentIs<T>(*mostRecent, 1));

    simulator->stop();
    const DataEventFilter<T> notAlive(nullptr, InstanceState::NotAlive, {vesk::duvo::ps::InstanceNotAlive});
    std::vector<std::shared_ptr<DataEvent<T>>> events;
    monitored->readDataEvents(notAlive, events, 1, 5000ms);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(events[0]->hasValidData());
    EXPECT_EQ(events[0]->getSourceTimestamp(), 0.0);
    std::this_thread::sleep_for(300ms);
    events.clear();
    monitored->readDataEvents(notAlive, events, 0, 0ms);
    EXPECT_TRUE(events.empty()) << "more than one not-alive sample for one outage";
    EXPECT_EQ(mostRecent->readMostRecent(0ms).size(), 1u); // the last value stays current

    simulator->start();
    serverWrite<T>(*simulator, 2);
    EXPECT_TRUE(receives<T>(*monitored, 2, 10000ms));
    EXPECT_TRUE(receives<T>(*polled, 2, 10000ms));
    EXPECT_TRUE(mostRecentIs<T>(*mostRecent, 2, 10000ms));
}

} // namespace
