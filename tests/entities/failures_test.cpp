// What monitors, pollers and secured sessions report when something goes wrong: the exact
// texts, the log lines, and what reaches the application's queue.
#include <algorithm>
#include <filesystem>
#include <mutex>

#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/opcua/time.hpp>

#include "support/servers.hpp"

namespace duvo::test {
namespace {

using ST = generated::opcua::m2Types::M2Int32Value0;
using Events = std::vector<std::shared_ptr<DataEvent<T>>>;
namespace ps = vesk::duvo::opcua::detail::ps;

/// The first event without data.
std::shared_ptr<DataEvent<T>> firstEmptyEvent(vesk::duvo::ps::Subscriber<T>& subscriber) {
    std::shared_ptr<DataEvent<T>> found;
    eventually([&] {
        Events events;
        subscriber.readDataEvents(DataEventFilter<T>(), events, 1, 50ms);
        for (const auto& event : events)
            if (!event->hasValidData()) found = event;
        return found != nullptr;
    });
    return found;
}

class MonitorFailures : public OnSimulator {};

TEST_F(MonitorFailures, a_value_of_the_wrong_type_gives_one_error_and_an_empty_alive_sample) {
    // A Double array arrives at an Int32 subscriber; its source time is known.
    server->writeValue<m2Types::M2DoubleVector6>(makeValue<m2Types::M2DoubleVector6>(1));
    const auto written = simulator->sourceTime("M2DoubleVector6");
    ASSERT_TRUE(written.present);

    LogRecorder log(subscriberLog);
    const std::string expected =
        "Can't set sample value from OpcUa value: ::m2Types::M2Int32Value0.value0: expected Int32, received Double";
    const auto monitoring = middleware(monitoredProps);
    auto queued = monitoring->createSubscriber<T>(psUri("M2DoubleVector6"));
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
    auto mostRecent = monitoring->createMrvSubscriber<T>(psUri("M2DoubleVector6"));
    ASSERT_TRUE(log.waitFor(expected, 2));
    EXPECT_TRUE(mostRecent->readMostRecent(0ms).empty());
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(MonitorFailures, a_value_without_source_time_is_timed_as_a_poll_would_time_it) {
    // A server that stamps only its own time: the data's age is unknown, monitored or polled,
    // so that Deadline and Latency judge both alike.
    vesk::duvo::ps::queue::QueuedSubscriber<T, ST> store;
    ps::OpcUaDataMonitor<T, ST> monitor(ps::QueuedSink<T, ST>{&store}, duvo->getClient(simulator->endpoint(), {}), {},
                                        0.0, nullptr);
    UA_Int32 number = 7;
    UA_DataValue value;
    UA_DataValue_init(&value);
    UA_Variant_setScalarCopy(&value.value, &number, &UA_TYPES[UA_TYPES_INT32]);
    value.hasValue = value.hasServerTimestamp = true;
    value.serverTimestamp = UA_DateTime_now();
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
    const auto connected = [&](bool up) { return eventually([&] { return client->isConnected() == up; }); };
    // With a session up, the server's verdict comes before the constructor returns.
    ASSERT_TRUE(connected(true));
    EXPECT_EQ(failure<std::runtime_error>([&] { duvo->createSubscriber<T>(uri); }), refusal);
    EXPECT_EQ(failure<std::runtime_error>([&] { duvo->createMrvSubscriber<T>(uri); }), refusal);
    EXPECT_TRUE(log.containing(refusal).empty()); // the exception says it

    // Made without a session, the refusal comes with the next one, as after a server restart:
    // one ERROR each. The queue hears it as a lost source, which it reports as not alive only
    // after the source was alive; this one never was, so nothing reaches the application.
    simulator->stop();
    ASSERT_TRUE(connected(false));
    auto queued = duvo->createSubscriber<T>(uri);
    auto mostRecent = duvo->createMrvSubscriber<T>(uri);
    simulator->start();
    ASSERT_TRUE(log.waitFor(refusal, 2, kWait));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(log.containing(refusal).size(), 2u);
    for (const auto& line : log.containing(refusal)) EXPECT_EQ(line.level, log4cplus::ERROR_LOG_LEVEL);
    for (const auto& line : internal.containing("NoSuchNode")) EXPECT_NE(line.level, log4cplus::ERROR_LOG_LEVEL);
    Events events;
    queued->readDataEvents(DataEventFilter<T>(), events, 100, 0ms);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(mostRecent->readMostRecent(0ms).empty());
}

class PollerFailures : public OnSimulator {};

TEST_F(PollerFailures, an_unknown_node_is_logged_and_reported_as_gone_and_the_last_value_stays) {
    LogRecorder log(subscriberLog);
    const std::string uri = psUri("NoSuchNode");
    const auto polling = middleware(polledProps(50));
    auto queued = polling->createSubscriber<T>(uri);
    const std::string failed = "failed to read node ns=1;s=NoSuchNode: BadNodeIdUnknown";
    const std::string queuedLine = "Msg:OpcUaSubscriber for nodes ns=1;s=NoSuchNode: " + failed;
    ASSERT_TRUE(log.waitFor(queuedLine));
    EXPECT_EQ(log.containing(queuedLine)[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_TRUE(queued->read(0).empty());
    queued->close();
    auto mostRecent = polling->createMrvSubscriber<T>(uri);
    const std::string mrvLine = "Msg:OpcUaMrvDataPoller for nodes ns=1;s=NoSuchNode: " + failed;
    ASSERT_TRUE(log.waitFor(mrvLine));
    EXPECT_EQ(log.containing(mrvLine)[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_TRUE(mostRecent->readMostRecent(0ms).empty());
    mostRecent->close();
    const std::size_t mrvLines = log.containing(mrvLine).size();

    // Stores that have seen data: the queue learns that its source is gone, the most recent
    // value stays.
    const auto client = duvo->getClient(simulator->endpoint(), {});
    const auto nodeIds = vesk::duvo::opcua::detail::getNodeIds(uri);
    vesk::duvo::ps::queue::QueuedSubscriber<T, ST> store;
    vesk::duvo::ps::queue::MapMrvSubscriber<T, ST> mrvStore;
    auto seen = std::make_unique<ST>(), last = std::make_unique<ST>();
    seen->setValue0(8);
    last->setValue0(8);
    store.newData(std::move(seen), 1000.0, 1);
    mrvStore.newData(std::move(last));
    {
        ps::OpcUaDataPoller<T, ST> poller(ps::QueuedSink<T, ST>{&store}, client, nodeIds, 50);
        ps::OpcUaMrvDataPoller<T, ST> mrvPoller(ps::MrvSink<T, ST>{&mrvStore}, client, nodeIds, 20);
        auto event = firstEmptyEvent(store);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->getInstanceState(), InstanceState::NotAlive);
        EXPECT_EQ(event->getSourceTimestamp(), 0.0);
        ASSERT_TRUE(log.waitFor(mrvLine, mrvLines + 3));
    }
    const auto samples = mrvStore.readMostRecent(0ms);
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0]->getValue0(), 8);
}

TEST_F(PollerFailures, a_silent_server_times_the_read_out_at_its_period_and_close_does_not_wait_for_it) {
    vesk::duvo::sim::FaultProxy proxy(simulator->endpoint());
    LogRecorder log(subscriberLog);
    const std::string uri = psUri("M2Int32Value0", proxy.endpoint());
    const auto polling = middleware(polledProps(300));
    auto queued = polling->createSubscriber<T>(uri);
    auto mostRecent = polling->createMrvSubscriber<T>(uri);
    server->writeValue<T>(61);
    ASSERT_TRUE(receives<T>(*queued, 61));
    ASSERT_TRUE(mostRecentIs<T>(*mostRecent, 61));

    proxy.blackhole();
    const auto cut = std::chrono::steady_clock::now();
    const std::string timedOut = "Msg:OpcUaSubscriber for nodes ns=1;s=M2Int32Value0: read timed out";
    ASSERT_TRUE(log.waitFor(timedOut));
    EXPECT_EQ(log.containing(timedOut)[0].level, log4cplus::WARN_LOG_LEVEL);
    auto event = firstEmptyEvent(*queued);
    ASSERT_NE(event, nullptr);
    // At worst a poll starts just before the cut and times out a period later.
    EXPECT_LE(std::chrono::steady_clock::now() - cut, 2 * 300ms + 500ms);
    EXPECT_EQ(event->getInstanceState(), InstanceState::NotAlive);
    EXPECT_EQ(event->getSourceTimestamp(), 0.0);

    // Meanwhile the most-recent-value poller times out too: silently, keeping its value.
    std::this_thread::sleep_for(800ms);
    EXPECT_TRUE(log.containing("OpcUaMrvDataPoller").empty());
    const auto samples = mostRecent->readMostRecent(0ms);
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0]->getValue0(), 61);

    // A read is waiting now: close ends it rather than waiting it out.
    const auto closing = std::chrono::steady_clock::now();
    queued->close();
    EXPECT_LE(std::chrono::steady_clock::now() - closing, 300ms + 500ms);
    mostRecent.reset(); // with reads unanswered
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
    const auto record = std::make_shared<OutcomeSink::Record>();
    const auto sampled = [&] {
        const auto outcomes = record->get();
        return std::find(outcomes.begin(), outcomes.end(), "sample") != outcomes.end();
    };
    {
        ps::BasicDataPoller<ST, OutcomeSink> poller(OutcomeSink{record}, duvo->getClient(proxy.endpoint(), {}),
                                                    vesk::duvo::opcua::detail::getNodeIds(psUri("M2Int32Value0")), 30);
        // Reads time out until the session is up; then the value arrives once.
        ASSERT_TRUE(eventually(sampled));
        proxy.blackhole();
        const std::size_t before = record->get().size();
        // Before the client gives the silent connection up.
        eventually([&] { return record->get().size() >= before + 16; }, 15s);
    }
    proxy.passThrough();
    const auto outcomes = record->get();
    const auto first = std::find(outcomes.begin(), outcomes.end(), "sample") + 1;
    ASSERT_GE(outcomes.end() - first, 16);
    EXPECT_EQ(std::vector<std::string>(first, first + 16), std::vector<std::string>(16, "timed out"));
}

// Secured sessions: each refusal says what to do, once, and its fix is picked up while the
// client retries. No password in any text, at any log level.

class SecureSessions : public ::testing::Test {
protected:
    using S = m2Types::M2StringValue0;
    using Options = vesk::duvo::sim::Options;

