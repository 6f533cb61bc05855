#pragma once
// The reference side: what a user would write with open62541 alone. One client driven by the
// calling thread, which sends asynchronous requests and runs the client's loop until the
// answers have come.
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/client_highlevel_async.h>
#include <open62541/client_subscriptions.h>
#include <open62541/plugin/create_certificate.h>
#include <open62541/plugin/log_stdout.h>

namespace duvo::bench {

class RawClient {
public:
    /// SignAndEncrypt with Basic256Sha256 as a user, trusting only the server's certificate.
    struct Security {
        std::string serverCertificate; // DER
        std::string user;
        std::string password;
    };

    explicit RawClient(const std::string& endpoint, const Security* security = nullptr) {
        UA_ClientConfig config;
        std::memset(&config, 0, sizeof config);
        config.logging = UA_Log_Stdout_new(UA_LOGLEVEL_ERROR);
        if (security == nullptr)
            UA_ClientConfig_setDefault(&config);
        else
            encrypt(config, *security);
        config.timeout = 10000;
        client_ = UA_Client_newWithConfig(&config);
        if (client_ == nullptr || UA_Client_connect(client_, endpoint.c_str()) != UA_STATUSCODE_GOOD)
            throw std::runtime_error("raw client cannot connect to " + endpoint);
    }
    ~RawClient() {
        UA_Client_disconnect(client_);
        UA_Client_delete(client_);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    UA_Client* get() const { return client_; }

    /// Runs the client's loop until done() holds.
    template <class Done>
    void runUntil(Done done) {
        while (!done()) UA_Client_run_iterate(client_, 100);
    }

    /// Writes the value to the node count times, all in flight at once, and waits for the
    /// answers. Returns the number of failed writes.
    std::size_t write(const UA_NodeId& node, const UA_Variant& value, std::size_t count) {
        UA_WriteValue write;
        UA_WriteValue_init(&write);
        write.nodeId = node;
        write.attributeId = UA_ATTRIBUTEID_VALUE;
        write.value.value = value;
        write.value.hasValue = true;
        UA_WriteRequest request;
        UA_WriteRequest_init(&request);
        request.nodesToWrite = &write;
        request.nodesToWriteSize = 1;
        Batch batch{count, 0};
        for (std::size_t i = 0; i < count; ++i)
            if (UA_Client_sendAsyncWriteRequest(client_, &request, &RawClient::onWrite, &batch, nullptr) !=
                UA_STATUSCODE_GOOD) {
                --batch.pending;
                ++batch.failures;
            }
        runUntil([&] { return batch.pending == 0; });
        return batch.failures;
    }

    /// Calls the method count times, all in flight at once, and checks each Boolean result.
    std::size_t callAsync(const UA_NodeId& object, const UA_NodeId& method, const UA_Variant* inputs,
                          std::size_t inputCount, std::size_t count) {
        Batch batch{count, 0};
        for (std::size_t i = 0; i < count; ++i)
            if (UA_Client_call_async(client_, object, method, inputCount, inputs, &RawClient::onCall, &batch,
                                     nullptr) != UA_STATUSCODE_GOOD) {
                --batch.pending;
                ++batch.failures;
            }
        runUntil([&] { return batch.pending == 0; });
        return batch.failures;
    }

    /// open62541's synchronous call; false unless it answers true.
    bool call(const UA_NodeId& object, const UA_NodeId& method, const UA_Variant* inputs, std::size_t inputCount) {
        std::size_t outputSize = 0;
        UA_Variant* output = nullptr;
        const UA_StatusCode rc = UA_Client_call(client_, object, method, inputCount, inputs, &outputSize, &output);
        const bool ok = rc == UA_STATUSCODE_GOOD && outputSize == 1 &&
                        UA_Variant_hasScalarType(&output[0], &UA_TYPES[UA_TYPES_BOOLEAN]) &&
                        *static_cast<UA_Boolean*>(output[0].data);
        UA_Array_delete(output, outputSize, &UA_TYPES[UA_TYPES_VARIANT]);
        return ok;
    }

private:
    static constexpr const char* applicationUri = "urn:duvo:bench-raw";

    /// A certificate of its own, made as open62541's examples make one.
    static void encrypt(UA_ClientConfig& config, const Security& security) {
        UA_String subject[] = {UA_STRING(const_cast<char*>("CN=duvo-bench-raw")),
                               UA_STRING(const_cast<char*>("O=duvo"))};
        const std::string san = std::string("URI:") + applicationUri;
        UA_String alternative[] = {UA_STRING(const_cast<char*>(san.c_str())),
                                   UA_STRING(const_cast<char*>("DNS:localhost"))};
        UA_KeyValueMap* parameters = UA_KeyValueMap_new();
        UA_UInt16 bits = 2048;
        UA_KeyValueMap_setScalar(parameters, UA_QUALIFIEDNAME(0, const_cast<char*>("key-size-bits")), &bits,
                                 &UA_TYPES[UA_TYPES_UINT16]);
        UA_ByteString key = UA_BYTESTRING_NULL, certificate = UA_BYTESTRING_NULL;
        UA_StatusCode rc = UA_CreateCertificate(config.logging, subject, 2, alternative, 2, UA_CERTIFICATEFORMAT_DER,
                                                parameters, &key, &certificate);
        UA_KeyValueMap_delete(parameters);
        UA_ByteString trusted;
        trusted.length = security.serverCertificate.size();
        trusted.data = reinterpret_cast<UA_Byte*>(const_cast<char*>(security.serverCertificate.data()));
        if (rc == UA_STATUSCODE_GOOD)
            rc = UA_ClientConfig_setDefaultEncryption(&config, certificate, key, &trusted, 1, nullptr, 0);
        UA_ByteString_clear(&key);
        UA_ByteString_clear(&certificate);
        if (rc != UA_STATUSCODE_GOOD)
            throw std::runtime_error(std::string("raw client cannot use its certificate: ") + UA_StatusCode_name(rc));
        config.securityMode = UA_MESSAGESECURITYMODE_SIGNANDENCRYPT;
        config.securityPolicyUri = UA_STRING_ALLOC("http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256");
        UA_String_clear(&config.clientDescription.applicationUri);
        config.clientDescription.applicationUri = UA_STRING_ALLOC(applicationUri);
        UA_ClientConfig_setAuthenticationUsername(&config, security.user.c_str(), security.password.c_str());
    }

    struct Batch {
        std::size_t pending;
        std::size_t failures;
    };

    static void onWrite(UA_Client*, void* userdata, UA_UInt32, UA_WriteResponse* response) {
        auto* batch = static_cast<Batch*>(userdata);
        --batch->pending;
        if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD || response->resultsSize != 1 ||
            response->results[0] != UA_STATUSCODE_GOOD)
            ++batch->failures;
    }

