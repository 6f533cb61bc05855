// A sample spread over two OPC UA nodes: monitoring only triggers reads of both nodes, bursts
// of triggers become one read, and publishing writes both nodes.
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <boost/asio/post.hpp>

#include <vesk/duvo/opcua/time.hpp>

#include "entities/pairSample.hpp"
#include "support/servers.hpp"

namespace duvo::test {
namespace {

namespace ps = vesk::duvo::opcua::detail::ps;
using PairEvents = std::vector<std::shared_ptr<DataEvent<Pair>>>;

constexpr const char* countNode = "M2Int32Value0";
constexpr const char* levelNode = "M2FloatValue0";

class MultiNode : public OnSimulator {
protected:
    /// The counter on the Int32 node, the level on the Float node, in field order.
    static std::string pairUri(const std::string& second = std::string("ns=1;s=") + levelNode) {
        return psUri(countNode) + "," + second;
    }
    void write(std::int32_t count, float level) {
        server->writeValue<T>(count);
        server->writeValue<m2Types::M2FloatValue0>(level);
    }

    /// The newest source time of the two nodes, as the poller computes a sample's time.
    static double newestSourceTime() {
        double newest = 0;
        for (const char* node : {countNode, levelNode}) {
            const auto t = simulator->sourceTime(node);
            if (t.present)
                newest = std::max(newest, vesk::duvo::opcua::detail::unixTimestamp(t.timestamp, t.picoseconds));
        }
        return newest;
    }

    /// Collects events until one carries both values; every event seen is kept in seen.
    static std::shared_ptr<DataEvent<Pair>> awaitPair(vesk::duvo::ps::Subscriber<Pair>& subscriber, std::int32_t count,
                                                      float level, PairEvents& seen) {
        std::shared_ptr<DataEvent<Pair>> found;
        eventually([&] {
            PairEvents events;
            subscriber.readDataEvents(DataEventFilter<Pair>(), events, 1, 50ms);
            for (auto& event : events) {
                seen.push_back(event);
                if (event->hasValidData() && event->getData()->getCount() == count &&
                    event->getData()->getLevel() == level)
                    found = event;
            }
            return found != nullptr;
        });
        return found;
    }

    static bool mostRecentIs(vesk::duvo::ps::MrvSubscriber<Pair>& subscriber, std::int32_t count, float level) {
        return eventually([&] {
            const auto samples = subscriber.readMostRecent(0ms);
            return samples.size() == 1 && samples[0]->getCount() == count && samples[0]->getLevel() == level;
        });
    }
};

TEST_F(MultiNode, node_counts_must_match_the_field_count) {
    const std::string two = pairUri();
    const std::string expected =
        "number of OPC-UA nodes in the URI (2) does not match the number of fields in the data type (1) Uri:" + two;
    EXPECT_EQ(failure<std::invalid_argument>([&] { duvo->createSubscriber<T>(two); }), expected);
    EXPECT_EQ(failure<std::invalid_argument>([&] { duvo->createMrvSubscriber<T>(two); }), expected);
    EXPECT_EQ(failure<std::invalid_argument>([&] { duvo->createPublisher<T>(two); }), expected);
    const std::string one = psUri(countNode);
    EXPECT_EQ(failure<std::invalid_argument>(
                  [&] { makePair<ps::OpcUaPublisherDelegator, ps::OpcUaPublisher>(one, {}, duvo); }),
              "number of OPC-UA nodes in the URI (1) does not match the number of fields in the data type (2) Uri:" +
                  one);
}

TEST_F(MultiNode, the_triggered_poller_reads_once_per_notification_and_never_by_itself) {
    // The second node does not exist, so every read fails with one ERROR line: the lines
    // count the reads. Only the first node's item notifies; its sampling interval is the
    // property's period, never a poller's.
    LogRecorder log(subscriberLog);
    const std::string failed = "Msg:OpcUaSubscriber for nodes ns=1;s=M2Int32Value0 ns=1;s=NoSuchPairNode: "
                               "failed to read node ns=1;s=NoSuchPairNode: BadNodeIdUnknown";
    auto subscriber = pairSubscriber(pairUri("ns=1;s=NoSuchPairNode"), {{"opc.ps.pollingPeriodMs", "50"}}, duvo);
    ASSERT_TRUE(log.waitFor(failed, 1)); // the item's first notification
    std::this_thread::sleep_for(1500ms); // a poller of its own would have read by now
    EXPECT_EQ(log.containing(failed).size(), 1u);
    for (const auto& line : log.containing(failed)) EXPECT_EQ(line.level, log4cplus::ERROR_LOG_LEVEL);

    server->writeValue<T>(901);
    ASSERT_TRUE(log.waitFor(failed, 2));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(log.containing(failed).size(), 2u);
    // A failed read never delivers data (and a source never seen is not reported as lost).
    EXPECT_TRUE(subscriber->read(0).empty());
}

TEST_F(MultiNode, notifications_deliver_only_consistent_reads_of_both_nodes) {
    write(1, 1.25f);
    auto queued = pairSubscriber(pairUri(), monitoredProps, duvo);
    auto mostRecent =
        makePair<ps::OpcUaMrvSubscriberDelegator, ps::OpcUaMrvSubscriber>(pairUri(), monitoredProps, duvo);
    PairEvents seen;
    ASSERT_NE(awaitPair(*queued, 1, 1.25f, seen), nullptr);
    EXPECT_TRUE(mostRecentIs(*mostRecent, 1, 1.25f));

    // A change of one node alone arrives with the other node's value: it came from a read of
    // both, never from the notification, which carries one value.
    server->writeValue<T>(2);
    auto event = awaitPair(*queued, 2, 1.25f, seen);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getSourceTimestamp(), newestSourceTime());
    EXPECT_TRUE(mostRecentIs(*mostRecent, 2, 1.25f));

