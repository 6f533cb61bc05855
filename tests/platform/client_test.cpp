// The shared client against a real server: services, monitored items, deadlines, ownership.
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>
#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/opcua/time.hpp>

#include "support/waits.hpp"
#include "testServer.hpp"

namespace duvo::test {
namespace {

using Clock = std::chrono::steady_clock;
using vesk::duvo::opcua::detail::OpcUaClient;

inline UA_NodeId node(const char* name) { return UA_NODEID_STRING(1, const_cast<char*>(name)); }

/// A write of a Double node that borrows the value.
inline UA_WriteValue doubleWrite(const char* name, double& value) {
    UA_WriteValue write;
    UA_WriteValue_init(&write);
    write.nodeId = node(name);
    write.attributeId = UA_ATTRIBUTEID_VALUE;
    write.value.hasValue = true;
    UA_Variant_setScalar(&write.value.value, &value, &UA_TYPES[UA_TYPES_DOUBLE]);
    return write;
}

/// The value lives on this stack frame only: the client must have encoded it on return.
inline boost::future<OpcUaClient::WriteResponse> writeDouble(OpcUaClient& client, const char* name, double value,
                                                             Clock::duration timeout = 2s) {
    UA_WriteValue write = doubleWrite(name, value);
    return client.writeValuesAsync(&write, 1, Clock::now() + timeout);
}

inline boost::future<OpcUaClient::CallResponse> callSleep(OpcUaClient& client, UA_UInt32 ms, long replyTimeMs,
                                                          Clock::duration submit = 1s) {
    UA_CallMethodRequest call;
    UA_CallMethodRequest_init(&call);
    call.objectId = node("Methods");
    call.methodId = node("Methods.Sleep");
    UA_Variant argument;
    UA_Variant_setScalar(&argument, &ms, &UA_TYPES[UA_TYPES_UINT32]);
    call.inputArguments = &argument;
    call.inputArgumentsSize = 1;
    return client.callMethodsAsync(&call, 1, Clock::now() + submit, replyTimeMs);
}

/// A test server and a client connected to it.
class ClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(eventually([&] { return client->isConnected(); })) << "no session";
    }

    TestServer server;
    std::unique_ptr<OpcUaClient> client = std::make_unique<OpcUaClient>(server.endpoint());
};

namespace op = vesk::duvo::opcua::detail;

// The client's warnings are worth seeing next to a failing test.
const bool logging = [] {
    log4cplus::BasicConfigurator::doConfigure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    return true;
}();

double readDouble(OpcUaClient& client, const char* name, double* sourceTime = nullptr) {
    const auto ids = client.makeReadValueIds({op::UaNodeId(node(name))});
    auto response = client.readValuesAsync(ids, 1, Clock::now() + 2s).get();
    EXPECT_EQ(response->responseHeader.serviceResult, UA_STATUSCODE_GOOD);
    EXPECT_EQ(response->resultsSize, 1u);
    if (sourceTime) *sourceTime = op::maxDataTimestamp(*response);
    return *static_cast<double*>(response->results[0].value.data);
}

// ---- services

TEST_F(ClientTest, monitor_delivers_every_change_in_order_on_the_io_thread) {
    std::thread::id ioThread;
    boost::asio::post(client->ioContext(), [&] { ioThread = std::this_thread::get_id(); });
    std::mutex mutex;
    std::vector<double> seen;
    bool onIoThread = true;
    auto handle = client->monitor(node("Double"), 0, [&](UA_DataValue* value) {
        std::lock_guard<std::mutex> lock(mutex);
        onIoThread = onIoThread && std::this_thread::get_id() == ioThread;
        seen.push_back(*static_cast<double*>(value->value.data));
    });
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> l(mutex);
        return !seen.empty();
    }));                                                           // the initial value
    for (int i = 1; i <= 30; ++i) server.writeDouble("Double", i); // a burst between two publishes
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> l(mutex);
        return seen.back() == 30;
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(seen.size(), 31u);
    for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], double(i));
    EXPECT_TRUE(onIoThread);
}

