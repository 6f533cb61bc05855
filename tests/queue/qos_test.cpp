// Latency and deadline: discards on arrival, the age purge, instance expiry; queue capacity.
#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

using vesk::duvo::util::currentTimeMillis;
using vesk::duvo::util::timestampToDouble;
namespace qos = vesk::duvo::ps::qos;
using QoSList = KeyedSubscriber::QoSList;

/// newData with explicit source and reception times, both in Unix ms.
void feed(KeyedSubscriber& sub, int key, int value, long sourceMs, long receptionMs) {
    sub.getImpl()->newData(keyed(key, value), timestampToDouble(sourceMs), 1, receptionMs);
}

TEST(QueuedQoS, latency_and_deadline_are_picked_by_type_the_last_wins_and_a_late_sample_is_discarded) {
    struct Other : qos::QoS {};
    KeyedSubscriber sub({std::make_shared<qos::Latency>(10ms), std::make_shared<Other>(),
                         std::make_shared<qos::Deadline>(20ms), std::make_shared<qos::Latency>(30ms)});
    EXPECT_EQ(sub.getImpl()->getMaxLatencyMs(), 30);
    EXPECT_EQ(sub.getImpl()->getDeadlineMs(), 20);
    EXPECT_EQ(sub.getImpl()->getInstanceExpiryMs(), 50);
    EXPECT_EQ(KeyedSubscriber(QoSList{std::make_shared<qos::Deadline>(20ms)}).getImpl()->getInstanceExpiryMs(), 0);

    // A sample beyond the latency is discarded on arrival.
    KeyedSubscriber latency({std::make_shared<qos::Latency>(100ms)});
    const long t0 = 1'000'000;
    feed(latency, 1, 10, t0, t0 + 100); // exactly the limit: kept
    feed(latency, 1, 11, t0, t0 + 101);
    EXPECT_EQ(values(latency.read(0)), (std::vector<int>{10}));
}

TEST(QueuedQoS, a_sample_older_than_the_deadline_is_discarded_and_queued_ones_are_purged) {
    const QoSList deadline{std::make_shared<qos::Deadline>(200ms)};
    KeyedSubscriber onArrival(deadline);
    const long t1 = currentTimeMillis();  // recent, so that the read itself purges nothing
    feed(onArrival, 1, 10, t1, t1 + 201); // too old on arrival
    feed(onArrival, 1, 11, t1, t1 + 200);
    feed(onArrival, 1, 12, t1 + 100, t1 + 200);
    feed(onArrival, 2, 20, t1 + 150, t1 + 250); // purges 11, older than t1 + 250 - 200
    EXPECT_EQ(values(onArrival.readInstance(KeyedBinding(1))), (std::vector<int>{12}));

    KeyedSubscriber onRead(deadline);
    const long t0 = currentTimeMillis() - 10'000;
    feed(onRead, 1, 10, t0, t0);
    EXPECT_TRUE(onRead.read(0).empty()); // read at the real time: too old
}

TEST(QueuedQoS, an_instance_silent_beyond_latency_plus_deadline_goes_not_alive) {
    KeyedSubscriber sub({std::make_shared<qos::Latency>(100ms), std::make_shared<qos::Deadline>(200ms)});
    const long t0 = currentTimeMillis();
    feed(sub, 1, 10, t0, t0);
    feed(sub, 2, 20, t0 + 250, t0 + 250); // instance 1 expires at t0 + 300
    feed(sub, 2, 21, t0 + 400, t0 + 400);
    feed(sub, 1, 11, t0 + 450, t0 + 450);
    const auto events = drainEvents(sub);
    ASSERT_EQ(events.size(), 4u); // the age purge took instance 1's first sample
    EXPECT_EQ(events[0]->getData()->getValue(), 20);
    EXPECT_EQ(events[1]->getData()->getKey(), 1);
    EXPECT_EQ(events[1]->getInstanceEvent(), ps::InstanceNotAlive);
    EXPECT_FALSE(events[1]->hasValidData());
    EXPECT_EQ(events[1]->getSourceTimestamp(), timestampToDouble(t0 + 400));
    EXPECT_EQ(events[2]->getData()->getValue(), 21);
    EXPECT_EQ(events[3]->getData()->getValue(), 11);
    EXPECT_EQ(events[3]->getInstanceEvent(), ps::InstanceAppeared); // came back
    EXPECT_EQ(events[3]->getInstanceState(), InstanceState::Alive);
}

TEST(QueuedQoS, a_full_queue_drops_the_newest_sample) {
    KeyedSubscriber global({}, {2, 2147483647});
    KeyedSubscriber perInstance({}, {2147483647, 1});
    for (auto* sub : {&global, &perInstance}) {
        sub->newData(keyed(1, 10), 1.0, 1);
        sub->newData(keyed(1, 11), 2.0, 1);
        sub->newData(keyed(2, 20), 3.0, 1);
    }
    EXPECT_EQ(values(global.read(0)), (std::vector<int>{10, 11}));
    EXPECT_EQ(values(perInstance.read(0)), (std::vector<int>{10, 20}));
}

} // namespace
} // namespace duvo::test
