// Receiving every type from both servers by monitored items, by polling and as the most
// recent value, and what a subscriber reports when its server goes away and comes back.
#include "support/servers.hpp"

namespace duvo::test {
namespace {

template <class Type>
class ReceiveEveryType : public OnSimulator {};
template <class Type>
class ReceiveFromNodeServer : public OnNodeServer {};
TYPED_TEST_SUITE(ReceiveEveryType, AllTypes, TypeNames);
TYPED_TEST_SUITE(ReceiveFromNodeServer, AllTypes, TypeNames);

TYPED_TEST_ON_BOTH(ReceiveEveryType, ReceiveFromNodeServer, by_monitored_items_polling_and_most_recent_value) {
    const std::string uri = f.psUri(TypeParam::typeName);
    const auto monitoring = f.middleware(monitoredProps);
    auto monitored = monitoring->template createSubscriber<TypeParam>(uri);
    auto mostRecent = monitoring->template createMrvSubscriber<TypeParam>(uri);
    auto polled = f.middleware(polledProps(20))->template createSubscriber<TypeParam>(uri);

    // Written as a device would, by another client.
    for (int seed : {51, 52}) {
        const auto value = makeValue<TypeParam>(seed);
        f.server->template writeValue<TypeParam>(value);
        EXPECT_TRUE(receives<TypeParam>(*monitored, value)) << "monitored, seed " << seed;
        EXPECT_TRUE(receives<TypeParam>(*polled, value)) << "polled, seed " << seed;
        EXPECT_TRUE(mostRecentIs<TypeParam>(*mostRecent, value)) << "most recent, seed " << seed;
    }

    // And through our own publisher: the whole round trip.
    auto publisher = f.middleware()->template createPublisher<TypeParam>(uri);
    std::shared_ptr<TypeParam> sample = publisher->createDataEntity();
    sample->setValue0(makeValue<TypeParam>(53));
    publisher->publish(*sample, kWait);
    EXPECT_TRUE(receives<TypeParam>(*monitored, sample->getValue0()));
    EXPECT_TRUE(receives<TypeParam>(*polled, sample->getValue0()));
    EXPECT_TRUE(mostRecentIs<TypeParam>(*mostRecent, sample->getValue0()));
    monitored->close();
    polled->close();
    mostRecent->close();
}

class SubscriberTest : public OnSimulator {
protected:
    std::string uri() const { return psUri("M2Int32Value0"); }
};

TEST_F(SubscriberTest, polls_deliver_unchanged_data_once_and_a_period_of_0_never_polls) {
    auto polled = middleware(polledProps(10))->createSubscriber<T>(uri());
    auto idle = middleware(polledProps(0))->createSubscriber<T>(uri());
    server->writeValue<T>(4711);
    ASSERT_TRUE(receives<T>(*polled, 4711));
    std::this_thread::sleep_for(200ms); // some twenty polls of the same data
    EXPECT_TRUE(polled->read(0).empty());
    EXPECT_TRUE(idle->read(0).empty());
    server->writeValue<T>(4712);
    EXPECT_TRUE(receives<T>(*polled, 4712));
    EXPECT_EQ(failure<std::runtime_error>([&] {
                  middleware({{"opc.ps.pollingPeriodMs", "abc"}})->createSubscriber<T>(uri());
              }).rfind("invalid value for DUVO property \"opc.ps.pollingPeriodMs\"", 0),
              0u);
}

TEST_F(SubscriberTest, close_twice_fails_and_reads_after_close_fail) {
    auto subscriber = duvo->createSubscriber<T>(uri());
    subscriber->close();
    EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { subscriber->close(); }), "Entity closed. Uri:" + uri());
    EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { subscriber->read(0); }), "Subscriber already closed");
    auto mrv = duvo->createMrvSubscriber<T>(uri());
    mrv->close();
    LogRecorder log(subscriberLog);
    EXPECT_THROW(mrv->readMostRecent(0ms), vesk::duvo::IllegalStateException);
    EXPECT_EQ(log.containing("ZpbMrvSubscriber already closed").size(), 1u); // logged once, as thrown
}

TEST_F(SubscriberTest, server_restart_gives_one_not_alive_sample_then_data_again) {
    auto monitored = middleware(monitoredProps)->createSubscriber<T>(uri());
    auto polled = middleware(polledProps(50))->createSubscriber<T>(uri());
    auto mostRecent = middleware(monitoredProps)->createMrvSubscriber<T>(uri());
    server->writeValue<T>(1);
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
    server->writeValue<T>(2);
    EXPECT_TRUE(receives<T>(*monitored, 2));
    EXPECT_TRUE(receives<T>(*polled, 2));
    EXPECT_TRUE(mostRecentIs<T>(*mostRecent, 2));
}

} // namespace
} // namespace duvo::test
