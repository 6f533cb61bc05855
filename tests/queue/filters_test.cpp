// Filters of readDataEvents and subscriptions, and the refusal of overlapping subscriptions.
#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

/// Instance 1 appears, updates and goes not alive; instance 2 appears.
void feedTwoInstances(KeyedSubscriber& sub) {
    sub.newData(keyed(1, 10), 1.0, 1);
    sub.newData(keyed(1, 11), 2.0, 1);
    sub.newData(keyed(2, 20), 3.0, 1);
    sub.newData(keyed(1, 12), 4.0, 0);
}

std::vector<int> take(KeyedSubscriber& sub, const Filter& filter, unsigned long maxCount = 0) {
    KeyedEvents events;
    sub.readDataEvents(filter, events, maxCount, 0ms);
    return values(events);
}

TEST(QueuedFilters, select_by_instance_present_state_and_event_kind) {
    KeyedSubscriber sub;
    feedTwoInstances(sub);
    EXPECT_EQ(take(sub, eventsFilter({ps::InstanceAppeared}), 1), (std::vector<int>{10}));
    EXPECT_EQ(take(sub, filterFor(1, InstanceState::Any, {ps::InstanceUpdated})), (std::vector<int>{11}));
    // Instance 1 is not alive now, so even its update reported state 1.
    EXPECT_EQ(take(sub, Filter(nullptr, InstanceState::Alive, {})), (std::vector<int>{20}));

    feedTwoInstances(sub);
    EXPECT_EQ(take(sub, filterFor(1)), (std::vector<int>{12, 10, 11, 12})); // any state, any event
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{20}));
    KeyedEvents events;
    EXPECT_THROW(sub.readDataEvents(Filter(std::make_unique<ForeignKeyed>(1), InstanceState::Any, {}), events, 0, 0ms),
                 vesk::duvo::IllegalStateException);
}

void expectIntersection(const std::function<void()>& subscribe) {
    EXPECT_EQ(failure<std::runtime_error>(subscribe), "filter intersection");
}

TEST(QueuedSubscriptionFilters, disjoint_filters_are_accepted_and_overlapping_ones_refused_registering_nothing) {
    KeyedSubscriber sub;
    const EventCallback none = [](auto&, auto&) {};
    auto a = sub.subscribeAsync(filterFor(1, InstanceState::Any, {ps::InstanceAppeared}), none);
    auto b = sub.subscribeAsync(filterFor(1, InstanceState::Any, {ps::InstanceUpdated}), none);
    auto c = sub.subscribe(filterFor(2), none);
    auto d = sub.subscribe(filterFor(1, InstanceState::NotAlive, {ps::InstanceNotAlive}), none);

    expectIntersection([&] { sub.subscribeAsync(filterFor(1, InstanceState::Any, {ps::InstanceUpdated}), none); });
    expectIntersection([&] { sub.subscribe(filterFor(2, InstanceState::Alive, {ps::InstanceUpdated}), none); });
    expectIntersection([&] { sub.subscribe(filterFor(1, InstanceState::NotAlive, {}), none); }); // empty meets all
    // A catch-all filter conflicts with any subscription, and any subscription with it.
    expectIntersection([&] {
        sub.subscribe(eventsFilter({ps::InstanceAppeared, ps::InstanceUpdated, ps::InstanceNotAlive}), none);
    });
    KeyedSubscriber other;
    auto all = other.subscribe(Filter(), none); // nothing registered yet: accepted
    expectIntersection([&] { other.subscribeAsync(filterFor(5), none); });

    // A refused subscription registers nothing.
    int delivered = 0;
    expectIntersection([&] { sub.subscribeAsync(filterFor(2), EventCallback([&](auto&, auto&) { ++delivered; })); });
    sub.newData(keyed(2, 20), 1.0, 1);
    sub.newData(keyed(2, 21), 2.0, 1);
    EXPECT_EQ(delivered, 0);
    EXPECT_EQ(sub.read(0).size(), 2u);
    a->close();
    b->close();
    d->close();
    EXPECT_NO_THROW(sub.subscribeAsync(filterFor(1), EventCallback([](auto&, auto&) {}))); // the place is free
}

TEST(QueuedSubscriptionFilters, a_waiting_reader_counts_but_a_waiting_poller_does_not_and_close_wakes_both) {
    KeyedSubscriber sub;
    const auto start = std::chrono::steady_clock::now();
    std::thread reader([&] {
        KeyedEvents events;
        sub.readDataEvents(filterFor(1), events, 1, 10s);
    });
    std::thread poller([&] { EXPECT_EQ(sub.poll(1, 10s), 0u); });
    std::this_thread::sleep_for(300ms); // both are waiting by now
    expectIntersection([&] { sub.subscribeAsync(filterFor(1), EventCallback([](auto&, auto&) {})); });
    EXPECT_NO_THROW(sub.subscribe(filterFor(2), [](auto&, auto&) {}));
    sub.close(); // wakes both
    reader.join();
    poller.join();
    EXPECT_LT(msSince(start), 5000);
}

} // namespace
} // namespace duvo::test
