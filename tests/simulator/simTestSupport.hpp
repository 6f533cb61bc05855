#pragma once
// A real open62541 client and value helpers for the simulator's tests.
#include <chrono>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/plugin/log_stdout.h>

#include <duvo/opcua/detail/binding/uaType.hpp>
#include <vesk/duvo/shared_vector.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>
#include <vesk/duvo/sim/simulator.hpp>

namespace duvo::simtest {

using vesk::duvo::sim::OwnedVariant;
// The plug-in's mapping, not the simulator's own: the simulator's nodes are checked against it.
using vesk::duvo::opcua::detail::binding::UaTypeOf;

inline vesk::duvo::sim::Options quietOptions() {
    vesk::duvo::sim::Options options;
    options.logLevel = UA_LOGLEVEL_ERROR;
    return options;
}

/// One simulator for the tests that only touch their own nodes, started on first use.
inline vesk::duvo::sim::Simulator& sharedSimulator() {
    static vesk::duvo::sim::Simulator simulator(quietOptions());
    static std::once_flag started;
    std::call_once(started, [] { simulator.start(); });
    return simulator;
}

inline UA_NodeId nodeId(const std::string& name) {
    return UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(name.c_str()));
}

template <class E>
OwnedVariant scalar(const E& value) {
    UA_Variant v;
    UA_Variant_init(&v);
    if constexpr (std::is_same_v<E, std::string>) {
        UA_String s = vesk::duvo::opcua::detail::binding::borrowString(value);
        UA_Variant_setScalarCopy(&v, &s, UaTypeOf<E>::type());
    } else {
        UA_Variant_setScalarCopy(&v, &value, UaTypeOf<E>::type());
    }
    return OwnedVariant::adopt(v);
}

template <class E>
OwnedVariant array(const E* data, std::size_t n) {
    UA_Variant v;
    UA_Variant_init(&v);
    UA_Variant_setArrayCopy(&v, data, n, UaTypeOf<E>::type());
    return OwnedVariant::adopt(v);
}

inline OwnedVariant array(const std::vector<std::string>& values) {
    std::vector<UA_String> borrowed;
    for (const auto& s : values) borrowed.push_back(vesk::duvo::opcua::detail::binding::borrowString(s));
    UA_Variant v;
    UA_Variant_init(&v);
    UA_Variant_setArrayCopy(&v, borrowed.data(), borrowed.size(), &UA_TYPES[UA_TYPES_STRING]);
    return OwnedVariant::adopt(v);
}

/// The variant that carries a field value or a method argument of the module.
template <class V>
OwnedVariant variantOf(const V& value) {
    if constexpr (std::is_same_v<V, std::vector<std::string>>)
        return array(value);
    else if constexpr (std::is_arithmetic_v<V> || std::is_same_v<V, std::string>)
        return scalar(value);
    else
        return array(value.data(), value.size());
}

inline bool sameValue(const UA_Variant& a, const UA_Variant& b) {
    return UA_equal(&a, &b, &UA_TYPES[UA_TYPES_VARIANT]);
}

struct CallResult {
    UA_StatusCode status = UA_STATUSCODE_GOOD;
    std::vector<OwnedVariant> outputs;
};

/// A synchronous client with quiet logging; disconnects when destroyed.
class Client {
public:
    explicit Client(UA_UInt32 timeoutMs = 5000) {
        UA_ClientConfig config;
        std::memset(&config, 0, sizeof config);
        config.logging = UA_Log_Stdout_new(UA_LOGLEVEL_FATAL);
        UA_ClientConfig_setDefault(&config);
        config.timeout = timeoutMs;
        client_ = UA_Client_newWithConfig(&config);
    }
    ~Client() {
        // Disconnecting waits for a timer or 100 ms per round of the event loop; a close
        // timer keeps test processes short.
        UA_Client_addRepeatedCallback(
            client_, [](UA_Client*, void*) {}, nullptr, 1.0, nullptr);
        UA_Client_disconnect(client_);
        UA_Client_delete(client_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    UA_StatusCode connect(const std::string& endpoint) { return UA_Client_connect(client_, endpoint.c_str()); }
    UA_Client* get() const { return client_; }

    UA_StatusCode read(const std::string& name, OwnedVariant& out) const {
        UA_Variant v;
        UA_Variant_init(&v);
        const UA_StatusCode status = UA_Client_readValueAttribute(client_, nodeId(name), &v);
        out = OwnedVariant::adopt(v);
        return status;
    }

    UA_StatusCode write(const std::string& name, const OwnedVariant& value) const {
        return UA_Client_writeValueAttribute(client_, nodeId(name), value.get());
    }

    CallResult call(const std::string& iface, const std::string& method, const std::vector<OwnedVariant>& args) const {
        std::vector<UA_Variant> inputs;
        for (const auto& a : args) inputs.push_back(*a); // shallow: the call only reads them
        std::size_t outputSize = 0;
        UA_Variant* outputs = nullptr;
        CallResult result;
        result.status = UA_Client_call(client_, nodeId(iface), nodeId(iface + "." + method), inputs.size(),
                                       inputs.data(), &outputSize, &outputs);
        for (std::size_t i = 0; i < outputSize; ++i) result.outputs.push_back(OwnedVariant::adopt(outputs[i]));
        UA_Array_delete(outputs, outputSize, &UA_TYPES[UA_TYPES_VARIANT]);
        return result;
    }

private:
    UA_Client* client_ = nullptr;
};

/// A client of the shared simulator, connected on first use: connecting and disconnecting
/// cost a tenth of a second each, too much for every case of a catalogue-wide test.
inline const Client& sharedClient() {
    sharedSimulator(); // constructed first, so destroyed after the client
    static Client client;
    static std::once_flag connected;
    std::call_once(connected, [] {
        if (client.connect(sharedSimulator().endpoint()) != UA_STATUSCODE_GOOD)
            throw std::runtime_error("cannot connect to the shared simulator");
    });
    return client;
}

/// Polls cond until it holds or the bound passes.
template <class Cond>
bool eventually(Cond cond, std::chrono::milliseconds bound = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace duvo::simtest