    void SetUp() override { internal().setLogLevel(log4cplus::TRACE_LOG_LEVEL); }
    void TearDown() override {
        internal().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
        for (const auto& line : log.lines())
            EXPECT_EQ(line.message.find(pki.password), std::string::npos) << line.message;
    }

    struct Session {
        std::shared_ptr<OpcUaDuvo> duvo;
        std::shared_ptr<vesk::duvo::ps::Publisher<S>> publisher;
    };
    static Session open(const std::string& endpoint, const Properties& properties) {
        Session session{std::make_shared<OpcUaDuvo>(properties), nullptr};
        session.publisher =
            session.duvo->createPublisher<S>("opcua-ps://" + endpoint.substr(10) + "#ns=1;s=M2StringValue0");
        return session;
    }
    /// What publishing text ends with: "" when written, else the exception's text.
    std::string publish(Session& session, const std::string& text, std::chrono::milliseconds timeout = 1500ms) {
        auto sample = session.publisher->createDataEntity();
        sample->setValue0(text);
        return withoutPassword(failure([&] { session.publisher->publish(*sample, timeout); }));
    }
    /// What a read through the session's client ends with: "" when answered, else the failure.
    std::string read(Session& session, const std::string& endpoint, std::chrono::milliseconds timeout = 1500ms) {
        const auto client = session.duvo->getClient(endpoint, session.duvo->properties());
        const auto ids = client->makeReadValueIds(
            {vesk::duvo::opcua::detail::UaNodeId(UA_NODEID_STRING(1, const_cast<char*>("M2StringValue0")))});
        return withoutPassword(
            failure([&] { client->readValuesAsync(ids, 1, std::chrono::steady_clock::now() + timeout).get(); }));
    }
    std::string withoutPassword(const std::string& text) const {
        EXPECT_EQ(text.find(pki.password), std::string::npos);
        return text;
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
    EXPECT_TRUE(startsWith(what, "not connected: the certificate of the server " + ep + " (SHA-1 " + thumb +
                                     ") is not trusted"));
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
    EXPECT_TRUE(startsWith(noPolicy,
                           "not connected: the server " + plain.endpoint() + " offers no endpoint with security mode"));

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
} // namespace duvo::test
