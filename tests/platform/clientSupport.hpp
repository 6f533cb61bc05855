#pragma once
// Helpers of the client tests: a connected client on a test server, waits, requests.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <vesk/duvo/opcua/client.hpp>

#include "testServer.hpp"

namespace duvo::test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using vesk::duvo::opcua::detail::OpcUaClient;

inline bool eventually(const std::function<bool()>& condition, Clock::duration timeout = 5s) {
    const auto until = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

inline UA_NodeId node(const char* name) { return UA_NODEID_STRING(1, const_cast<char*>(name)); }

/// The value lives on this stack frame only: the client must have encoded it on return.
inline boost::future<OpcUaClient::WriteResponse> writeDouble(OpcUaClient& client, const char* name, double value,
                                                             Clock::duration timeout = 2s) {
    UA_WriteValue write;
    UA_WriteValue_init(&write);
    write.nodeId = node(name);
    write.attributeId = UA_ATTRIBUTEID_VALUE;
    write.value.hasValue = true;
    UA_Variant_setScalar(&write.value.value, &value, &UA_TYPES[UA_TYPES_DOUBLE]);
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

/// The exception text of a failed future, "" when it succeeded.
template <class T>
std::string failureOf(boost::future<T>& future) {
    try {
        future.get();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

inline bool startsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

/// A test server and a client connected to it.
class ClientTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(eventually([&] { return client->isConnected(); })) << "no session"; }

    TestServer server;
    std::unique_ptr<OpcUaClient> client = std::make_unique<OpcUaClient>(server.endpoint());
};

} // namespace duvo::test
