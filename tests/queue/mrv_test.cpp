// The most-recent-value store.
#include <algorithm>

#include <duvo/ps/queue/mapMrvSubscriber.hpp>

#include "queue/queueSupport.hpp"

namespace duvo::test {
namespace {

TEST(MrvStore, keeps_the_newest_sample_of_each_instance_and_returns_it_again) {
    queue::MapMrvSubscriber<Keyed, KeyedBinding> mrv;
    mrv.newData(std::make_unique<KeyedBinding>(1, 10));
    mrv.newData(std::make_unique<KeyedBinding>(2, 20));
    mrv.newData(std::make_unique<KeyedBinding>(1, 11));
    for (int round = 0; round < 2; ++round) {
        std::vector<int> found = values(mrv.readMostRecent(0ms));
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, (std::vector<int>{11, 20}));
    }
}

TEST(MrvStore, a_keyless_type_holds_one_sample_and_every_read_sleeps_its_whole_timeout) {
    queue::MapMrvSubscriber<Int32, Int32Binding> mrv;
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(mrv.readMostRecent(300ms).empty());
    EXPECT_GE(elapsedMs(start), 300);

    mrv.newData(int32(1));
    mrv.newData(int32(2));
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(values(mrv.readMostRecent(500ms)), (std::vector<int>{2}));
    EXPECT_GE(elapsedMs(start), 500);
}

TEST(MrvStore, closed_is_checked_before_the_timeout) {
    queue::MapMrvSubscriber<Int32, Int32Binding> mrv;
    expectThrowWith<vesk::duvo::DuvoException>([&] { mrv.readMostRecent(-1ms); },
                                               "negative timeout given to Mrv subscriber readMostRecent");
    mrv.close();
    expectThrowWith<vesk::duvo::IllegalStateException>([&] { mrv.readMostRecent(-1ms); },
                                                       "ZpbMrvSubscriber already closed");
}

} // namespace
} // namespace duvo::test
