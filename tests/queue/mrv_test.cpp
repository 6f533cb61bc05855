// The most-recent-value store.
#include <algorithm>

#include <duvo/ps/queue/mapMrvSubscriber.hpp>

#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

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
    EXPECT_GE(elapsedMs(start), 300);
    mrv.newData(int32(1));
    mrv.newData(int32(2));
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(values(mrv.readMostRecent(500ms)), (std::vector<int>{2}));
    EXPECT_GE(elapsedMs(start), 500);

    expectThrowWith<vesk::duvo::DuvoException>([&] { mrv.readMostRecent(-1ms); },
                                               "negative timeout given to Mrv subscriber readMostRecent");
    mrv.close();
    expectThrowWith<vesk::duvo::IllegalStateException>([&] { mrv.readMostRecent(-1ms); },
                                                       "ZpbMrvSubscriber already closed");
}

} // namespace
} // namespace duvo::test
