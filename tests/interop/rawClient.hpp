#pragma once
// A plain open62541 client, apart from the plug-in's: the tests read what reached a server,
// write as a device would, and look at its address space with it. Synchronous, one thread.
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

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>
#include <vesk/duvo/sim/ownedVariant.hpp>
#include <vesk/duvo/sim/uaTypes.hpp>

#include "support/securePki.hpp"

namespace duvo::interop {

using vesk::duvo::sim::OwnedVariant;

inline UA_NodeId stringNode(const std::string& id) {
    return UA_NODEID_STRING(vesk::duvo::sim::nodeNamespace, const_cast<char*>(id.c_str()));
}

/// The OPC UA type that carries an element type, as the simulator declares it.
using vesk::duvo::sim::uaTypeOf;

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

class RawClient {
public:
    /// secure: SignAndEncrypt with Basic256Sha256 as the test operator, any server certificate.
    explicit RawClient(const std::string& endpoint, bool secure = false) : client_(newClient(secure)) {
        check(UA_Client_connect(client_, endpoint.c_str()), "connect to " + endpoint);
    }
    ~RawClient() {
        UA_Client_disconnect(client_);
        UA_Client_delete(client_);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    OwnedVariant read(const std::string& id) { return read(stringNode(id)); }
    OwnedVariant read(const UA_NodeId& node) {
        UA_Variant v;
        UA_Variant_init(&v);
        check(UA_Client_readValueAttribute(client_, node, &v), "read " + text(node));
        return OwnedVariant::adopt(v);
    }

    /// The status of a write of the Value attribute.
    UA_StatusCode write(const std::string& id, const UA_Variant& value) {
        return UA_Client_writeValueAttribute(client_, stringNode(id), &value);
    }

    /// One attribute as a data value, with the status the server gave it.
    UA_DataValue readAttribute(const UA_NodeId& node, UA_AttributeId attribute) {
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
    std::vector<std::string> browse(const UA_NodeId& node, std::uint32_t referenceType, bool inverse = false) {
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
    UA_NodeId property(const UA_NodeId& node, const std::string& name) {
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
    // UA_Client_new() would log every socket at INFO: give the configuration a quiet logger first.
    static UA_Client* newClient(bool secure) {
        UA_ClientConfig config;
        std::memset(&config, 0, sizeof config);
        config.logging = UA_Log_Stdout_new(UA_LOGLEVEL_ERROR);
        UA_ClientConfig_setDefault(&config);
        config.timeout = 5000;
        if (secure) {
            const auto& pki = duvo::test::securePki();
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

} // namespace duvo::interop
