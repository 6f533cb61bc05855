// Asynchronous subscriptions: listeners consume, notifiers keep, and failing callbacks are
// reported without stopping delivery.
#include <stdexcept>

#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(QueuedAsync, a_listener_consumes_the_events_of_its_filter_and_a_notifier_leaves_them_to_be_read) {
    KeyedSubscriber sub;
    sub.newData(keyed(1, 10), 1.0, 1);
    sub.newData(keyed(2, 20), 2.0, 1);
    std::vector<int> seen;
    auto subscription = sub.subscribeAsync(filterFor(1), EventCallback([&](auto& from, auto& event) {
        EXPECT_EQ(&from, &sub);
        seen.push_back(event.getData()->getValue());
    }));
    EXPECT_EQ(seen, (std::vector<int>{10})); // delivered while subscribing
    sub.newData(keyed(1, 11), 3.0, 1);
    sub.newData(keyed(2, 21), 4.0, 1);
    EXPECT_EQ(seen, (std::vector<int>{10, 11}));
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{20, 21}));

    subscription->close();
    sub.newData(keyed(1, 12), 5.0, 1);
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{12}));

    // A notifier is told, and the events stay to be read.
    sub.newData(keyed(1, 13), 6.0, 1);
    int notified = 0;
    auto notifier = sub.subscribeAsync(filterFor(1), NotifyCallback([&](auto&) { ++notified; }));
    EXPECT_EQ(notified, 1); // once for what is queued
    sub.newData(keyed(1, 14), 7.0, 1);
    sub.newData(keyed(2, 22), 8.0, 1);
    EXPECT_EQ(notified, 2);
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{13, 14, 22}));
}

TEST(QueuedAsync, throwing_or_reentrant_callbacks_are_reported_and_delivery_goes_on) {
    KeyedSubscriber sub;
    int calls = 0;
    auto listener = sub.subscribeAsync(filterFor(1), EventCallback([&](auto&, auto& event) {
        ++calls;
        if (event.getData()->getValue() == 10) throw std::runtime_error("boom");
        if (event.getData()->getValue() == 11) throw 42;
    }));
    auto notifier = sub.subscribeAsync(filterFor(2), NotifyCallback([](auto&) { throw std::logic_error("bad"); }));
    auto polled = sub.subscribe(filterFor(3), [](auto&, auto&) { throw std::runtime_error("sync"); });
    CaptureStderr();
    sub.newData(keyed(1, 10), 1.0, 1);
    sub.newData(keyed(1, 11), 2.0, 1);
    sub.newData(keyed(1, 12), 3.0, 1);
    sub.newData(keyed(2, 20), 4.0, 1);
    sub.newData(keyed(3, 30), 5.0, 1);
    EXPECT_EQ(sub.poll(0, 0ms), 1u);
    EXPECT_EQ(GetCapturedStderr(), "Exception occured in listener: boom\n"
                                   "Exception occurred in listener \n"
                                   "Exception occurred in notifier: bad\n"
                                   "Exception occured in listener: sync\n");
    EXPECT_EQ(calls, 3);
    // A failed delivery still counts as delivered; the notifier's event stays.
    EXPECT_EQ(values(sub.read(0)), (std::vector<int>{20}));

    // A callback calling back into the subscriber is refused, not deadlocked.
    auto reentrant = sub.subscribeAsync(filterFor(4), EventCallback([&](auto& from, auto&) { from.read(0); }));
    CaptureStderr();
    sub.newData(keyed(4, 40), 6.0, 1);
    EXPECT_EQ(GetCapturedStderr(), "Exception occured in listener: Subscriber called from one of its own callbacks\n");
}

} // namespace
} // namespace duvo::test
