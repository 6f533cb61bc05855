// A sample spread over two OPC UA nodes: monitoring only triggers reads of both nodes, bursts
// of triggers become one read, and publishing writes both nodes.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/time.hpp>

#include "entities/logRecorder.hpp"
#include "entities/pairSample.hpp"
#include "support/makeEntity.hpp"
#include "support/simulatorFixture.hpp"

namespace {

using duvo::test::make;
using namespace std::chrono_literals;
using duvo::test::LogRecorder;
using duvo::test::Pair;
using duvo::test::PairBinding;
using vesk::duvo::opcua::detail::ps::EntityState;
using vesk::duvo::opcua::detail::ps::OpcUaDataPoller;
using vesk::duvo::opcua::detail::ps::OpcUaMrvSubscriber;
using vesk::duvo::opcua::detail::ps::OpcUaPublisher;
using vesk::duvo::opcua::detail::ps::OpcUaSubscriber;
using vesk::duvo::opcua::detail::ps::QueuedSink;
using vesk::duvo::ps::DataEvent;
using vesk::duvo::ps::DataEventFilter;
using PsQoS = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
using Properties = vesk::duvo::Duvo::Properties;
using Subscriber = OpcUaSubscriber<Pair, PairBinding>;
using MrvSubscriber = OpcUaMrvSubscriber<Pair, PairBinding>;

constexpr const char* countNode = "M2Int32Value0";
constexpr const char* levelNode = "M2FloatValue0";
constexpr const char* subscriberLog = "orsa.duvo.opcua.subscriber";

class MultiNode : public duvo::test::SimulatorSuite {
protected:
    /// The counter on the Int32 node, the level on the Float node, in field order.
    static std::string pairUri(const std::string& second = std::string("ns=1;s=") + levelNode) {
        return psUri(countNode) + "," + second;
    }

    static void writeCount(std::int32_t count) {
        UA_Variant v;
        UA_Variant_setScalar(&v, &count, &UA_TYPES[UA_TYPES_INT32]);
        simulator->write(countNode, v);
    }
    static void writeLevel(float level) {
        UA_Variant v;
        UA_Variant_setScalar(&v, &level, &UA_TYPES[UA_TYPES_FLOAT]);
        simulator->write(levelNode, v);
    }

    /// The newest source time of the two nodes, as the poller computes a sample's time.
    static double newestSourceTime() {
        double newest = 0;
        for (const char* node : {countNode, levelNode}) {
            const auto t = simulator->sourceTime(node);
            if (t.present) newest = std::max(newest, vesk::duvo::opcua::detail::unixTimestamp(t.timestamp, t.picoseconds));
        }
        return newest;
    }

    /// Collects events until one carries both values; every event seen is kept in seen.
    static std::shared_ptr<DataEvent<Pair>> awaitPair(Subscriber& subscriber, std::int32_t count, float level,
                                                      std::vector<std::shared_ptr<DataEvent<Pair>>>& seen,
                                                      std::chrono::milliseconds within = 5000ms) {
        const auto end = std::chrono::steady_clock::now() + within;
        while (std::chrono::steady_clock::now() < end) {
            std::vector<std::shared_ptr<DataEvent<Pair>>> events;
            subscriber.readDataEvents(DataEventFilter<Pair>(), events, 1, 50ms);
            for (auto& event : events) {
                seen.push_back(event);
                if (event->hasValidData() && event->getData()->getCount() == count &&
                    event->getData()->getLevel() == level)
                    return event;
            }
        }
        return nullptr;
    }

