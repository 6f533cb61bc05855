// Waiting reads: timeouts, early wake-ups, poll's dispatch to synchronous subscriptions, and
// the most-recent-value store.
#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

TEST(QueuedWaits, readDataEvents_and_poll_wait_their_whole_timeout_when_nothing_comes) {
    KeyedSubscriber sub;
    auto subscription = sub.subscribe(filterFor(2), [](auto&, auto&) {});
    sub.newData(keyed(1, 10), 1.0, 1); // selected by neither
    KeyedEvents events;
    auto start = std::chrono::steady_clock::now();
    sub.readDataEvents(filterFor(2), events, 1, 500ms);
    EXPECT_GE(msSince(start), 500);
    EXPECT_LE(msSince(start), 1000);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(sub.poll(1, 500ms), 0u);
    EXPECT_GE(msSince(start), 500);
    EXPECT_LE(msSince(start), 1000);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(sub.read(0).size(), 1u);
}

TEST(QueuedWaits, readDataEvents_wakes_when_the_count_is_reached) {
    KeyedSubscriber sub;
    sub.newData(keyed(1, 10), 1.0, 1);
    KeyedEvents events{nullptr}; // what the caller had stays
    const auto start = std::chrono::steady_clock::now();
    {
        LateSource source(sub, 1, 11, 3);
        sub.readDataEvents(filterFor(1), events, 3, 10s);
    }
    EXPECT_LT(msSince(start), 5000);
    ASSERT_EQ(events.size(), 4u);
    events.erase(events.begin());
    EXPECT_EQ(values(events), (std::vector<int>{10, 11, 12})); // one queued, two that arrived
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{13}));    // beyond the count: queued
}

TEST(QueuedWaits, poll_with_timeout_0_dispatches_what_is_queued_and_returns) {
    KeyedSubscriber sub;
    std::vector<int> seen;
    std::thread::id callbackThread;
    auto subscription = sub.subscribe(filterFor(1), [&](auto& from, auto& event) {
        EXPECT_EQ(&from, &sub);
        callbackThread = std::this_thread::get_id();
        seen.push_back(event.getData()->getValue());
    });
    sub.newData(keyed(1, 10), 1.0, 1);
    sub.newData(keyed(2, 20), 2.0, 1); // no subscription: stays queued
    sub.newData(keyed(1, 11), 3.0, 1);
    EXPECT_TRUE(seen.empty()); // synchronous callbacks run only inside poll
    EXPECT_EQ(sub.poll(0, 0ms), 2u);
    EXPECT_EQ(seen, (std::vector<int>{10, 11}));
    EXPECT_EQ(callbackThread, std::this_thread::get_id());
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{20}));

    subscription->close();
    subscription->close(); // a second close does nothing
    sub.newData(keyed(1, 12), 4.0, 1);
    EXPECT_EQ(sub.poll(0, 0ms), 0u);
    EXPECT_EQ(sub.read(0).size(), 1u);
}

TEST(QueuedWaits, poll_dispatches_later_events_from_its_waiting_loop_and_ends_at_the_count) {
    KeyedSubscriber sub;
    std::vector<int> seen;
    std::vector<bool> mayCallSubscriber;
    auto subscription = sub.subscribe(filterFor(1), [&](auto& from, auto& event) {
        seen.push_back(event.getData()->getValue());
        try {
            from.read(0);
            mayCallSubscriber.push_back(true);
        } catch (const vesk::duvo::IllegalStateException&) {
            mayCallSubscriber.push_back(false);
        }
    });
    sub.newData(keyed(1, 10), 1.0, 1);
    const auto start = std::chrono::steady_clock::now();
    unsigned long dispatched = 0;
    {
        LateSource source(sub, 1, 11);
        dispatched = sub.poll(2, 10s);
    }
    EXPECT_LT(msSince(start), 5000);
    EXPECT_EQ(dispatched, 2u);
    EXPECT_EQ(seen, (std::vector<int>{10, 11}));
    // Neither the queued event nor the later one is dispatched under the subscriber's lock.
    EXPECT_EQ(mayCallSubscriber, (std::vector<bool>{true, true}));
}

TEST(MrvStore, keeps_the_newest_sample_of_each_instance_and_a_keyless_one_and_checks_closed_before_the_timeout) {
    queue::MapMrvSubscriber<Keyed, KeyedBinding> keyedStore;
    keyedStore.newData(std::make_unique<KeyedBinding>(1, 10));
    keyedStore.newData(std::make_unique<KeyedBinding>(2, 20));
    keyedStore.newData(std::make_unique<KeyedBinding>(1, 11));
    for (int round = 0; round < 2; ++round) { // a read returns the values again
        std::vector<int> found = values(keyedStore.readMostRecent(0ms));
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, (std::vector<int>{11, 20}));
    }

    // A keyless type holds one sample, and every read sleeps its whole timeout.
    queue::MapMrvSubscriber<Int32, Int32Binding> mrv;
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(mrv.readMostRecent(300ms).empty());
    EXPECT_GE(msSince(start), 300);
    mrv.newData(int32(1));
    mrv.newData(int32(2));
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(values(mrv.readMostRecent(500ms)), (std::vector<int>{2}));
    EXPECT_GE(msSince(start), 500);

    EXPECT_EQ(failure<vesk::duvo::DuvoException>([&] { mrv.readMostRecent(-1ms); }),
              "negative timeout given to Mrv subscriber readMostRecent");
    mrv.close();
    EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { mrv.readMostRecent(-1ms); }),
              "ZpbMrvSubscriber already closed");
}

} // namespace
} // namespace duvo::test
