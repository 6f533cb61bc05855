// Publishing every type to both servers, and every way a publish can fail.
#include <boost/thread/future.hpp>

#include <duvo/opcua/detail/ps/publisher.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>

#include "support/servers.hpp"

namespace duvo::test {
namespace {

template <class Type>
class PublishEveryType : public OnSimulator {};
template <class Type>
class PublishToNodeServer : public OnNodeServer {};
TYPED_TEST_SUITE(PublishEveryType, AllTypes, TypeNames);
TYPED_TEST_SUITE(PublishToNodeServer, AllTypes, TypeNames);

TYPED_TEST_ON_BOTH(PublishEveryType, PublishToNodeServer, lands_with_and_without_waiting_and_keeps_the_source_time) {
    auto publisher = f.middleware()->template createPublisher<TypeParam>(f.psUri(TypeParam::typeName));
    std::shared_ptr<TypeParam> sample = publisher->createDataEntity();
    sample->setValue0(makeValue<TypeParam>(41));
    publisher->publish(*sample, kWait);
    EXPECT_TRUE(f.server->template value<TypeParam>() == sample->getValue0());

    sample->setValue0(makeValue<TypeParam>(42));
    publisher->publish(1700000000.25, *sample, kWait);
    EXPECT_TRUE(f.server->template value<TypeParam>() == sample->getValue0());
    const SourceTime stamped = f.server->sourceTime(TypeParam::typeName);
    EXPECT_TRUE(stamped.present);
    EXPECT_EQ(stamped.timestamp, UA_DATETIME_UNIX_EPOCH + 17000000002500000LL);
    EXPECT_EQ(stamped.picoseconds, 0);

    if constexpr (TypeParam::field_type::isVector) {
        // The binding carries any length; so do the servers.
        for (std::size_t length : {TypeParam::nominalLength + 3, std::size_t(1), std::size_t(0)}) {
            sample->setValue0(makeValue<TypeParam>(44, length));
            publisher->publish(*sample, kWait);
            EXPECT_TRUE(f.server->template value<TypeParam>() == sample->getValue0()) << "length " << length;
        }
    }

    // One sample published from several threads at once, waiting and not: publishing shares
    // no state, not even the sample's string descriptors (run under TSan). On the simulator
    // only: node-opcua now and then closes the session under this burst on a loaded machine.
    if constexpr (std::is_base_of_v<OnSimulator, std::decay_t<decltype(f)>>) {
        sample->setValue0(makeValue<TypeParam>(43));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 10; ++i) publisher->publish(*sample, i % 2 ? 0ms : kWait);
            });
        for (auto& thread : threads) thread.join();
        EXPECT_TRUE(eventually([&] { return f.server->template value<TypeParam>() == sample->getValue0(); }));
    }
    publisher->close();
}

class BurstOnSimulator : public OnSimulator {};
class NodeServerBurst : public OnNodeServer {};

// Monitored with a sampling interval of 0, an item reports every change: no write of a burst
// of publishes, waiting or not, is lost or reordered.
TEST_ON_BOTH(BurstOnSimulator, NodeServerBurst, monitored_items_lose_no_write_of_a_burst) {
    auto subscriber = f.middleware(monitoredProps)->template createSubscriber<T>(f.psUri(T::typeName));
    auto publisher = f.middleware()->template createPublisher<T>(f.psUri(T::typeName));
    std::shared_ptr<T> sample = publisher->createDataEntity();
    sample->setValue0(-1);
    publisher->publish(*sample, kWait);
    ASSERT_TRUE(receives<T>(*subscriber, -1)); // the item is in place

    constexpr int count = 60;
    for (int i = 0; i < count; ++i) {
        sample->setValue0(i);
        publisher->publish(*sample, i % 3 == 0 ? kWait : 0ms);
    }
    std::vector<int> got, expected;
    eventually([&] {
        for (const auto& s : subscriber->read(0)) got.push_back(s->getValue0());
        return !got.empty() && got.back() == count - 1;
    });
    for (int i = 0; i < count; ++i) expected.push_back(i);
    EXPECT_EQ(got, expected);
}

class PublisherTest : public OnSimulator {
protected:
    std::string uri(const std::string& variable = "M2Int32Value0") const { return psUri(variable); }
    std::unique_ptr<vesk::duvo::ps::Publisher<T>> publisher(const std::string& variable = "M2Int32Value0") {
        return duvo->createPublisher<T>(uri(variable));
    }
};

