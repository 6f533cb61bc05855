// m2ctl list: the two catalogues with their OPC UA form and node ids.
#include <cstdio>
#include <iostream>

#include "catalogue.hpp"
#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

int listCommand(int argc, char** argv) {
    Common common;
    bool map = false;
    po::options_description options("Options");
    options.add_options()("map", po::bool_switch(&map),
                          "print the simulator's layout as a name map (JSON) to edit for a device");
    addCommonOptions(options, common, {true, false, false, true, false, false});
    const CommandLine line = parseCommandLine(
        "m2ctl list [--endpoint URL] [--json | --map]\n"
        "Lists the 24 data types and 23 interfaces with their OPC UA types, shapes and node ids, and the\n"
        "URIs that address them on the endpoint (default " +
            defaultEndpoint + ").",
        options, argc, argv);
    if (line.help) return 0;
    if (!line.args.empty()) throw UsageError("list takes no arguments, got " + inQuotes(line.args[0]));

    const std::string authority = authorityOf(endpointOrDefault(common));
    if (map) {
        std::cout << simulatorMap(endpointOrDefault(common));
        return 0;
    }
    std::string types, interfaces;
    if (!common.json)
        std::printf("Data types (%zu): variable NODE ID, URI opcua-ps://%s#NODE ID\n%-18s %-8s %-6s %-7s %s\n",
                    DataTypes::size, authority.c_str(), "TYPE", "OPC UA", "SHAPE", "NOMINAL", "NODE ID");
    forEach(DataTypes{}, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using Field = typename T::field_type;
        const std::string uaType = uaTypeName<typename Field::element_type>();
        const char* shape = Field::isVector ? "array" : "scalar";
        if (common.json) {
            types += std::string(types.empty() ? "" : ",") + "\n  {\"name\":" + inQuotes(T::typeName) +
                     ",\"opcuaType\":" + inQuotes(uaType) + ",\"shape\":" + inQuotes(shape) +
                     ",\"nominalLength\":" + std::to_string(T::nominalLength) +
                     ",\"nodeId\":" + inQuotes(variableNodeId(T::typeName)) +
                     ",\"uri\":" + inQuotes(psUri(common, T::typeName)) + "}";
        } else {
            std::printf("%-18s %-8s %-6s %-7s %s\n", T::typeName, uaType.c_str(), shape,
                        Field::isVector ? std::to_string(T::nominalLength).c_str() : "-",
                        variableNodeId(T::typeName).c_str());
        }
    });
    if (!common.json)
        std::printf("\nInterfaces (%zu): object %s, method %s, one Boolean result,\n"
                    "URI opcua-rr://%s#OBJECT,METHOD\n%-30s %-29s %s\n",
                    InterfaceRows::size, objectNodeId("INTERFACE").c_str(), methodNodeId("INTERFACE", "METHOD").c_str(),
                    authority.c_str(), "INTERFACE", "METHOD", "ARGUMENTS");
    forEach(InterfaceRows{}, [&](auto tag) {
        using Row = typename decltype(tag)::type;
        const char* name = Row::Methods::interfaceName;
        const char* method = Row::Methods::methodName;
        const auto arguments = argumentTypes(typename Row::Params{});
        if (common.json) {
            std::string list;
            for (const auto& a : arguments) list += (list.empty() ? "" : ",") + inQuotes(a);
            interfaces += std::string(interfaces.empty() ? "" : ",") + "\n  {\"name\":" + inQuotes(name) +
                          ",\"method\":" + inQuotes(method) + ",\"arguments\":[" + list + "],\"result\":\"Boolean\"" +
                          ",\"objectNodeId\":" + inQuotes(objectNodeId(name)) +
                          ",\"methodNodeId\":" + inQuotes(methodNodeId(name, method)) +
                          ",\"uri\":" + inQuotes(rrUri(common, name, method)) + "}";
        } else {
            std::printf("%-30s %-29s %s\n", name, method, foldedTypes(arguments).c_str());
        }
    });
    if (common.json) std::cout << "{\"types\":[" << types << "\n],\"interfaces\":[" << interfaces << "\n]}\n";
    return 0;
}

} // namespace m2ctl
