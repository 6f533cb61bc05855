#pragma once
// The name map: where a device that lays out its nodes otherwise keeps each variable and
// method. A JSON file of a fixed shape:
//   {"endpoint": "opc.tcp://HOST:PORT",
//    "types": {"M2FloatVector6": "ns=3;s=...", ...},
//    "interfaces": {"PsRpcSetpower": {"object": "ns=3;...", "method": "ns=3;..."}, ...}}
#include <map>
#include <string>

namespace m2ctl {

struct MethodNodes {
    std::string object;
    std::string method;
};

struct NameMap {
    std::string file;
    std::string endpoint; // empty when the file names none
    std::map<std::string, std::string> types;
    std::map<std::string, MethodNodes> interfaces;
};

/// Reads and checks a map: JSON syntax, the keys, the names (from the catalogues), the node
/// ids and the endpoint. Throws UsageError "bad map FILE: KEY: what is wrong".
NameMap loadNameMap(const std::string& file);

/// The simulator's layout as a map on the endpoint, to start a device's from.
std::string simulatorMap(const std::string& endpoint);

} // namespace m2ctl
