// Times, properties, value wrappers and callback registrations.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

#include <vesk/duvo/opcua/notificationQueue.hpp>
#include <vesk/duvo/opcua/properties.hpp>
#include <vesk/duvo/opcua/time.hpp>
#include <vesk/duvo/opcua/uaCpp.hpp>

#include "support/waits.hpp"

namespace {

namespace op = vesk::duvo::opcua::detail;
using namespace std::chrono_literals;

// How a publisher stamps a sample time.
std::pair<UA_DateTime, UA_UInt16> stamp(double t) {
    const auto ticks = static_cast<long long>(std::floor(t * 10000000.0));
    return {ticks + 116444736000000000LL, static_cast<UA_UInt16>((t * 10000000.0 - ticks) / 0.00001)};
}

TEST(Time, unixTimestamp_inverts_the_stamping) {
    EXPECT_EQ(stamp(1.5), std::make_pair(UA_DateTime{116444736000000000LL + 15000000}, UA_UInt16{0}));
    EXPECT_EQ(op::unixTimestamp(116444736000000000LL + 15000000, 0), 1.5);
    EXPECT_EQ(op::unixTimestamp(116444736000000000LL, 0), 0.0);
    EXPECT_DOUBLE_EQ(op::unixTimestamp(116444736000000000LL + 15000000, 50000), 1.5 + 50000e-12);
    // Exact up to the picosecond that the stamping truncates.
    for (const double t : {1.5, 0.25, 1.00000001234, 1234.5678901, 1.7e9 + 0.123456}) {
        const auto [ts, ps] = stamp(t);
        EXPECT_NEAR(op::unixTimestamp(ts, ps), t, std::max(1e-12, t * 1e-15)) << t;
    }
}

TEST(Time, maxDataTimestamp_takes_the_newest_source_time_only) {
    op::UaUnique<UA_ReadResponse> response;
    EXPECT_EQ(op::maxDataTimestamp(*response), 0.0);
    response->results = static_cast<UA_DataValue*>(UA_Array_new(3, &UA_TYPES[UA_TYPES_DATAVALUE]));
    response->resultsSize = 3;
    const auto [t2, p2] = stamp(2.0);
    response->results[0].hasSourceTimestamp = true;
    response->results[0].sourceTimestamp = t2;
    response->results[1].hasServerTimestamp = true; // much newer, but only the server's
    response->results[1].serverTimestamp = t2 + 100000000;
    response->results[2].hasSourceTimestamp = response->results[2].hasSourcePicoseconds = true;
    response->results[2].sourceTimestamp = t2;
    response->results[2].sourcePicoseconds = 30000;
    EXPECT_DOUBLE_EQ(op::maxDataTimestamp(*response), 2.0 + 30000e-12);
    response->results[0].hasSourceTimestamp = response->results[2].hasSourceTimestamp = false;
    EXPECT_EQ(op::maxDataTimestamp(*response), 0.0);
}

TEST(Properties, absent_gives_default_present_converts_and_a_bad_value_is_named) {
    std::map<std::string, std::string> props = {{"i", "250"}, {"neg", "-3"}, {"t", "TRUE"}, {"f", "false"},
                                                {"one", "1"}, {"zero", "0"}, {"d", "0.5"}};
    EXPECT_EQ(op::getDuvoProperty<int>(props, "missing", 1000), 1000);
    EXPECT_EQ(op::getDuvoProperty<int>(props, "i", 0), 250);
    EXPECT_EQ(op::getDuvoProperty<long>(props, "neg", 0), -3);
    EXPECT_DOUBLE_EQ(op::getDuvoProperty<double>(props, "d", 0), 0.5);
    EXPECT_TRUE(op::getDuvoProperty<bool>(props, "t", false));
    EXPECT_FALSE(op::getDuvoProperty<bool>(props, "f", true));
    EXPECT_TRUE(op::getDuvoProperty<bool>(props, "one", false));
    EXPECT_FALSE(op::getDuvoProperty<bool>(props, "zero", true));
    EXPECT_EQ(op::getDuvoProperty<std::string>(props, "i", ""), "250");

    // Values that do not convert name the key and the value.
    props = {{"opc.ps.pollingPeriodMs", "abc"}, {"b", "yes"}, {"n", " 5"}, {"big", "99999999999"}};
    const auto message = [](auto read) { return duvo::test::failure<std::runtime_error>(read); };
    EXPECT_EQ(message([&] { op::getDuvoProperty<int>(props, "opc.ps.pollingPeriodMs", 1000); }),
              "invalid value for DUVO property \"opc.ps.pollingPeriodMs\": \"abc\"");
    EXPECT_EQ(message([&] { op::getDuvoProperty<bool>(props, "b", false); }),
              "invalid value for DUVO property \"b\": \"yes\"");
    EXPECT_EQ(message([&] { op::getDuvoProperty<int>(props, "n", 0); }),
              "invalid value for DUVO property \"n\": \" 5\"");
    EXPECT_EQ(message([&] { op::getDuvoProperty<int>(props, "big", 0); }),
              "invalid value for DUVO property \"big\": \"99999999999\"");
}

TEST(UaCpp, unique_copies_deeply_shared_copies_share_take_moves) {
    UA_String text = UA_STRING_ALLOC("hello");
    auto taken = op::UaUnique<UA_String>::take(text);
    EXPECT_EQ(text.data, nullptr); // left zeroed
    ASSERT_EQ(taken->length, 5u);

    auto deep = taken;
    EXPECT_NE(deep->data, taken->data);
    EXPECT_TRUE(UA_String_equal(deep.get(), taken.get()));
    deep.clear();
    EXPECT_EQ(deep->length, 0u);
    EXPECT_EQ(taken->length, 5u);

    auto id = op::UaNodeId(UA_NODEID_NUMERIC(1, 42));
    auto alias = id;
    EXPECT_EQ(alias.get(), id.get());
    auto clone = id.clone();
    EXPECT_NE(clone.get(), id.get());
    EXPECT_TRUE(UA_NodeId_equal(clone.get(), id.get()));

    auto moved = std::move(taken);
    EXPECT_FALSE(taken);
    EXPECT_EQ(moved->length, 5u);
}

using Queue = op::NotificationQueue<std::function<void(int)>>;

void callAll(Queue& queue, int value) {
    for (const auto& e : queue.entries()) Queue::invoke(*e, [value](auto& cb) { cb(value); });
}

TEST(NotificationQueue, destroyed_handles_are_not_called_and_empty_handles_do_nothing) {
    int removals = 0;
    Queue queue([&] { ++removals; });
    int a = 0, b = 0;
    auto ha = queue.add([&](int v) { a += v; });
    auto hb = queue.add([&](int v) { b += v; });
    callAll(queue, 1);
    Queue::Handle moved = std::move(ha);
    EXPECT_TRUE(ha.empty());
    { Queue::Handle drop = std::move(ha); } // empty: no unregistration
    EXPECT_EQ(removals, 0);
    moved = Queue::Handle();
    EXPECT_EQ(removals, 1);
    callAll(queue, 10);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 11);
    EXPECT_EQ(queue.entries().size(), 1u);
}

TEST(NotificationQueue, destructor_waits_for_a_running_callback) {
    Queue queue;
    std::atomic<bool> inside{false}, finished{false};
    auto handle = queue.add([&](int) {
        inside = true;
        std::this_thread::sleep_for(200ms);
        finished = true;
    });
    std::thread caller([&] { callAll(queue, 0); });
    while (!inside) std::this_thread::yield();
    handle = Queue::Handle();
    EXPECT_TRUE(finished); // not still running once the destructor returned
    caller.join();
    finished = false;
    callAll(queue, 0);
    EXPECT_FALSE(finished);
}

} // namespace