TEST_F(PublisherTest, refusals_say_why_once_and_leave_the_publisher_usable) {
    const std::string rr = rrUri("PsRpcSetpower", "RPC_SetPower");
    EXPECT_EQ(failure<std::invalid_argument>([&] { duvo->createPublisher<T>(rr); }),
              "URI is not publish/subscribe URI uri:" + rr);
    EXPECT_NE(failure<std::invalid_argument>([&] { duvo->createPublisher<T>(uri().substr(0, uri().find('#'))); }), "");

    auto p = publisher();
    auto sample = p->createDataEntity();
    sample->setValue0(3);
    p->publish(*sample, kWait);
    simulator->setWritable("M2Int32Value0", false);
    const std::string notWritable = "OpcUaPublisher for nodes ns=1;s=M2Int32Value0: failed to write to node "
                                    "ns=1;s=M2Int32Value0: BadNotWritable Uri:" +
                                    uri();
    EXPECT_EQ(failure<std::runtime_error>([&] { p->publish(*sample, kWait); }), notWritable);
    {
        // Without a wait the refusal has no caller to reach: it is logged instead.
        LogRecorder log(publisherLog);
        p->publish(*sample, 0ms);
        EXPECT_TRUE(log.waitFor(notWritable));
        EXPECT_EQ(log.containing(notWritable).at(0).level, log4cplus::ERROR_LOG_LEVEL);
    }
    simulator->setWritable("M2Int32Value0", true);
    sample->setValue0(4);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(failure<vesk::duvo::TimeoutException>([&] { p->publish(*sample, -1ms); }), "timeout when publishing");
    EXPECT_EQ(simulator->writeCount("M2Int32Value0"), 1u); // a negative timeout writes nothing
    p->publish(5.0, *sample, kWait);
    EXPECT_EQ(simulator->read("M2Int32Value0").at<UA_Int32>(), 4);

    // An Int32 sample to a Double array node.
    EXPECT_EQ(failure<std::runtime_error>([&] { publisher("M2DoubleVector6")->publish(*sample, kWait); }),
              "OpcUaPublisher for nodes ns=1;s=M2DoubleVector6: failed to write to node ns=1;s=M2DoubleVector6: "
              "BadTypeMismatch Uri:" +
                  uri("M2DoubleVector6"));

    {
        LogRecorder log(publisherLog);
        const std::string wrongType = "data type for instance or value is incorrect. Not a OpcUa supported type";
        EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { p->publish(ForeignInt32(), kWait); }), wrongType);
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.lines()[0].level, log4cplus::ERROR_LOG_LEVEL);
        EXPECT_EQ(log.lines()[0].message, wrongType);
    }
    EXPECT_EQ(simulator->writeCount("M2Int32Value0"), 2u);

    p->close();
    p->close(); // harmless
    EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { p->createDataEntity(); }),
              "Entity closed. Uri:" + uri());
}

TEST_F(PublisherTest, write_responses_are_checked_in_order_with_exact_texts) {
    using Publisher = vesk::duvo::opcua::detail::ps::OpcUaPublisher<T, generated::opcua::m2Types::M2Int32Value0>;
    const Publisher publisher(uri(), PsQoS{}, {}, duvo);
    const auto refusal = [&](UA_StatusCode service, std::vector<UA_StatusCode> results) {
        Publisher::WriteResponse response;
        response->responseHeader.serviceResult = service;
        if (!results.empty()) {
            response->results =
                static_cast<UA_StatusCode*>(UA_Array_new(results.size(), &UA_TYPES[UA_TYPES_STATUSCODE]));
            std::copy(results.begin(), results.end(), response->results);
            response->resultsSize = results.size();
        }
        auto future = boost::make_ready_future(std::move(response));
        return failure<std::runtime_error>([&] { publisher.checkWriteResponse(future); });
    };
    const std::string id = "OpcUaPublisher for nodes ns=1;s=M2Int32Value0";
    const std::string suffix = " Uri:" + uri();
    EXPECT_EQ(refusal(UA_STATUSCODE_GOOD, {UA_STATUSCODE_GOOD}), "");
    EXPECT_EQ(refusal(UA_STATUSCODE_GOOD, {}), id + ": write returned 0 results, expected 1" + suffix);
    EXPECT_EQ(refusal(UA_STATUSCODE_GOOD, {UA_STATUSCODE_GOOD, UA_STATUSCODE_GOOD}),
              id + ": write returned 2 results, expected 1" + suffix);
    // The service result comes first: it explains a missing result.
    EXPECT_EQ(refusal(UA_STATUSCODE_BADTOOMANYOPERATIONS, {}), id + ": write returned BadTooManyOperations" + suffix);
    EXPECT_EQ(refusal(UA_STATUSCODE_GOOD, {UA_STATUSCODE_BADOUTOFRANGE}),
              id + ": failed to write to node ns=1;s=M2Int32Value0: BadOutOfRange" + suffix);
    // A failed future passes the client's own exception through unchanged.
    auto failed = boost::make_exceptional_future<Publisher::WriteResponse>(vesk::duvo::TimeoutException("timeout: x"));
    EXPECT_EQ(failure<vesk::duvo::TimeoutException>([&] { publisher.checkWriteResponse(failed); }), "timeout: x");
}

