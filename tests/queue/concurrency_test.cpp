// Several sources and readers at once: every sample is taken exactly once. Also run under
// ThreadSanitizer.
#include <algorithm>
#include <atomic>
#include <mutex>

#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

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
