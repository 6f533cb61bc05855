// What monitors, pollers, publishers and calls report when something goes wrong: the exact
// texts, the log lines, and what reaches the application's queue.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/thread/future.hpp>
#include <gtest/gtest.h>
#include <open62541/types.h>

#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <generated/opcua/m2Types/rpc.hpp>
#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/opcua/time.hpp>
#include <vesk/duvo/sim/faultProxy.hpp>

#include "entities/logRecorder.hpp"
#include "support/makeEntity.hpp"
#include "support/simulatorFixture.hpp"

namespace {

using duvo::test::make;
using namespace std::chrono_literals;
using duvo::test::LogRecorder;
using vesk::duvo::opcua::detail::ps::EntityState;
using vesk::duvo::opcua::detail::ps::MrvSink;
using vesk::duvo::opcua::detail::ps::OpcUaDataMonitor;
using vesk::duvo::opcua::detail::ps::OpcUaDataPoller;
using vesk::duvo::opcua::detail::ps::QueuedSink;
using vesk::duvo::opcua::detail::ps::OpcUaMrvDataPoller;
using vesk::duvo::opcua::detail::ps::OpcUaMrvSubscriber;
using vesk::duvo::opcua::detail::ps::OpcUaPublisher;
using vesk::duvo::opcua::detail::ps::OpcUaPublisherDelegator;
using vesk::duvo::opcua::detail::ps::OpcUaSubscriber;
using vesk::duvo::ps::DataEvent;
using vesk::duvo::ps::DataEventFilter;
using vesk::duvo::ps::InstanceState;
using PsQoS = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
using Properties = vesk::duvo::Duvo::Properties;
using T = m2Types::M2Int32Value0;
using ST = generated::opcua::m2Types::M2Int32Value0;
using Events = std::vector<std::shared_ptr<DataEvent<T>>>;

constexpr const char* subscriberLog = "orsa.duvo.opcua.subscriber";
constexpr const char* publisherLog = "orsa.duvo.opcua.publisher";

void serverWriteInt(vesk::duvo::sim::Simulator& sim, int value) {
    UA_Variant v;
    UA_Variant_setScalar(&v, &value, &UA_TYPES[UA_TYPES_INT32]);
    sim.write("M2Int32Value0", v);
}

bool receives(vesk::duvo::ps::Subscriber<T>& subscriber, int value, std::chrono::milliseconds within = 5000ms) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (std::chrono::steady_clock::now() < end) {
        for (const auto& sample : subscriber.read(0))
            if (sample && sample->getValue0() == value) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

bool mostRecentIs(vesk::duvo::ps::MrvSubscriber<T>& subscriber, int value, std::chrono::milliseconds within = 5000ms) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (std::chrono::steady_clock::now() < end) {
        const auto samples = subscriber.readMostRecent(0ms);
        if (samples.size() == 1 && samples[0]->getValue0() == value) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

/// The first event without data, waiting at most within.
std::shared_ptr<DataEvent<T>> firstEmptyEvent(vesk::duvo::ps::Subscriber<T>& subscriber,
                                              std::chrono::milliseconds within = 5000ms) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (std::chrono::steady_clock::now() < end) {
        Events events;
        subscriber.readDataEvents(DataEventFilter<T>(), events, 1, 50ms);
        for (const auto& event : events)
            if (!event->hasValidData()) return event;
    }
    return nullptr;
}

class MonitorFailures : public duvo::test::SimulatorSuite {};

TEST_F(MonitorFailures, a_value_of_the_wrong_type_gives_one_error_and_an_empty_alive_sample) {
    // A Double array arrives at an Int32 subscriber; its source time is known.
    const double doubles[6] = {1, 2, 3, 4, 5, 6};
    UA_Variant v;
    UA_Variant_setArray(&v, const_cast<double*>(doubles), 6, &UA_TYPES[UA_TYPES_DOUBLE]);
    simulator->write("M2DoubleVector6", v);
    const auto written = simulator->sourceTime("M2DoubleVector6");
    ASSERT_TRUE(written.present);

    LogRecorder log(subscriberLog);
    const std::string expected =
        "Can't set sample value from OpcUa value: ::m2Types::M2Int32Value0.value0: expected Int32, received Double";
    auto queued = make<OpcUaSubscriber<T, ST>>(psUri("M2DoubleVector6"), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    Events events;
    queued->readDataEvents(DataEventFilter<T>(), events, 1, 5000ms);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(events[0]->hasValidData());
    EXPECT_EQ(events[0]->getInstanceState(), InstanceState::Alive);
    EXPECT_EQ(events[0]->getSourceTimestamp(),
              vesk::duvo::opcua::detail::unixTimestamp(written.timestamp, written.picoseconds));
    ASSERT_TRUE(log.waitFor(expected, 1));
    ASSERT_EQ(log.lines().size(), 1u) << log.lines()[1].message;
    EXPECT_EQ(log.lines()[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(log.lines()[0].message, expected);
    queued->close();

    // The most-recent-value subscriber logs the same and stores nothing.
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(psUri("M2DoubleVector6"), {{"opc.ps.pollingPeriodMs", "0"}}, duvo);
    ASSERT_TRUE(log.waitFor(expected, 2));
    EXPECT_TRUE(mostRecent->readMostRecent(0ms).empty());
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(MonitorFailures, a_value_without_source_time_is_timed_as_a_poll_would_time_it) {
    // A server that stamps only its own time: the data's age is unknown, monitored or polled,
    // so that Deadline and Latency judge both alike.
    vesk::duvo::ps::queue::QueuedSubscriber<T, ST> store;
    OpcUaDataMonitor<T, ST> monitor(QueuedSink<T, ST>{&store}, duvo->getClient(simulator->endpoint(), {}), {}, 0.0,
                                    nullptr);
    UA_Int32 number = 7;
    UA_DataValue value;
    UA_DataValue_init(&value);
    UA_Variant_setScalarCopy(&value.value, &number, &UA_TYPES[UA_TYPES_INT32]);
    value.hasValue = true;
    value.serverTimestamp = UA_DateTime_now();
    value.hasServerTimestamp = true;
    UA_ReadResponse polled;
    UA_ReadResponse_init(&polled);
    polled.results = &value;
    polled.resultsSize = 1;
    const double pollTime = vesk::duvo::opcua::detail::maxDataTimestamp(polled);

    monitor.onMonitoredDataChange(&value); // takes the value's contents
    Events events;
    store.readDataEvents(DataEventFilter<T>(), events, 1, 0ms);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->getData()->getValue0(), 7);
    EXPECT_EQ(events[0]->getSourceTimestamp(), pollTime);
    UA_DataValue_clear(&value);
}

TEST_F(MonitorFailures, a_refused_node_fails_construction_and_a_later_refusal_is_one_error) {
    const std::string uri = psUri("NoSuchNode");
    const std::string refusal = "cannot monitor node ns=1;s=NoSuchNode: BadNodeIdUnknown";
    LogRecorder log(subscriberLog);
    LogRecorder internal("orsa.duvo.opcua.internal");
    const auto client = duvo->getClient(simulator->endpoint(), duvo->properties());
    const auto connected = [&](bool up) {
        for (const auto end = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < end;) {
            if (client->isConnected() == up) return true;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    };
    // With a session up, the server's verdict comes before the constructor returns.
    ASSERT_TRUE(connected(true));
    for (const bool queued : {true, false}) {
        try {
            if (queued) make<OpcUaSubscriber<T, ST>>(uri, {}, duvo);
            else make<OpcUaMrvSubscriber<T, ST>>(uri, {}, duvo);
            ADD_FAILURE() << "a refused node was accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), refusal);
        }
    }
    EXPECT_TRUE(log.containing(refusal).empty()); // the exception says it

    // Made without a session, the refusal comes with the next one, as after a server restart:
    // one ERROR each. The queue hears it as a lost source, which it reports as not alive only
    // after the source was alive; this one never was, so nothing reaches the application.
    simulator->stop();
    ASSERT_TRUE(connected(false));
    auto queued = make<OpcUaSubscriber<T, ST>>(uri, {}, duvo);
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri, {}, duvo);
    simulator->start();
    ASSERT_TRUE(log.waitFor(refusal, 2, 10000ms));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(log.containing(refusal).size(), 2u);
    for (const auto& line : log.containing(refusal)) EXPECT_EQ(line.level, log4cplus::ERROR_LOG_LEVEL);
    for (const auto& line : internal.containing("NoSuchNode")) EXPECT_NE(line.level, log4cplus::ERROR_LOG_LEVEL);
    Events events;
    queued->readDataEvents(DataEventFilter<T>(), events, 100, 0ms);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(mostRecent->readMostRecent(0ms).empty());
}

class PollerFailures : public duvo::test::SimulatorSuite {};

TEST_F(PollerFailures, an_unknown_node_is_logged_and_reported_as_gone) {
    LogRecorder log(subscriberLog);
    const std::string uri = psUri("NoSuchNode");
    auto queued = make<OpcUaSubscriber<T, ST>>(uri, {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "50"}},
                                              duvo);
    const std::string queuedLine = "Msg:OpcUaSubscriber for nodes ns=1;s=NoSuchNode: failed to read node "
                                   "ns=1;s=NoSuchNode: BadNodeIdUnknown";
    ASSERT_TRUE(log.waitFor(queuedLine));
    EXPECT_EQ(log.containing(queuedLine)[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_TRUE(queued->read(0).empty());
    queued->close();

    // A store that has seen data learns from the failed read that its source is gone.
    {
        vesk::duvo::ps::queue::QueuedSubscriber<T, ST> store;
        auto seen = std::make_unique<ST>();
        seen->setValue0(8);
        store.newData(std::move(seen), 1000.0, 1);
        OpcUaDataPoller<T, ST> poller(QueuedSink<T, ST>{&store}, duvo->getClient(simulator->endpoint(), {}),
                                      vesk::duvo::opcua::detail::getNodeIds(uri), 50);
        auto event = firstEmptyEvent(store);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->getInstanceState(), InstanceState::NotAlive);
        EXPECT_EQ(event->getSourceTimestamp(), 0.0);
    }

    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(
        uri, {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "50"}}, duvo);
    const std::string mrvLine = "Msg:OpcUaMrvDataPoller for nodes ns=1;s=NoSuchNode: failed to read node "
                                "ns=1;s=NoSuchNode: BadNodeIdUnknown";
    ASSERT_TRUE(log.waitFor(mrvLine, 2));
    EXPECT_EQ(log.containing(mrvLine)[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_TRUE(mostRecent->readMostRecent(0ms).empty());
}

TEST_F(PollerFailures, the_most_recent_value_poller_keeps_the_last_value_when_a_read_fails) {
    LogRecorder log(subscriberLog);
    vesk::duvo::ps::queue::MapMrvSubscriber<T, ST> store;
    auto last = std::make_unique<ST>();
    last->setValue0(5);
    store.newData(std::move(last)); // what an earlier good read stored
    const auto nodeIds = vesk::duvo::opcua::detail::getNodeIds(psUri("NoSuchNode"));
    {
        OpcUaMrvDataPoller<T, ST> poller(MrvSink<T, ST>{&store}, duvo->getClient(simulator->endpoint(), {}), nodeIds, 20);
        ASSERT_TRUE(log.waitFor("failed to read node ns=1;s=NoSuchNode: BadNodeIdUnknown", 3));
    }
    const auto samples = store.readMostRecent(0ms);
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0]->getValue0(), 5);
}

TEST_F(PollerFailures, a_silent_server_times_the_read_out) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    LogRecorder log(subscriberLog);
    const std::string uri = psUri("M2Int32Value0", proxy.endpoint());
    const Properties polled{{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "300"}};
    auto queued = make<OpcUaSubscriber<T, ST>>(uri, polled, duvo);
    auto mostRecent = make<OpcUaMrvSubscriber<T, ST>>(uri, polled, duvo);
    serverWriteInt(*simulator, 61);
    ASSERT_TRUE(receives(*queued, 61));
    ASSERT_TRUE(mostRecentIs(*mostRecent, 61));

    proxy.blackhole();
    const std::string timedOut = "Msg:OpcUaSubscriber for nodes ns=1;s=M2Int32Value0: read timed out";
    ASSERT_TRUE(log.waitFor(timedOut));
    EXPECT_EQ(log.containing(timedOut)[0].level, log4cplus::WARN_LOG_LEVEL);
    auto event = firstEmptyEvent(*queued);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getInstanceState(), InstanceState::NotAlive);
    EXPECT_EQ(event->getSourceTimestamp(), 0.0);

    // Meanwhile the most-recent-value poller times out too: silently, keeping its value.
    std::this_thread::sleep_for(800ms);
    EXPECT_TRUE(log.containing("OpcUaMrvDataPoller").empty());
    const auto samples = mostRecent->readMostRecent(0ms);
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0]->getValue0(), 61);