    server->writeValue<m2Types::M2FloatValue0>(2.5f); // the second node's item notifies too
    event = awaitPair(*queued, 2, 2.5f, seen);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getSourceTimestamp(), newestSourceTime());
    EXPECT_TRUE(mostRecentIs(*mostRecent, 2, 2.5f));

    // Whatever the timing, each sample is a state the server held: the writes go one node
    // at a time, so the counter and the level move in step.
    for (std::int32_t i = 3; i < 23; ++i) write(i, static_cast<float>(i) + 0.5f);
    ASSERT_NE(awaitPair(*queued, 22, 22.5f, seen), nullptr);
    EXPECT_TRUE(mostRecentIs(*mostRecent, 22, 22.5f));
    for (const auto& e : seen) {
        ASSERT_TRUE(e->hasValidData());
        const std::int32_t count = e->getData()->getCount();
        const float level = e->getData()->getLevel();
        if (count < 3) continue;
        EXPECT_TRUE(level == static_cast<float>(count) + 0.5f || level == static_cast<float>(count) - 0.5f)
            << count << " with " << level;
    }
}

TEST_F(MultiNode, a_burst_of_triggers_becomes_one_read) {
    LogRecorder log(subscriberLog);
    auto client = duvo->getClient(simulator->endpoint(), {});
    vesk::duvo::ps::queue::QueuedSubscriber<Pair, PairBinding> store;
    ps::OpcUaDataPoller<Pair, PairBinding> poller(
        ps::QueuedSink<Pair, PairBinding>{&store}, client,
        vesk::duvo::opcua::detail::getNodeIds(pairUri("ns=1;s=NoSuchPairNode")), 0);
    const std::string failed = "failed to read node ns=1;s=NoSuchPairNode";

    // Hold the I/O thread so that the triggers run back to back, far closer than 1 ms.
    std::mutex mutex;
    std::condition_variable released;
    bool go = false;
    boost::asio::post(client->ioContext(), [&] {
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [&] { return go; });
    });
    for (int i = 0; i < 10; ++i) poller.postTriggeredPoll();
    {
        std::lock_guard<std::mutex> lock(mutex);
        go = true;
    }
    released.notify_all();
    ASSERT_TRUE(log.waitFor(failed, 1));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(log.containing(failed).size(), 1u);

    poller.postTriggeredPoll(); // a later trigger reads again
    ASSERT_TRUE(log.waitFor(failed, 2));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(log.containing(failed).size(), 2u);
}

TEST_F(MultiNode, publishing_writes_both_nodes) {
    auto publisher = makePair<ps::OpcUaPublisherDelegator, ps::OpcUaPublisher>(pairUri(), {}, duvo);
    std::shared_ptr<Pair> sample = publisher->createDataEntity();
    sample->setCount(-17);
    sample->setLevel(6.75f);
    publisher->publish(*sample, kWait);
    EXPECT_EQ(simulator->read(countNode).at<UA_Int32>(), -17);
    EXPECT_EQ(simulator->read(levelNode).at<UA_Float>(), 6.75f);
    EXPECT_EQ(simulator->writeCount(countNode), 1u);
    EXPECT_EQ(simulator->writeCount(levelNode), 1u);

    publisher->publish(1.5, *sample, kWait);
    for (const char* node : {countNode, levelNode})
        EXPECT_EQ(simulator->sourceTime(node).timestamp, UA_DATETIME_UNIX_EPOCH + 15000000) << node;

    // The failing node is named by its own position in the URI.
    simulator->setWritable(levelNode, false);
    EXPECT_EQ(failure<std::runtime_error>([&] { publisher->publish(*sample, kWait); }),
              "OpcUaPublisher for nodes ns=1;s=M2Int32Value0 ns=1;s=M2FloatValue0: failed to write to node "
              "ns=1;s=M2FloatValue0: BadNotWritable Uri:" +
                  pairUri());
    simulator->setWritable(levelNode, true);
}

} // namespace
} // namespace duvo::test