TEST(Client, requests_made_before_the_session_wait_for_it_in_order) {
    TestServer server;
    server.stop();
    OpcUaClient client(server.endpoint());
    std::vector<boost::future<OpcUaClient::WriteResponse>> writes;
    for (int i = 1; i <= 20; ++i) writes.push_back(writeDouble(client, "Double", i, 10s)); // values gone on return
    std::this_thread::sleep_for(200ms);
    server.start();
    for (auto& w : writes) EXPECT_EQ(w.get()->results[0], UA_STATUSCODE_GOOD);
    EXPECT_EQ(readDouble(client, "Double"), 20.0);
}

// ---- deadlines

TEST(Deadline, unreachable_silent_or_paused_endpoints_fail_requests_at_their_deadline_saying_why) {
    TestServer paused;
    OpcUaClient connected(paused.endpoint());
    ASSERT_TRUE(eventually([&] { return connected.isConnected(); }));
    // Stops answering while connections stay open; new ones the kernel accepts and nobody reads.
    paused.pause();
    const std::string unreachable = "opc.tcp://127.0.0.1:" + std::to_string(freePort());
    OpcUaClient toUnreachable(unreachable), toSilent(paused.endpoint());
    for (const auto& [client, endpoint, reason] : {std::tuple{&connected, paused.endpoint(), "timeout"},
                                                   std::tuple{&toUnreachable, unreachable, "not connected"},
                                                   std::tuple{&toSilent, paused.endpoint(), "not connected"}}) {
        const auto start = Clock::now();
        auto write = writeDouble(*client, "Double", 1, 200ms);
        std::string text;
        bool timedOut = false;
        try {
            write.get();
        } catch (const vesk::duvo::TimeoutException& e) {
            text = e.what();
            timedOut = true;
        } catch (const std::exception& e) {
            text = e.what();
        }
        const auto elapsed = Clock::now() - start;
        EXPECT_TRUE(startsWith(text, reason)) << endpoint << ": " << text;
        EXPECT_GE(elapsed, 150ms) << endpoint;
        EXPECT_LE(elapsed, 1500ms) << endpoint;
        if (client == &connected) {
            EXPECT_TRUE(timedOut);
            continue;
        }
        EXPECT_NE(text.find(endpoint), std::string::npos) << text;
        auto immediate = writeDouble(*client, "Double", 1, 0ms);
        EXPECT_TRUE(startsWith(failure([&] { immediate.get(); }), "not connected"));
    }
    paused.resume();
}

TEST_F(ClientTest, callers_that_drive_the_loop_and_give_up_throw_or_are_interrupted_leave_it_driven) {
    // Nobody drives below while waiting: each future completes only if the loop still runs.
    const auto completes = [](auto& future) {
        return future.wait_for(boost::chrono::seconds(3)) == boost::future_status::ready;
    };
    // A caller that gives up before its reply.
    auto slow = callSleep(*client, 300, 0);
    EXPECT_EQ(op::awaitReply(*client, slow, boost::chrono::steady_clock::now() + boost::chrono::milliseconds(30)),
              boost::future_status::timeout);
    auto after = writeDouble(*client, "Double", 1);
    ASSERT_TRUE(completes(after));
    EXPECT_EQ(failure([&] { slow.get(); }), "");

    // Completions that throw, or meet the interruption of the thread they run on, in the
    // middle of a caller's turn: the others complete once, and the caller's wait ends.
    boost::thread caller([&] {
        for (int round = 0; round < 20; ++round) {
            std::vector<boost::future<OpcUaClient::WriteResponse>> writes;
            for (int i = 0; i < 6; ++i) {
                if (i % 2 == 0) {
                    writes.push_back(writeDouble(*client, "Double", i));
                    continue;
                }
                double value = i;
                UA_WriteValue write = doubleWrite("Double", value);
                client->writeValues(&write, 1, Clock::now() + 2s,
                                    [i](OpcUaClient::WriteResponse, const op::RequestFailure*) {
                                        if (i == 1) throw std::runtime_error("a completion failed");
                                        boost::this_thread::interruption_point();
                                    });
            }
            try {
                op::awaitReply(*client, writes.back(), boost::chrono::steady_clock::now() + boost::chrono::seconds(2));
            } catch (const boost::thread_interrupted&) {
                return; // the interruption reached this thread through a completion
            }
            for (auto& w : writes) EXPECT_TRUE(w.wait_for(boost::chrono::seconds(3)) == boost::future_status::ready);
        }
    });
    std::this_thread::sleep_for(20ms);
    caller.interrupt();
    ASSERT_TRUE(caller.try_join_for(boost::chrono::seconds(20)));
    for (int i = 0; i < 5; ++i) {
        auto write = writeDouble(*client, "Double", 100 + i);
        ASSERT_TRUE(completes(write));
        EXPECT_EQ(failure([&] { write.get(); }), "");
    }
}