    queued.reset(); // with reads unanswered
    mostRecent.reset();
    proxy.passThrough();
}

/// How each read of a poller ended, in order.
struct OutcomeSink {
    static constexpr const char* pollerName = "OpcUaSubscriber for nodes";
    static constexpr bool watchesConnection = false;
    struct Record {
        std::mutex mutex;
        std::vector<std::string> outcomes;
        void add(const char* outcome) {
            std::lock_guard<std::mutex> lock(mutex);
            outcomes.emplace_back(outcome);
        }
        std::vector<std::string> get() {
            std::lock_guard<std::mutex> lock(mutex);
            return outcomes;
        }
    };
    std::shared_ptr<Record> record;
    void sample(std::unique_ptr<ST>, double) const { record->add("sample"); }
    void connectionLost() const {}
    void pollTimedOut(log4cplus::Logger&, const std::string&) const { record->add("timed out"); }
    void pollFailed(log4cplus::Logger&, const std::string&) const { record->add("failed"); }
    void pollThrew() const { record->add("threw"); }
    void conversionFailed(log4cplus::Logger&, const std::string&, double) const {}
};

TEST_F(PollerFailures, a_read_unanswered_at_its_deadline_times_out_whoever_notices_first) {
    // The client's own deadline and the poller's wait end together: either way it is a timeout.
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    const std::string uri = psUri("M2Int32Value0", proxy.endpoint());
    const auto record = std::make_shared<OutcomeSink::Record>();
    {
        vesk::duvo::opcua::detail::ps::BasicDataPoller<ST, OutcomeSink> poller(
            OutcomeSink{record}, duvo->getClient(proxy.endpoint(), {}), vesk::duvo::opcua::detail::getNodeIds(uri), 30);
        // Reads time out until the session is up; then the value arrives once.
        const auto sampled = [&] {
            const auto outcomes = record->get();
            return std::find(outcomes.begin(), outcomes.end(), "sample") != outcomes.end();
        };
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (!sampled() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
        ASSERT_TRUE(sampled());
        proxy.blackhole();
        const std::size_t before = record->get().size();
        // Before the client gives the silent connection up.
        while (record->get().size() < before + 16 && std::chrono::steady_clock::now() < end + 5s)
            std::this_thread::sleep_for(5ms);
    }
    proxy.passThrough();
    const auto outcomes = record->get();
    const auto first = std::find(outcomes.begin(), outcomes.end(), "sample") + 1;
    ASSERT_GE(outcomes.end() - first, 16);
    EXPECT_EQ(std::vector<std::string>(first, first + 16), std::vector<std::string>(16, "timed out"));
}

/// A write response built by hand, as the server might send it.
OpcUaPublisher<T, ST>::WriteResponse writeResponse(UA_StatusCode service, std::vector<UA_StatusCode> results) {
    OpcUaPublisher<T, ST>::WriteResponse response;
    response->responseHeader.serviceResult = service;
    if (!results.empty()) {
        response->results = static_cast<UA_StatusCode*>(UA_Array_new(results.size(), &UA_TYPES[UA_TYPES_STATUSCODE]));
        for (std::size_t i = 0; i < results.size(); ++i) response->results[i] = results[i];
        response->resultsSize = results.size();
    }
    return response;
}

class PublisherFailures : public duvo::test::SimulatorSuite {
protected:
    std::shared_ptr<OpcUaPublisher<T, ST>> makePublisher() {
        auto publisher = std::make_shared<OpcUaPublisher<T, ST>>(uri(), PsQoS{}, Properties{}, duvo);
        publisher->setState(EntityState::Initialized);
        return publisher;
    }
    std::string uri() const { return psUri("M2Int32Value0"); }

    /// What checkWriteResponse throws for the response, or "" when it accepts it.
    static std::string refusal(const OpcUaPublisher<T, ST>& publisher, OpcUaPublisher<T, ST>::WriteResponse response) {
        boost::future<OpcUaPublisher<T, ST>::WriteResponse> future = boost::make_ready_future(std::move(response));
        try {
            publisher.checkWriteResponse(future);
            return "";
        } catch (const std::runtime_error& e) {
            return e.what();
        }
    }
};

TEST_F(PublisherFailures, responses_are_checked_in_order_with_exact_texts) {
    auto publisher = makePublisher();
    const std::string id = "OpcUaPublisher for nodes ns=1;s=M2Int32Value0";
    const std::string suffix = " Uri:" + uri();
    EXPECT_EQ(refusal(*publisher, writeResponse(UA_STATUSCODE_GOOD, {UA_STATUSCODE_GOOD})), "");
    EXPECT_EQ(refusal(*publisher, writeResponse(UA_STATUSCODE_GOOD, {})),
              id + ": write returned 0 results, expected 1" + suffix);
    EXPECT_EQ(refusal(*publisher, writeResponse(UA_STATUSCODE_GOOD, {UA_STATUSCODE_GOOD, UA_STATUSCODE_GOOD})),
              id + ": write returned 2 results, expected 1" + suffix);
    // The service result comes first: it explains a missing result.
    EXPECT_EQ(refusal(*publisher, writeResponse(UA_STATUSCODE_BADTOOMANYOPERATIONS, {})),
              id + ": write returned BadTooManyOperations" + suffix);
    EXPECT_EQ(refusal(*publisher, writeResponse(UA_STATUSCODE_GOOD, {UA_STATUSCODE_BADOUTOFRANGE})),
              id + ": failed to write to node ns=1;s=M2Int32Value0: BadOutOfRange" + suffix);

    // A failed future passes the client's own exception through unchanged.
    auto failed = boost::make_exceptional_future<OpcUaPublisher<T, ST>::WriteResponse>(
        vesk::duvo::TimeoutException("timeout: 127.0.0.1"));
    try {
        publisher->checkWriteResponse(failed);
        FAIL();
    } catch (const vesk::duvo::TimeoutException& e) {
        EXPECT_STREQ(e.what(), "timeout: 127.0.0.1");
    }
}

TEST_F(PublisherFailures, a_negative_timeout_is_a_timeout_and_writes_nothing) {
    auto publisher = makePublisher();
    ST sample;
    sample.setValue0(3);
    publisher->publish(sample, 2000ms); // connected
    ASSERT_EQ(simulator->writeCount("M2Int32Value0"), 1u);
    sample.setValue0(4);
    for (int i = 0; i < 20; ++i) {
        try {
            publisher->publish(sample, -1ms);
            FAIL() << "a negative timeout was accepted";
        } catch (const vesk::duvo::TimeoutException& e) {
            EXPECT_STREQ(e.what(), "timeout when publishing");
        }
    }
    EXPECT_NO_THROW(publisher->publish(5.0, sample, 2000ms)); // still usable
    EXPECT_EQ(simulator->writeCount("M2Int32Value0"), 2u);
    EXPECT_EQ(simulator->read("M2Int32Value0").at<UA_Int32>(), 4);
}

TEST_F(PublisherFailures, a_zero_timeout_publish_logs_what_it_cannot_report) {
    LogRecorder log(publisherLog);
    auto publisher = makePublisher();
    ST sample;
    publisher->publish(sample, 2000ms); // connected: a write without a session fails at once
    simulator->setWritable("M2Int32Value0", false);
    publisher->publish(sample, 0ms);
    const std::string expected = "OpcUaPublisher for nodes ns=1;s=M2Int32Value0: failed to write to node "
                                 "ns=1;s=M2Int32Value0: BadNotWritable Uri:" +
                                 uri();
    EXPECT_TRUE(log.waitFor(expected));
    simulator->setWritable("M2Int32Value0", true);
    EXPECT_EQ(log.containing(expected).at(0).level, log4cplus::ERROR_LOG_LEVEL);
}

class InstancePublishers : public duvo::test::SimulatorSuite {
protected:
    template <class Type>
    std::unique_ptr<OpcUaPublisherDelegator<Type, vesk::duvo::opcua::detail::binding::BindingOf_t<Type>>> makePublisher(
        const std::string& variable) {
        using Binding = vesk::duvo::opcua::detail::binding::BindingOf_t<Type>;
        auto publisher = std::make_shared<OpcUaPublisher<Type, Binding>>(psUri(variable), PsQoS{}, Properties{}, duvo);
        publisher->setState(EntityState::Initialized);
        return std::make_unique<OpcUaPublisherDelegator<Type, Binding>>(publisher);
    }
};

TEST_F(InstancePublishers, create_data_entity_copies_the_instance_taken_at_creation) {
    using V = m2Types::M2FloatVector6;
    using SV = generated::opcua::m2Types::M2FloatVector6;
    auto publisher = makePublisher<V>("M2FloatVector6");
    SV instance;
    instance.setValue0(vesk::duvo::shared_vector<const float>{1, 2, 3});
    auto instancePublisher = publisher->createInstancePublisher(instance);
    instance.setValue0(vesk::duvo::shared_vector<const float>{9}); // later changes do not reach it

    std::shared_ptr<V> made = instancePublisher->createDataEntity();
    ASSERT_NE(dynamic_cast<SV*>(made.get()), nullptr);
    EXPECT_EQ(made->getValue0(), (vesk::duvo::shared_vector<const float>{1, 2, 3}));
    made->setValue0(vesk::duvo::shared_vector<const float>{7, 7});
    EXPECT_EQ(instancePublisher->createDataEntity()->getValue0(), (vesk::duvo::shared_vector<const float>{1, 2, 3}));

    // It publishes the sample it is given, not the stored instance.
    instancePublisher->publish(*made, 2000ms);
    EXPECT_EQ(simulator->read("M2FloatVector6").arrayLength(), 2u);
}

TEST_F(InstancePublishers, a_closed_instance_publisher_logs_and_refuses) {
    LogRecorder log(publisherLog);
    auto publisher = makePublisher<T>("M2Int32Value0");
    ST instance;
    auto instancePublisher = publisher->createInstancePublisher(instance);
    instancePublisher->close();
    instancePublisher->close(); // harmless
    EXPECT_THROW(instancePublisher->createDataEntity(), vesk::duvo::IllegalStateException);
    EXPECT_THROW(instancePublisher->publish(1.0, instance, 1000ms), vesk::duvo::IllegalStateException);
    const auto lines = log.containing("InstanceOpcUaPublisher closed");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "InstanceOpcUaPublisher closed");
    EXPECT_EQ(lines[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(instancePublisher->getDuvo(), duvo);
}

TEST_F(InstancePublishers, close_never_reaches_a_destroyed_instance_publisher) {
    // Instance publishers come and go on several threads while the publisher closes.
    auto publisher = makePublisher<T>("M2Int32Value0");
    ST instance;
    instance.setValue0(12);
    std::vector<std::unique_ptr<vesk::duvo::ps::InstancePublisher<T>>> kept;
    for (int i = 0; i < 8; ++i) kept.push_back(publisher->createInstancePublisher(instance));
    std::vector<std::thread> threads;
    std::atomic<bool> stop{false};
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            while (!stop.load()) {
                auto transient = publisher->createInstancePublisher(instance);
                try {
                    transient->publish(instance, 0ms);
                } catch (const vesk::duvo::IllegalStateException&) {
                    // closed by the publisher meanwhile
                }
            }
        });
    std::this_thread::sleep_for(100ms);
    publisher->close();
    stop = true;
    for (auto& thread : threads) thread.join();
    for (auto& p : kept) EXPECT_THROW(p->publish(instance, 1000ms), vesk::duvo::IllegalStateException);

    // The delegator may go first: its instance publishers still hold the publisher.
    auto second = makePublisher<T>("M2Int32Value0");
    auto orphan = second->createInstancePublisher(instance);
    second.reset();
    EXPECT_NO_THROW(orphan->publish(instance, 2000ms));
    orphan.reset();
}

