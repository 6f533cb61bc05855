#pragma once
// A plain open62541 client, apart from the plug-in's: the tests read what reached a server,
// write and call as a device or an engineer would, and look at its address space with it.
// Synchronous, one thread.
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/plugin/log_stdout.h>
#include <open62541/plugin/pki_default.h>

#include <duvo/opcua/detail/binding/uaType.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/shared_vector.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>
#include <vesk/duvo/sim/ownedVariant.hpp>
#include <vesk/duvo/sim/uaTypes.hpp>

#include "support/securePki.hpp"

namespace duvo::test {

using vesk::duvo::sim::OwnedVariant;
/// The OPC UA type that carries an element type, as the simulator declares it.
using vesk::duvo::sim::uaTypeOf;
/// The plug-in's mapping: the values the tests write with it check the servers against it.
using vesk::duvo::opcua::detail::binding::UaTypeOf;

inline UA_NodeId stringNode(const std::string& id) {
    return UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(id.c_str()));
}

/// The field value that an OPC UA value carries; throws when its type is not the field's.
template <class T>
typename T::value_type valueOf(const UA_Variant& v) {
    using Field = typename T::field_type;
    using E = typename Field::element_type;
    if (v.type != uaTypeOf<E>())
        throw std::runtime_error(std::string("expected ") + uaTypeOf<E>()->typeName + ", received " +
                                 (v.type ? v.type->typeName : "no value"));
    const auto element = [&](std::size_t i) -> E {
        if constexpr (std::is_same_v<E, std::string>) {
            const auto& s = static_cast<const UA_String*>(v.data)[i];
            return std::string(reinterpret_cast<const char*>(s.data), s.length);
        } else {
            return static_cast<const E*>(v.data)[i];
        }
    };
    if constexpr (Field::isVector) {
        const std::size_t n = UA_Variant_isScalar(&v) ? 0 : v.arrayLength;
        if constexpr (std::is_same_v<E, std::string>) {
            std::vector<std::string> out;
            for (std::size_t i = 0; i < n; ++i) out.push_back(element(i));
            return out;
        } else {
            vesk::duvo::shared_vector<E> out(n);
            for (std::size_t i = 0; i < n; ++i) out[i] = element(i);
            return vesk::duvo::freeze(std::move(out));
        }
    } else {
        if (!UA_Variant_isScalar(&v)) throw std::runtime_error("expected a scalar, received an array");
        return element(0);
    }
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

class RawClient {
public:
    /// Not connected yet; timeoutMs bounds every request. secure: SignAndEncrypt with
    /// Basic256Sha256 as the test operator, any server certificate.
    explicit RawClient(UA_UInt32 timeoutMs = 5000, bool secure = false) : client_(newClient(timeoutMs, secure)) {}
    /// Connected, or throws why not.
    explicit RawClient(const std::string& endpoint, bool secure = false) : RawClient(5000, secure) {
        check(connect(endpoint), "connect to " + endpoint);
    }
    ~RawClient() {
        // Disconnecting waits for a timer or 100 ms per round of the event loop; a close
        // timer keeps test processes short.
        UA_Client_addRepeatedCallback(
            client_, [](UA_Client*, void*) {}, nullptr, 1.0, nullptr);
        UA_Client_disconnect(client_);
        UA_Client_delete(client_);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    UA_StatusCode connect(const std::string& endpoint) const { return UA_Client_connect(client_, endpoint.c_str()); }
    UA_Client* get() const { return client_; }

    OwnedVariant read(const std::string& id) const { return read(stringNode(id)); }
    OwnedVariant read(const UA_NodeId& node) const {
        UA_Variant v;
        UA_Variant_init(&v);
        check(UA_Client_readValueAttribute(client_, node, &v), "read " + text(node));
        return OwnedVariant::adopt(v);
    }

    /// The status of a write of the Value attribute.
    UA_StatusCode write(const std::string& id, const UA_Variant& value) const {
        return UA_Client_writeValueAttribute(client_, stringNode(id), &value);
    }
    UA_StatusCode write(const std::string& id, const OwnedVariant& value) const { return write(id, *value); }

    CallResult call(const std::string& iface, const std::string& method, const std::vector<OwnedVariant>& args) const {
        std::vector<UA_Variant> inputs;
        for (const auto& a : args) inputs.push_back(*a); // shallow: the call only reads them
        std::size_t outputSize = 0;
        UA_Variant* outputs = nullptr;
        CallResult result;
        result.status = UA_Client_call(client_, stringNode(iface), stringNode(iface + "." + method), inputs.size(),
                                       inputs.data(), &outputSize, &outputs);
        for (std::size_t i = 0; i < outputSize; ++i) result.outputs.push_back(OwnedVariant::adopt(outputs[i]));
        UA_Array_delete(outputs, outputSize, &UA_TYPES[UA_TYPES_VARIANT]);
        return result;
    }

    /// One attribute as a data value, with the status the server gave it.
    UA_DataValue readAttribute(const UA_NodeId& node, UA_AttributeId attribute) const {
        UA_ReadValueId id;
        UA_ReadValueId_init(&id);
        id.nodeId = node;
        id.attributeId = attribute;
        UA_ReadRequest request;
        UA_ReadRequest_init(&request);
        request.nodesToRead = &id;
        request.nodesToReadSize = 1;
        request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
        UA_ReadResponse response = UA_Client_Service_read(client_, request);
        UA_DataValue out;
        UA_DataValue_init(&out);
        if (response.responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
            out.hasStatus = true;
            out.status = response.responseHeader.serviceResult;
        } else if (response.resultsSize == 1) {
            UA_DataValue_copy(&response.results[0], &out);
        }
        UA_ReadResponse_clear(&response);
        return out;
    }

    /// The targets of the references of one type from a node, as text ("ns=1;s=...").
    std::vector<std::string> browse(const UA_NodeId& node, std::uint32_t referenceType, bool inverse = false) const {
        UA_BrowseDescription description;
        UA_BrowseDescription_init(&description);
        description.nodeId = node;
        description.browseDirection = inverse ? UA_BROWSEDIRECTION_INVERSE : UA_BROWSEDIRECTION_FORWARD;
        description.referenceTypeId = UA_NODEID_NUMERIC(0, referenceType);
        description.includeSubtypes = false;
        description.resultMask = UA_BROWSERESULTMASK_ALL;
        UA_BrowseRequest request;
        UA_BrowseRequest_init(&request);
        request.nodesToBrowse = &description;
        request.nodesToBrowseSize = 1;
        UA_BrowseResponse response = UA_Client_Service_browse(client_, request);
        std::vector<std::string> out;
        if (response.responseHeader.serviceResult == UA_STATUSCODE_GOOD && response.resultsSize == 1)
            for (std::size_t i = 0; i < response.results[0].referencesSize; ++i)
                out.push_back(text(response.results[0].references[i].nodeId.nodeId));
        UA_BrowseResponse_clear(&response);
        return out;
    }

    /// The node that a property of a node has by browse name ("InputArguments").
    UA_NodeId property(const UA_NodeId& node, const std::string& name) const {
        UA_RelativePathElement element;
        UA_RelativePathElement_init(&element);
        element.referenceTypeId = UA_NODEID_NUMERIC(0, UA_NS0ID_HASPROPERTY);
        element.targetName = UA_QUALIFIEDNAME(0, const_cast<char*>(name.c_str()));
        UA_BrowsePath path;
        UA_BrowsePath_init(&path);
        path.startingNode = node;
        path.relativePath.elements = &element;
        path.relativePath.elementsSize = 1;
        UA_TranslateBrowsePathsToNodeIdsRequest request;
        UA_TranslateBrowsePathsToNodeIdsRequest_init(&request);
        request.browsePaths = &path;
        request.browsePathsSize = 1;
        UA_TranslateBrowsePathsToNodeIdsResponse response =
            UA_Client_Service_translateBrowsePathsToNodeIds(client_, request);
        UA_NodeId out = UA_NODEID_NULL;
        if (response.resultsSize == 1 && response.results[0].targetsSize >= 1)
            UA_NodeId_copy(&response.results[0].targets[0].targetId.nodeId, &out);
        UA_TranslateBrowsePathsToNodeIdsResponse_clear(&response);
        return out;
    }

    static std::string text(const UA_NodeId& node) {
        UA_String s = UA_STRING_NULL;
        UA_NodeId_print(&node, &s);
        std::string out(reinterpret_cast<const char*>(s.data), s.length);
        UA_String_clear(&s);
        return out;
    }

private:
    // UA_Client_new() would log every socket at INFO: give the configuration a quiet logger
    // first. Failures reach the test as status codes or exceptions.
    static UA_Client* newClient(UA_UInt32 timeoutMs, bool secure) {
        UA_ClientConfig config;
        std::memset(&config, 0, sizeof config);
        config.logging = UA_Log_Stdout_new(UA_LOGLEVEL_FATAL);
        UA_ClientConfig_setDefault(&config);
        config.timeout = timeoutMs;
        if (secure) {
            const auto& pki = securePki();
            std::string cert = vesk::duvo::pki::readFile(pki.client() + "/own/cert.der");
            std::string key = vesk::duvo::pki::readFile(pki.client() + "/own/key.der");
            check(UA_ClientConfig_setDefaultEncryption(&config, {cert.size(), (UA_Byte*)cert.data()},
                                                       {key.size(), (UA_Byte*)key.data()}, nullptr, 0, nullptr, 0),
                  "set up encryption");
            if (config.certificateVerification.clear)
                config.certificateVerification.clear(&config.certificateVerification);
            UA_CertificateVerification_AcceptAll(&config.certificateVerification);
            config.securityMode = UA_MESSAGESECURITYMODE_SIGNANDENCRYPT;
            config.securityPolicyUri = UA_STRING_ALLOC("http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256");
            UA_String_clear(&config.clientDescription.applicationUri);
            config.clientDescription.applicationUri = UA_STRING_ALLOC("urn:duvo:test-client");
            check(UA_ClientConfig_setAuthenticationUsername(&config, pki.user, pki.password), "set the user");
        }
        UA_Client* client = UA_Client_newWithConfig(&config);
        if (!client) throw std::runtime_error("cannot create an OPC UA client");
        return client;
    }

    static void check(UA_StatusCode status, const std::string& what) {
        if (status != UA_STATUSCODE_GOOD) throw std::runtime_error(what + ": " + UA_StatusCode_name(status));
    }

    UA_Client* client_;
};

} // namespace duvo::test
