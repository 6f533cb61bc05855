#pragma once
// Entity URIs: opcua-ps://HOST[:PORT][/PATH]#NODEID[,NODEID...] and
// opcua-rr://HOST[:PORT][/PATH]#OBJECTID,METHODID[,...]. Node ids are in OPC UA's text form,
// percent-encoded; a comma inside an id is %2C, since the comma separates ids.
#include <string>
#include <vector>

#include <open62541/types.h>

#include <vesk/duvo/opcua/uaCpp.hpp>

namespace vesk::duvo::opcua {

/// What an entity URI says: its kind and its endpoint.
class UriHelper {
public:
    /// The scheme is opcua-ps (any case).
    static bool isPubSubUri(const std::string& uri);
    /// The scheme is opcua-rr (any case).
    static bool isReqResUri(const std::string& uri);
    /// "opc.tcp://" + authority + path; throws std::invalid_argument when the URI does not parse.
    static std::string endpointOf(const std::string& uri);
};

namespace detail {

/// The node ids of the URI's fragment, in order: the fragment split on its literal commas,
/// each part percent-decoded (it must be UTF-8) and parsed as an OPC UA node id. Throws
/// std::invalid_argument naming the URI and the bad part for an unparsable URI, an empty,
/// undecodable or unparsable id.
std::vector<UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>> getNodeIds(const std::string& uri);

/// The OPC UA text form of a node id ("i=2258", "ns=1;s=M2FloatVector6"), which the node-id
/// parser reads back to the same id.
std::string nodeIdToString(const UA_NodeId& id);

} // namespace detail
} // namespace vesk::duvo::opcua
