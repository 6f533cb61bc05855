// Asynchronous subscriptions: listeners consume, notifiers keep, and failing callbacks are
// reported without stopping delivery. Several sources and readers at once: every sample is
// taken exactly once (also run under ThreadSanitizer).
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

TEST(QueuedConcurrency, sources_and_readers_in_parallel_take_every_sample_once) {
    constexpr int writers = 3;
    constexpr int perWriter = 2000;
    KeyedSubscriber sub;
    std::mutex mutex;
    std::vector<int> taken;
    auto take = [&](const auto& samples) {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& s : samples) taken.push_back(s->getValue());
    };
    auto takeEvent = [&](auto&, auto& event) {
        if (event.hasValidData()) take(std::vector<std::shared_ptr<Keyed>>{event.getData()});
    };
    std::atomic<int> notified{0};

    // Key 0 goes to a listener, key 1 to poll, key 2 to readDataEvents; key 3 is announced by
    // a notifier and read. read() may take any key but 0.
    auto listener = sub.subscribeAsync(filterFor(0), EventCallback(takeEvent));
    auto notifier = sub.subscribeAsync(filterFor(3), NotifyCallback([&](auto&) { ++notified; }));
    auto polled = sub.subscribe(filterFor(1), takeEvent);

    std::atomic<bool> stop{false};
    std::atomic<bool> readKey0{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) {
            const auto samples = sub.read(7);
            for (const auto& s : samples) readKey0 = readKey0 || s->getKey() == 0;
            take(samples);
        }
    });
    threads.emplace_back([&] {
        while (!stop) sub.poll(5, 2ms);
    });
    threads.emplace_back([&] {
        while (!stop) {
            KeyedEvents events;
            sub.readDataEvents(filterFor(2), events, 4, 2ms);
            for (const auto& e : events) takeEvent(sub, *e);
        }
    });
    std::vector<std::thread> sources;
    for (int w = 0; w < writers; ++w)
        sources.emplace_back([&, w] {
            for (int i = 0; i < perWriter; ++i) {
                const int value = w * perWriter + i + 1;
                sub.newData(keyed(value % 4, value), nowSeconds(), 1);
                if (w == 0 && i % 500 == 250) sub.newData(nullptr, nowSeconds(), 0); // a loss now and then
            }
        });
    for (auto& t : sources) t.join();
    stop = true;
    for (auto& t : threads) t.join();
    take(sub.read(0));

    std::vector<int> expected(writers * perWriter);
    for (int v = 0; v < writers * perWriter; ++v) expected[v] = v + 1;
    std::sort(taken.begin(), taken.end());
    EXPECT_EQ(taken, expected);
    EXPECT_FALSE(readKey0);
    EXPECT_GE(notified.load(), 1);
}

} // namespace
} // namespace duvo::test