TEST_F(PublisherTest, zero_timeout_returns_at_once_even_when_the_server_is_silent) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    auto publisher = duvo->createPublisher<T>(psUri("M2Int32Value0", proxy.endpoint()));
    {
        auto warmUp = publisher->createDataEntity(); // connect first, so that the write is sent rather than queued
        publisher->publish(*warmUp, kWait);
    }
    proxy.blackhole();
    {
        auto sample = publisher->createDataEntity();
        sample->setValue0(77);
        publisher->publish(*sample, 0ms); // must not wait
    }                                     // the sample is gone before the request could be answered
    EXPECT_TRUE(simulator->waitForWrites("M2Int32Value0", 2, 2000ms));
    EXPECT_EQ(simulator->read("M2Int32Value0").at<UA_Int32>(), 77);
    EXPECT_EQ(failure<vesk::duvo::TimeoutException>([&] { publisher->publish(*publisher->createDataEntity(), 300ms); }),
              "timeout when publishing");
    proxy.passThrough();
}

TEST_F(PublisherTest, instance_publishers_keep_their_instance_and_close_alone_or_with_their_publisher) {
    using V = m2Types::M2FloatVector6;
    auto vectors = duvo->createPublisher<V>(uri("M2FloatVector6"));
    auto instance = vectors->createDataEntity();
    instance->setValue0(vesk::duvo::shared_vector<const float>{1, 2, 3});
    auto instancePublisher = vectors->createInstancePublisher(*instance);
    instance->setValue0(vesk::duvo::shared_vector<const float>{9}); // later changes do not reach it
    std::shared_ptr<V> made = instancePublisher->createDataEntity();
    EXPECT_EQ(made->getValue0(), (vesk::duvo::shared_vector<const float>{1, 2, 3}));
    made->setValue0(vesk::duvo::shared_vector<const float>{7, 7});
    EXPECT_EQ(instancePublisher->createDataEntity()->getValue0(), (vesk::duvo::shared_vector<const float>{1, 2, 3}));
    instancePublisher->publish(*made, kWait); // the sample it is given, not the stored instance
    EXPECT_EQ(simulator->read("M2FloatVector6").arrayLength(), 2u);

    auto p = publisher();
    auto sample = p->createDataEntity();
    auto first = p->createInstancePublisher(*sample);
    std::vector<std::unique_ptr<vesk::duvo::ps::InstancePublisher<T>>> kept;
    for (int i = 0; i < 8; ++i) kept.push_back(p->createInstancePublisher(*sample));
    {
        LogRecorder log(publisherLog);
        first->close();
        first->close(); // harmless
        EXPECT_EQ(failure<vesk::duvo::IllegalStateException>([&] { first->publish(*sample, kWait); }),
                  "InstanceOpcUaPublisher closed");
        EXPECT_THROW(first->createDataEntity(), vesk::duvo::IllegalStateException);
        const auto lines = log.containing("InstanceOpcUaPublisher closed");
        ASSERT_EQ(lines.size(), 2u); // once each, as thrown
        EXPECT_EQ(lines[0].level, log4cplus::ERROR_LOG_LEVEL);
    }
    EXPECT_NO_THROW(kept[0]->publish(*sample, kWait));

    // Instance publishers come and go on several threads while the publisher closes: the close
    // never reaches one already destroyed.
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            while (!stop.load()) {
                auto transient = p->createInstancePublisher(*sample);
                try {
                    transient->publish(*sample, 0ms);
                } catch (const vesk::duvo::IllegalStateException&) {
                    // closed by the publisher meanwhile
                }
            }
        });
    std::this_thread::sleep_for(100ms);
    p->close();
    stop = true;
    for (auto& thread : threads) thread.join();
    for (auto& k : kept) EXPECT_THROW(k->publish(*sample, kWait), vesk::duvo::IllegalStateException);

    // The publisher may go first: its instance publishers still hold it.
    auto second = publisher();
    auto orphan = second->createInstancePublisher(*sample);
    second.reset();
    EXPECT_NO_THROW(orphan->publish(*sample, kWait));
}

} // namespace
} // namespace duvo::test