TEST_F(ClientTest, pending_requests_fail_when_the_client_goes_or_the_connection_closes) {
    auto other = std::make_unique<OpcUaClient>(server.endpoint());
    ASSERT_TRUE(eventually([&] { return other->isConnected(); }));
    auto pending = callSleep(*other, 600, 0);
    std::this_thread::sleep_for(50ms);
    const auto start = Clock::now();
    other.reset();
    EXPECT_TRUE(startsWith(failure([&] { pending.get(); }), "client shut down"));
    EXPECT_LE(Clock::now() - start, 1500ms);

    server.pause(); // the write is never read by the server
    auto write = writeDouble(*client, "Double", 1, 10s);
    std::this_thread::sleep_for(50ms);
    server.stop();
    const std::string lost = failure([&] { write.get(); });
    EXPECT_TRUE(startsWith(lost, "connection lost")) << lost;
}

// ---- reconnection

TEST_F(ClientTest, a_silent_server_keeps_the_session_and_a_restarted_one_gets_its_items_again_once) {
    std::mutex mutex;
    std::vector<bool> events;
    std::vector<double> seen;
    bool restarted = false;
    Clock::time_point firstAfterRestart{};
    auto watch = client->addConnectionCallback([&](bool up) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(up);
    });
    auto handle = client->monitor(node("Double"), 0, [&](UA_DataValue* value) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(*static_cast<double*>(value->value.data));
        if (restarted && firstAfterRestart == Clock::time_point{}) firstAfterRestart = Clock::now();
    });
    const auto locked = [&](auto condition) {
        return [&mutex, condition] {
            std::lock_guard<std::mutex> lock(mutex);
            return condition();
        };
    };
    const auto eventCount = [&](std::size_t n) { return eventually(locked([&] { return events.size() == n; }), 8s); };
    const auto lastSeen = [&](double v) {
        return eventually(locked([&] { return !seen.empty() && seen.back() == v; }));
    };
    ASSERT_TRUE(eventually([&] { return server.itemsCreated("Double") == 1; }));

    // Silent: noticed in about three seconds; the same session and subscription resume.
    const auto start = Clock::now();
    server.pause();
    ASSERT_TRUE(eventCount(1));
    EXPECT_LE(Clock::now() - start, 4500ms);
    server.resume();
    ASSERT_TRUE(eventCount(2));
    server.writeDouble("Double", 5);
    ASSERT_TRUE(lastSeen(5));
    EXPECT_EQ(server.itemsCreated("Double"), 1); // the subscription survived on the server

    // Restarted: the item is made again, once, and notifications resume.
    server.stop();
    ASSERT_TRUE(eventCount(3));
    std::this_thread::sleep_for(300ms);
    {
        std::lock_guard<std::mutex> lock(mutex);
        restarted = true;
    }
    server.start();
    const auto back = Clock::now();
    ASSERT_TRUE(eventually(locked([&] { return firstAfterRestart != Clock::time_point{}; })));
    server.writeDouble("Double", 2);
    ASSERT_TRUE(lastSeen(2));
    std::this_thread::sleep_for(300ms);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(events, (std::vector<bool>{false, true, false, true}));
    EXPECT_EQ(server.itemsCreated("Double"), 2); // once per server life
    std::cout << "[ measured ] server back -> first notification: "
              << std::chrono::duration_cast<std::chrono::milliseconds>(firstAfterRestart - back).count() << " ms\n";
}