/// A call response built by hand.
vesk::duvo::opcua::detail::rr::CallResponse callResponse(std::size_t results, UA_StatusCode status,
                                                         const UA_Variant* output) {
    vesk::duvo::opcua::detail::rr::CallResponse response;
    if (results > 0) {
        response->results = static_cast<UA_CallMethodResult*>(
            UA_Array_new(results, &UA_TYPES[UA_TYPES_CALLMETHODRESULT]));
        response->resultsSize = results;
        response->results[0].statusCode = status;
        if (output != nullptr) {
            response->results[0].outputArguments = UA_Variant_new();
            UA_Variant_copy(output, response->results[0].outputArguments);
            response->results[0].outputArgumentsSize = 1;
        }
    }
    return response;
}

/// What unpackCallResult makes of the response: the result, or the text of what it throws.
std::string unpacked(vesk::duvo::opcua::detail::rr::CallResponse response,
                     const std::function<bool(const UA_Variant&)>& convert) {
    auto future = boost::make_ready_future(std::move(response));
    try {
        return vesk::duvo::opcua::detail::rr::unpackCallResult<bool>(future, convert) ? "true" : "false";
    } catch (const std::exception& e) {
        return e.what();
    }
}

TEST(CallResults, are_unpacked_with_exact_texts) {
    const auto convert = vesk::duvo::opcua::detail::rr::booleanResult("PsRpcSetpower::RPC_SetPower (return value)");
    UA_Boolean yes = true;
    UA_Variant boolean;
    UA_Variant_setScalar(&boolean, &yes, &UA_TYPES[UA_TYPES_BOOLEAN]);
    UA_Int32 number = 1;
    UA_Variant int32;
    UA_Variant_setScalar(&int32, &number, &UA_TYPES[UA_TYPES_INT32]);

    EXPECT_EQ(unpacked(callResponse(1, UA_STATUSCODE_GOOD, &boolean), convert), "true");
    EXPECT_EQ(unpacked(callResponse(2, UA_STATUSCODE_GOOD, &boolean), convert), "unexpected resultsSize in RPC call: 2");
    EXPECT_EQ(unpacked(callResponse(0, UA_STATUSCODE_GOOD, nullptr), convert), "unexpected resultsSize in RPC call: 0");
    EXPECT_EQ(unpacked(callResponse(1, UA_STATUSCODE_BADARGUMENTSMISSING, nullptr), convert),
              "RPC call failed: BadArgumentsMissing");
    EXPECT_EQ(unpacked(callResponse(1, UA_STATUSCODE_GOOD, nullptr), convert),
              "PsRpcSetpower::RPC_SetPower (return value): expected Boolean, received no value");
    EXPECT_EQ(unpacked(callResponse(1, UA_STATUSCODE_GOOD, &int32), convert),
              "PsRpcSetpower::RPC_SetPower (return value): expected Boolean, received Int32");

    auto good = boost::make_ready_future(callResponse(1, UA_STATUSCODE_GOOD, &boolean));
    EXPECT_THROW(vesk::duvo::opcua::detail::rr::unpackCallResult<bool>(good, std::function<bool(const UA_Variant&)>()),
                 std::bad_function_call);
    boost::future<vesk::duvo::opcua::detail::rr::CallResponse> none;
    EXPECT_THROW(vesk::duvo::opcua::detail::rr::unpackCallResult<bool>(none, convert), boost::future_uninitialized);
}

