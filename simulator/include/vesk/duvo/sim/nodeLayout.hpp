#pragma once
// Where the simulator puts the module's nodes, and the entity URIs that reach them. A device
// laid out like the simulator answers the same ids; the node-opcua server of the interop
// tests (interop/server.js) and the benchmark's peer (bench/nodePeer.js) follow this layout
// too. Only the standard library here: applications build against it without the server.
#include <cstdint>
#include <string>

namespace vesk::duvo::sim {

/// Every node of the module lives in this namespace.
inline constexpr std::uint16_t nodeNamespace = 1;

/// The string identifier of a structure's field: the structure's one field, value0, is the
/// variable named after the structure ("M2FloatVector6").
inline std::string fieldNodeName(const std::string& type) { return type; }
/// The string identifier of the object that holds an interface's method: the interface's name.
inline std::string objectNodeName(const std::string& iface) { return iface; }
/// The string identifier of an interface's method: "<Iface>.<Method>", e.g.
/// "PsRpcSetpower.RPC_SetPower", a component of the object named after the interface.
inline std::string methodNodeName(const std::string& iface, const std::string& method) { return iface + "." + method; }

/// "ns=1;s=<Type>": the node of a structure's field value0.
inline std::string fieldNodeId(const std::string& type) {
    return "ns=" + std::to_string(nodeNamespace) + ";s=" + fieldNodeName(type);
}
/// "ns=1;s=<Iface>": the object that holds an interface's method.
inline std::string objectNodeId(const std::string& iface) {
    return "ns=" + std::to_string(nodeNamespace) + ";s=" + objectNodeName(iface);
}
/// "ns=1;s=<Iface>.<Method>": an interface's method.
inline std::string methodNodeId(const std::string& iface, const std::string& method) {
    return "ns=" + std::to_string(nodeNamespace) + ";s=" + methodNodeName(iface, method);
}

/// "HOST:PORT" of an endpoint, given as "opc.tcp://HOST:PORT" or already as "HOST:PORT".
inline std::string authorityOf(const std::string& endpoint) {
    const std::string scheme = "opc.tcp://";
    return endpoint.compare(0, scheme.size(), scheme) == 0 ? endpoint.substr(scheme.size()) : endpoint;
}

/// "opcua-ps://HOST:PORT#ns=1;s=<Type>": publish or subscribe a structure on an endpoint.
inline std::string pubSubUri(const std::string& endpoint, const std::string& type) {
    return "opcua-ps://" + authorityOf(endpoint) + "#" + fieldNodeId(type);
}
/// "opcua-rr://HOST:PORT#ns=1;s=<Iface>,ns=1;s=<Iface>.<Method>": call an interface's
/// method on an endpoint.
inline std::string rpcUri(const std::string& endpoint, const std::string& iface, const std::string& method) {
    return "opcua-rr://" + authorityOf(endpoint) + "#" + objectNodeId(iface) + "," + methodNodeId(iface, method);
}

} // namespace vesk::duvo::sim