    static bool mostRecentIs(MrvSubscriber& subscriber, std::int32_t count, float level,
                             std::chrono::milliseconds within = 5000ms) {
        const auto end = std::chrono::steady_clock::now() + within;
        while (std::chrono::steady_clock::now() < end) {
            const auto samples = subscriber.readMostRecent(0ms);
            if (samples.size() == 1 && samples[0]->getCount() == count && samples[0]->getLevel() == level) return true;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }
};

TEST_F(MultiNode, node_counts_must_match_the_field_count) {
    using OneField = generated::opcua::m2Types::M2Int32Value0;
    const std::string two = pairUri();
    const std::string expected =
        "number of OPC-UA nodes in the URI (2) does not match the number of fields in the data type (1) Uri:" + two;
    try {
        OpcUaSubscriber<m2Types::M2Int32Value0, OneField> s(two, PsQoS{}, {}, duvo);
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()), expected);
    }
    try {
        OpcUaMrvSubscriber<m2Types::M2Int32Value0, OneField> s(two, PsQoS{}, {}, duvo);
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()), expected);
    }
    const std::string one = psUri(countNode);
    try {
        OpcUaPublisher<Pair, PairBinding> p(one, PsQoS{}, {}, duvo);
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(std::string(e.what()),
                  "number of OPC-UA nodes in the URI (1) does not match the number of fields in the data type (2) Uri:" +
                      one);
    }
}

TEST_F(MultiNode, polling_off_gives_a_monitor_and_a_triggered_only_poller) {
    // The property's period is the items' sampling interval, never the poller's.
    auto queued = make<Subscriber>(pairUri(), {{"opc.ps.pollingPeriodMs", "50"}}, duvo);
    auto mostRecent = make<MrvSubscriber>(pairUri(), {{"opc.ps.pollingPeriodMs", "50"}}, duvo);
    EXPECT_TRUE(queued->hasMonitor());
    ASSERT_TRUE(queued->hasPoller());
    EXPECT_EQ(queued->getPoller()->getPeriodMs(), 1000); // also the read deadline
    EXPECT_TRUE(mostRecent->hasMonitor());
    ASSERT_TRUE(mostRecent->hasPoller());
    EXPECT_EQ(mostRecent->getPoller()->getPeriodMs(), 1000);

    auto polled = make<Subscriber>(pairUri(), {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "50"}},
                                   duvo);
    EXPECT_FALSE(polled->hasMonitor());
    ASSERT_TRUE(polled->hasPoller());
    EXPECT_EQ(polled->getPoller()->getPeriodMs(), 50);
}

TEST_F(MultiNode, the_triggered_poller_reads_once_per_notification_and_never_by_itself) {
    // The second node does not exist, so every read fails with one ERROR line: the lines
    // count the reads. Only the first node's item notifies.
    LogRecorder log(subscriberLog);
    const std::string uri = pairUri("ns=1;s=NoSuchPairNode");
    const std::string failed = "Msg:OpcUaSubscriber for nodes ns=1;s=M2Int32Value0 ns=1;s=NoSuchPairNode: "
                               "failed to read node ns=1;s=NoSuchPairNode: BadNodeIdUnknown";
    auto subscriber = make<Subscriber>(uri, {{"opc.ps.pollingPeriodMs", "50"}}, duvo);
    ASSERT_TRUE(log.waitFor(failed, 1)); // the item's first notification
    std::this_thread::sleep_for(1500ms);  // a poller of its own would have read by now
    EXPECT_EQ(log.containing(failed).size(), 1u);
    for (const auto& line : log.containing(failed)) EXPECT_EQ(line.level, log4cplus::ERROR_LOG_LEVEL);

    writeCount(901);
    ASSERT_TRUE(log.waitFor(failed, 2));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(log.containing(failed).size(), 2u);

    // A failed read never delivers data (and a source never seen is not reported as lost).
    EXPECT_TRUE(subscriber->read(0).empty());
}