    static void onCall(UA_Client*, void* userdata, UA_UInt32, UA_CallResponse* response) {
        auto* batch = static_cast<Batch*>(userdata);
        --batch->pending;
        const bool ok =
            response->responseHeader.serviceResult == UA_STATUSCODE_GOOD && response->resultsSize == 1 &&
            response->results[0].statusCode == UA_STATUSCODE_GOOD && response->results[0].outputArgumentsSize == 1 &&
            UA_Variant_hasScalarType(&response->results[0].outputArguments[0], &UA_TYPES[UA_TYPES_BOOLEAN]) &&
            *static_cast<UA_Boolean*>(response->results[0].outputArguments[0].data);
        if (!ok) ++batch->failures;
    }

    UA_Client* client_ = nullptr;
};

/// A variant that borrows the caller's memory, as a raw user hands application data over.
inline UA_Variant borrowedArray(const void* data, std::size_t size, const UA_DataType* type) {
    UA_Variant v;
    UA_Variant_setArray(&v, const_cast<void*>(data), size, type);
    v.storageType = UA_VARIANT_DATA_NODELETE;
    return v;
}

inline UA_Variant borrowedScalar(const void* data, const UA_DataType* type) {
    UA_Variant v;
    UA_Variant_setScalar(&v, const_cast<void*>(data), type);
    v.storageType = UA_VARIANT_DATA_NODELETE;
    return v;
}

} // namespace duvo::bench
