// Event sequences of keyless and keyed streams, the reads that take samples, and close.
#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

template <class E>
void expectEvent(const E& event, ps::InstanceEvent kind, InstanceState state, bool valid) {
    EXPECT_EQ(event->getInstanceEvent(), kind);
    EXPECT_EQ(event->getInstanceState(), state);
    EXPECT_EQ(event->hasValidData(), valid);
}

TEST(QueuedEvents, keyless_stream_appears_updates_goes_not_alive_once_and_appears_again) {
    KeylessSubscriber sub;
    sub.newData(nullptr, 0.0, 0); // nothing seen yet: nothing to report
    sub.newData(int32(1), 10.5, 1);
    sub.newData(int32(2), 11.0, 1);
    sub.newData(nullptr, 0.0, 0);
    sub.newData(nullptr, 0.0, 0); // already reported
    sub.newData(int32(3), 12.0, 1);
    sub.newData(int32(4), 13.0, 0); // a loss that still carries a sample
    const auto events = drainEvents(sub);
    ASSERT_EQ(events.size(), 5u);
    expectEvent(events[0], ps::InstanceAppeared, InstanceState::Alive, true);
    EXPECT_EQ(events[0]->getSourceTimestamp(), 10.5);
    expectEvent(events[1], ps::InstanceUpdated, InstanceState::Alive, true);
    expectEvent(events[2], ps::InstanceNotAlive, InstanceState::NotAlive, false);
    EXPECT_EQ(events[2]->getData(), nullptr);
    expectEvent(events[3], ps::InstanceAppeared, InstanceState::Alive, true);
    expectEvent(events[4], ps::InstanceNotAlive, InstanceState::NotAlive, true);
}

TEST(QueuedEvents, keyed_instances_appear_update_go_not_alive_and_come_back) {
    KeyedSubscriber sub;
    sub.newData(keyed(1, 10), 1.0, 1);
    sub.newData(keyed(1, 11), 2.0, 1);
    sub.newData(keyed(2, 20), 3.0, 1);
    sub.newData(keyed(3, 30), 4.0, 0); // unknown and not alive
    auto events = drainEvents(sub);
    ASSERT_EQ(events.size(), 4u);
    expectEvent(events[0], ps::InstanceAppeared, InstanceState::Alive, true);
    expectEvent(events[1], ps::InstanceUpdated, InstanceState::Alive, true);
    expectEvent(events[2], ps::InstanceAppeared, InstanceState::Alive, true);
    expectEvent(events[3], ps::InstanceNotAlive, InstanceState::NotAlive, true);

    sub.newData(nullptr, 5.0, 0); // loss of the source: one event per instance, with only its key
    const auto lost = drainEvents(sub);
    ASSERT_EQ(lost.size(), 3u);
    std::set<int> keys;
    for (const auto& e : lost) {
        expectEvent(e, ps::InstanceNotAlive, InstanceState::NotAlive, false);
        keys.insert(e->getData()->getKey());
        EXPECT_EQ(e->getData()->getValue(), 0);
    }
    EXPECT_EQ(keys, (std::set<int>{1, 2, 3}));
    EXPECT_EQ(events[0]->getInstanceState(), InstanceState::NotAlive); // the present state, not the recorded one

    sub.newData(keyed(1, 12), 6.0, 1);
    sub.newData(keyed(1, 13), 7.0, 1);
    events = drainEvents(sub);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->getInstanceEvent(), ps::InstanceAppeared); // came back: 0, not 1
    EXPECT_EQ(events[1]->getInstanceEvent(), ps::InstanceUpdated);
}

TEST(QueuedReads, read_and_loanedRead_take_oldest_first_and_skip_events_without_data) {
    KeylessSubscriber sub;
    EXPECT_EQ(sub.loanedRead()->getData(), nullptr); // a loan of nothing, never a null loan
    sub.newData(int32(1), 1.0, 1);
    sub.newData(nullptr, 1.5, 1); // a value that could not be converted
    sub.newData(int32(2), 2.0, 1);
    sub.newData(int32(3), 3.0, 1);
    sub.newData(int32(4), 4.0, 1);
    EXPECT_EQ(values(sub.read(2)), (std::vector<int>{1, 2})); // the skipped event takes no place
    EXPECT_EQ(sub.loanedRead()->getData()->getValue0(), 3);
    EXPECT_TRUE(sub.readInstance(Int32Binding()).empty()); // keyless samples belong to no instance
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{4}));
    EXPECT_NE(std::dynamic_pointer_cast<Int32Binding>(sub.createDataEntity()), nullptr);
}

TEST(QueuedReads, instance_reads_take_only_that_instance) {
    KeyedSubscriber sub;
    KeyedBinding out(0, -1);
    EXPECT_FALSE(sub.readInstance(KeyedBinding(1), out));
    for (int i = 0; i < 3; ++i) {
        sub.newData(keyed(1, 10 + i), 1.0, 1);
        sub.newData(keyed(2, 20 + i), 2.0, 1);
    }
    EXPECT_EQ(values(sub.readInstance(KeyedBinding(1))), (std::vector<int>{10, 11, 12}));
    EXPECT_EQ(sub.loanedReadInstance(KeyedBinding(2))->getData()->getValue(), 20); // one, the oldest
    ForeignKeyed foreign;
    EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { sub.readInstance(KeyedBinding(2), foreign); }),
              "data type for instance or value is incorrect. Not a DDS supported type");
    ASSERT_TRUE(sub.readInstance(KeyedBinding(2), out)); // the refusal cost no sample; the newest is copied
    EXPECT_EQ(out.getValue(), 22);
    EXPECT_TRUE(sub.read(0).empty());
    EXPECT_THROW(sub.readInstance(ForeignKeyed(1)), vesk::duvo::IllegalStateException);
}

TEST(QueuedClose, every_reading_operation_fails_after_close_and_the_state_is_checked_first) {
    KeyedSubscriber sub;
    KeyedEvents events;
    EXPECT_EQ(failure<vesk::duvo::DuvoException>([&] { sub.poll(1, -1ms); }), "negative timeout given to poll");
    EXPECT_EQ(failure<vesk::duvo::DuvoException>([&] { sub.readDataEvents(Filter(), events, 1, -1ms); }),
              "negative timeout given to readDataEvents");
    sub.close();
    KeyedBinding out;
    const std::vector<std::function<void()>> calls{
        [&] { sub.read(0); },
        [&] { sub.readInstance(KeyedBinding(1), out); },
        [&] { sub.poll(0, -1ms); },
        [&] { sub.readDataEvents(Filter(), events, 0, -1ms); },
        [&] { sub.subscribe(Filter(), [](auto&, auto&) {}); },
        [&] { sub.subscribeAsync(Filter(), NotifyCallback([](auto&) {})); },
        [&] { sub.loanedReadInstance(KeyedBinding(1)); },
    };
    for (const auto& call : calls)
        EXPECT_EQ(failure<vesk::duvo::IllegalStateException>(call), "Subscriber already closed");
}

} // namespace
} // namespace duvo::test