TEST_F(MultiNode, notifications_deliver_only_consistent_reads_of_both_nodes) {
    writeCount(1);
    writeLevel(1.25f);
    auto queued = make<Subscriber>(pairUri(), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    auto mostRecent = make<MrvSubscriber>(pairUri(), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    std::vector<std::shared_ptr<DataEvent<Pair>>> seen;
    ASSERT_NE(awaitPair(*queued, 1, 1.25f, seen), nullptr);
    EXPECT_TRUE(mostRecentIs(*mostRecent, 1, 1.25f));

    // A change of one node alone arrives with the other node's value: it came from a read of
    // both, never from the notification, which carries one value.
    writeCount(2);
    auto event = awaitPair(*queued, 2, 1.25f, seen);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getSourceTimestamp(), newestSourceTime());
    EXPECT_TRUE(mostRecentIs(*mostRecent, 2, 1.25f));

    writeLevel(2.5f); // the second node's item notifies too
    event = awaitPair(*queued, 2, 2.5f, seen);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getSourceTimestamp(), newestSourceTime());
    EXPECT_TRUE(mostRecentIs(*mostRecent, 2, 2.5f));

    // Whatever the timing, each sample is a state the server held: the writes go one node
    // at a time, so the counter and the level move in step.
    for (std::int32_t i = 3; i < 23; ++i) {
        writeCount(i);
        writeLevel(static_cast<float>(i) + 0.5f);
    }
    event = awaitPair(*queued, 22, 22.5f, seen);
    ASSERT_NE(event, nullptr);
    EXPECT_TRUE(mostRecentIs(*mostRecent, 22, 22.5f));
    for (const auto& e : seen) {
        ASSERT_TRUE(e->hasValidData());
        const std::int32_t count = e->getData()->getCount();
        const float level = e->getData()->getLevel();
        if (count >= 3) {
            EXPECT_TRUE(level == static_cast<float>(count) + 0.5f || level == static_cast<float>(count) - 0.5f)
                << count << " with " << level;
        }
    }
    queued->close();
    mostRecent->close();
}

TEST_F(MultiNode, a_burst_of_triggers_becomes_one_read) {
    LogRecorder log(subscriberLog);
    auto client = duvo->getClient(simulator->endpoint(), {});
    vesk::duvo::ps::queue::QueuedSubscriber<Pair, PairBinding> store;
    const auto nodeIds = vesk::duvo::opcua::detail::getNodeIds(pairUri("ns=1;s=NoSuchPairNode"));
    OpcUaDataPoller<Pair, PairBinding> poller(QueuedSink<Pair, PairBinding>{&store}, client, nodeIds, 0);
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
    auto publisher = std::make_shared<OpcUaPublisher<Pair, PairBinding>>(pairUri(), PsQoS{}, Properties{}, duvo);
    publisher->setState(EntityState::Initialized);
    EXPECT_EQ(publisher->publisherId(), "OpcUaPublisher for nodes ns=1;s=M2Int32Value0 ns=1;s=M2FloatValue0");
    std::shared_ptr<Pair> sample = publisher->createDataEntity();
    ASSERT_NE(dynamic_cast<PairBinding*>(sample.get()), nullptr);
    sample->setCount(-17);
    sample->setLevel(6.75f);
    publisher->publish(*sample, 2000ms);
    EXPECT_EQ(simulator->read(countNode).at<UA_Int32>(), -17);
    EXPECT_EQ(simulator->read(levelNode).at<UA_Float>(), 6.75f);
    EXPECT_EQ(simulator->writeCount(countNode), 1u);
    EXPECT_EQ(simulator->writeCount(levelNode), 1u);

    publisher->publish(1.5, *sample, 2000ms);
    for (const char* node : {countNode, levelNode}) {
        const auto stamped = simulator->sourceTime(node);
        EXPECT_TRUE(stamped.present) << node;
        EXPECT_EQ(stamped.timestamp, UA_DATETIME_UNIX_EPOCH + 15000000) << node;
    }

    // The failing node is named by its own position in the URI.
    simulator->setWritable(levelNode, false);
    try {
        publisher->publish(*sample, 2000ms);
        ADD_FAILURE() << "a refused write went unnoticed";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), publisher->publisherId() +
                                             ": failed to write to node ns=1;s=M2FloatValue0: BadNotWritable Uri:" +
                                             pairUri());
    }
    simulator->setWritable(levelNode, true);
    publisher->close();
}

} // namespace