// ---- registrations and ownership

TEST_F(ClientTest, a_destroyed_monitor_handle_stops_callbacks_and_deletes_the_item_and_what_its_callback_held) {
    std::atomic<bool> destroyed{false}, lateCall{false};
    std::atomic<int> calls{0};
    auto handle = client->monitor(node("Double"), 0, [&](UA_DataValue*) {
        if (destroyed) lateCall = true;
        ++calls;
        std::this_thread::sleep_for(1ms);
    });
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        for (int i = 0; writing; ++i) {
            server.writeDouble("Double", i);
            std::this_thread::sleep_for(200us);
        }
    });
    ASSERT_TRUE(eventually([&] { return calls > 20; }));
    std::thread([&] {
        handle = OpcUaClient::MonitorHandle();
        destroyed = true;
    }).join();
    std::this_thread::sleep_for(100ms);
    writing = false;
    writer.join();
    EXPECT_FALSE(lateCall);
    EXPECT_TRUE(eventually([&] { return server.itemsDeleted("Double") == 1; }));

    // A callback that holds the last reference to another handle: ending the first ends the
    // second when the client lets go of the callback, which must be outside its locks.
    auto inner = std::make_shared<OpcUaClient::MonitorHandle>(client->monitor(node("Double"), 0, [](UA_DataValue*) {}));
    auto outer = client->monitor(node("Double"), 0, [inner](UA_DataValue*) {});
    inner.reset();
    ASSERT_TRUE(eventually([&] { return server.itemsCreated("Double") == 3; }));
    outer = OpcUaClient::MonitorHandle();
    EXPECT_TRUE(eventually([&] { return server.itemsDeleted("Double") == 3; }));
}

TEST(Client, may_be_destroyed_on_its_own_threads_and_its_handles_may_outlive_it) {
    TestServer server;
    {
        // The last owner lets go inside a notification (I/O-context thread).
        auto client = std::make_shared<OpcUaClient>(server.endpoint());
        std::atomic<bool> released{false};
        auto handle = client->monitor(node("Double"), 0, [&](UA_DataValue*) {
            if (!released.exchange(true)) client.reset();
        });
        ASSERT_TRUE(eventually([&] { return released.load(); }));
    }
    {
        // ... and inside a continuation (network thread).
        auto client = std::make_shared<OpcUaClient>(server.endpoint());
        ASSERT_TRUE(eventually([&] { return client->isConnected(); }));
        auto done = callSleep(*client, 100, 0).then(boost::launch::sync, [owner = client](auto reply) mutable {
            reply.get();
            owner.reset();
            return true;
        });
        client.reset();
        EXPECT_TRUE(done.get());
    }
    {
        // Handles may outlive their client.
        auto client = std::make_unique<OpcUaClient>(server.endpoint());
        auto connection = client->addConnectionCallback([](bool) {});
        auto item = client->monitor(node("Double"), 100, [](UA_DataValue*) {});
        client.reset();
        connection = OpcUaClient::ConnectionHandle();
        item = OpcUaClient::MonitorHandle();
    }
    std::this_thread::sleep_for(100ms); // the detached threads end
}

TEST(Duvo, one_client_per_endpoint_while_anyone_holds_it) {
    TestServer server;
    auto duvo = std::make_shared<op::OpcUaDuvo>(op::OpcUaDuvo::Properties{{"k", "v"}});
    std::vector<std::shared_ptr<OpcUaClient>> clients(8);
    std::vector<std::thread> threads;
    for (auto& c : clients) threads.emplace_back([&] { c = duvo->getClient(server.endpoint(), {}); });
    for (auto& t : threads) t.join();
    for (const auto& c : clients) EXPECT_EQ(c, clients.front());
    const auto other = duvo->getClient("opc.tcp://127.0.0.1:" + std::to_string(freePort()), {});
    EXPECT_NE(other, clients.front());
    std::weak_ptr<OpcUaClient> first = clients.front();
    clients.clear();
    EXPECT_TRUE(first.expired());
    EXPECT_TRUE(duvo->getClient(server.endpoint(), {}));
}

} // namespace
} // namespace duvo::test