// ---------------------------------------------------------------------------------------------
// Secured sessions: each refusal says what to do, once, and its fix is picked up while the
// client retries. No password in any text, at any log level.

::testing::AssertionResult startsWith(const std::string& text, const std::string& prefix) {
    if (text.rfind(prefix, 0) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << text << "\" does not begin with \"" << prefix << "\"";
}

class SecureSessions : public ::testing::Test {
protected:
    using S = m2Types::M2StringValue0;
    using SST = generated::opcua::m2Types::M2StringValue0;
    using Publisher = OpcUaPublisher<S, SST>;
    using Options = vesk::duvo::sim::Options;

    void SetUp() override { internal().setLogLevel(log4cplus::TRACE_LOG_LEVEL); }
    void TearDown() override {
        internal().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
        for (const auto& line : log.lines()) EXPECT_EQ(line.message.find(pki.password), std::string::npos) << line.message;
    }

    struct Session {
        std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo> duvo;
        std::shared_ptr<Publisher> publisher;
    };
    static Session open(const std::string& endpoint, const Properties& properties) {
        Session session{std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>(properties), nullptr};
        session.publisher = std::make_shared<Publisher>(
            "opcua-ps://" + endpoint.substr(std::string("opc.tcp://").size()) + "#ns=1;s=M2StringValue0", PsQoS{},
            properties, session.duvo);
        session.publisher->setState(EntityState::Initialized);
        return session;
    }
    /// What publishing text ends with: "" when written, else the exception's text.
    std::string publish(Session& session, const std::string& text, std::chrono::milliseconds timeout = 1500ms) {
        auto sample = session.publisher->createDataEntity();
        sample->setValue0(text);
        try {
            session.publisher->publish(*sample, timeout);
            return "";
        } catch (const std::exception& e) {
            EXPECT_EQ(std::string(e.what()).find(pki.password), std::string::npos);
            return e.what();
        }
    }
    /// What a read through the session's client ends with: "" when answered, else the failure.
    std::string read(Session& session, const std::string& endpoint, std::chrono::milliseconds timeout = 1500ms) {
        const auto client = session.duvo->getClient(endpoint, session.duvo->properties());
        const auto ids = client->makeReadValueIds(
            {vesk::duvo::opcua::detail::UaNodeId(UA_NODEID_STRING(1, const_cast<char*>("M2StringValue0")))});
        try {
            client->readValuesAsync(ids, 1, std::chrono::steady_clock::now() + timeout).get();
            return "";
        } catch (const std::exception& e) {
            EXPECT_EQ(std::string(e.what()).find(pki.password), std::string::npos);
            return e.what();
        }
    }
    std::size_t errors(const std::string& text) const {
        const auto lines = log.containing(text);
        return std::count_if(lines.begin(), lines.end(),
                             [](const auto& l) { return l.level == log4cplus::ERROR_LOG_LEVEL; });
    }

    static log4cplus::Logger internal() { return log4cplus::Logger::getInstance("orsa.duvo.opcua.internal"); }

    const duvo::test::SecurePki& pki = duvo::test::securePki();
    LogRecorder log{"orsa.duvo.opcua.internal"};
};

TEST_F(SecureSessions, refusals_say_what_to_do_once_and_a_fix_is_picked_up_while_retrying) {
    namespace fs = std::filesystem;
    vesk::duvo::sim::Simulator server(pki.serverOptions(Options::Security::Secure));
    server.start();
    const std::string ep = server.endpoint();

    // An untrusted server certificate: put into rejected/, trusted once moved to trusted/.
    const std::string dir = pki.freshClientDir("untrusted");
    Session untrusted = open(ep, pki.clientProperties(dir));
    const std::string thumb = vesk::duvo::pki::thumbprint(server.certificate());
    const std::string rejected = dir + "/rejected/" + thumb + ".der";
    const std::string what = read(untrusted, ep);
    EXPECT_TRUE(startsWith(what, "not connected: the certificate of the server " + ep + " (SHA-1 " + thumb + ") is not trusted"));
    EXPECT_NE(what.find(rejected), std::string::npos) << what;
    EXPECT_TRUE(fs::exists(rejected));
    EXPECT_TRUE(startsWith(read(untrusted, ep, 600ms), "not connected: the certificate"));
    EXPECT_EQ(errors("is not trusted"), 1u);
    fs::rename(rejected, dir + "/trusted/" + thumb + ".der");
    EXPECT_EQ(publish(untrusted, "trusted", 3000ms), "");

    // A wrong password names the user; the corrected password file is read at the next attempt.
    const std::string passwordFile = dir + "/password";
    vesk::duvo::pki::writeFile(passwordFile, "wrong\n");
    Properties withWrong = pki.clientProperties();
    withWrong["opc.security.passwordFile"] = passwordFile;
    Session refused = open(ep, withWrong);
    EXPECT_TRUE(startsWith(read(refused, ep), "not connected: the server " + ep + " refused the user \"operator\""));
    EXPECT_TRUE(startsWith(read(refused, ep, 600ms), "not connected: the server " + ep + " refused the user"));
    EXPECT_EQ(errors("refused the user"), 1u);
    vesk::duvo::pki::writeFile(passwordFile, pki.password);
    EXPECT_EQ(publish(refused, "fixed", 3000ms), "");
    EXPECT_EQ(server.read("M2StringValue0").at<UA_String>().length, 5u);

    // Anonymous sessions are refused when the server knows users.
    Properties anonymous = pki.clientProperties();
    anonymous.erase("opc.security.user");
    anonymous.erase("opc.security.passwordFile");
    anonymous["opc.security.policy"] = "Aes128_Sha256_RsaOaep";
    Session nobody = open(ep, anonymous);
    EXPECT_TRUE(startsWith(read(nobody, ep), "not connected: the server " + ep + " refused an anonymous session"));

    // A server without the mode.
    vesk::duvo::sim::Simulator plain(pki.serverOptions(Options::Security::None));
    plain.start();
    Session lacking = open(plain.endpoint(), pki.clientProperties());
    const std::string noPolicy = read(lacking, plain.endpoint());
    EXPECT_TRUE(startsWith(noPolicy, "not connected: the server " + plain.endpoint() + " offers no endpoint with security mode"));

    // One endpoint, one client, one identity.
    Properties other = pki.clientProperties();
    other["opc.security.mode"] = "Sign";
    try {
        untrusted.duvo->getClient(ep, other);
        ADD_FAILURE();
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("\"opc.security.mode\""), std::string::npos) << e.what();
    }
}

TEST_F(SecureSessions, encrypted_traffic_hides_what_is_published) {
    vesk::duvo::sim::Simulator server(pki.serverOptions());
    server.start();
    vesk::duvo::sim::FaultProxy proxy(server.endpoint());
    Properties none = pki.clientProperties();
    none["opc.security.mode"] = "None";
    for (const Properties& properties : {none, pki.clientProperties()}) {
        const std::string text = "distinctive-" + properties.at("opc.security.mode");
        proxy.lookFor(text);
        Session session = open(proxy.endpoint(), properties);
        EXPECT_EQ(publish(session, text, 3000ms), "");
        EXPECT_EQ(proxy.found(), properties.at("opc.security.mode") == "None") << text;
    }
}

} // namespace
