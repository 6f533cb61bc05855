// m2ctl check: reads, and only reads, how a device declares each variable and method, and
// compares that with the catalogues. What a control engineer runs before pointing the
// middleware at a new device.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>
#include <stdexcept>
#include <vector>

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>

#include <vesk/duvo/opcua/detail/security.hpp>

#include "catalogue.hpp"
#include "cli.hpp"
#include "commands.hpp"

namespace m2ctl {

namespace {

std::string statusName(UA_StatusCode status) { return UA_StatusCode_name(status); }

std::string nodeText(const UA_NodeId& id) {
    UA_String s = UA_STRING_NULL;
    UA_NodeId_print(&id, &s);
    std::string out(reinterpret_cast<const char*>(s.data), s.length);
    UA_String_clear(&s);
    return out;
}

/// A data type's name ("Float"), or its node id when it is none of the built-in ones.
std::string typeName(const UA_NodeId& id) {
    const UA_DataType* type = UA_findDataType(&id);
    return type ? type->typeName : nodeText(id);
}

/// An argument or variable shape as the catalogue writes it: "Double", "Double[]".
std::string shapeText(const UA_NodeId& type, UA_Int32 valueRank) {
    const std::string name = typeName(type);
    if (valueRank == UA_VALUERANK_SCALAR) return name;
    if (valueRank == UA_VALUERANK_ONE_DIMENSION) return name + "[]";
    return name + " (ValueRank " + std::to_string(valueRank) + ")";
}

void noLog(void*, UA_LogLevel, UA_LogCategory, const char*, va_list) {}

/// The stack's own messages would interleave with the table; its failures come back as
/// status codes, which the rows show.
UA_Logger quietLogger{&noLog, nullptr, nullptr};

/// A plain open62541 client: the middleware reads no attributes but values. Its security is
/// the middleware's, set up from the same properties, so it trusts and refuses alike.
class Device {
public:
    Device(const std::string& endpoint, const Common& common) : security_(endpoint, common.security) {
        UA_ClientConfig config;
        std::memset(&config, 0, sizeof config);
        config.logging = &quietLogger;
        UA_ClientConfig_setDefault(&config);
        config.timeout = static_cast<UA_UInt32>(common.timeoutMs);
        security_.configure(config);
        client_ = UA_Client_newWithConfig(&config);
        if (!client_) throw std::runtime_error("cannot create an OPC UA client");
        const UA_StatusCode status = UA_Client_connect(client_, endpoint.c_str());
        if (status != UA_STATUSCODE_GOOD) {
            // Why in the middleware's words: an untrusted certificate, a refused user.
            bool ready = true;
            const std::string why = security_.beforeAttempt(*UA_Client_getConfig(client_), status, ready);
            UA_Client_delete(client_);
            throw std::runtime_error("cannot connect to " + endpoint + ": " +
                                     (why.empty() ? statusName(status) : "not connected: " + why));
        }
    }
    ~Device() {
        UA_Client_disconnect(client_);
        UA_Client_delete(client_);
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// One attribute; the status is the service's or the attribute's.
    UA_StatusCode read(const UA_NodeId& node, UA_AttributeId attribute, UA_Variant& out) {
        UA_ReadValueId id;
        UA_ReadValueId_init(&id);
        id.nodeId = node;
        id.attributeId = attribute;
        UA_ReadRequest request;
        UA_ReadRequest_init(&request);
        request.nodesToRead = &id;
        request.nodesToReadSize = 1;
        UA_ReadResponse response = UA_Client_Service_read(client_, request);
        UA_StatusCode status = response.responseHeader.serviceResult;
        if (status == UA_STATUSCODE_GOOD && response.resultsSize != 1) status = UA_STATUSCODE_BADUNEXPECTEDERROR;
        if (status == UA_STATUSCODE_GOOD) {
            UA_DataValue& dv = response.results[0];
            if (dv.hasStatus) status = dv.status;
            if (status == UA_STATUSCODE_GOOD) UA_Variant_copy(&dv.value, &out);
        }
        UA_ReadResponse_clear(&response);
        return status;
    }

    /// The node of a property ("InputArguments") of a node, or a null id when it has none.
    UA_NodeId property(const UA_NodeId& node, const std::string& name) {
        UA_BrowseDescription description;
        UA_BrowseDescription_init(&description);
        description.nodeId = node;
        description.browseDirection = UA_BROWSEDIRECTION_FORWARD;
        description.referenceTypeId = UA_NODEID_NUMERIC(0, UA_NS0ID_HASPROPERTY);
        description.includeSubtypes = true;
        description.resultMask = UA_BROWSERESULTMASK_BROWSENAME;
        UA_BrowseRequest request;
        UA_BrowseRequest_init(&request);
        request.nodesToBrowse = &description;
        request.nodesToBrowseSize = 1;
        UA_BrowseResponse response = UA_Client_Service_browse(client_, request);
        UA_NodeId out = UA_NODEID_NULL;
        for (std::size_t r = 0; r < response.resultsSize; ++r)
            for (std::size_t i = 0; i < response.results[r].referencesSize; ++i) {
                const UA_ReferenceDescription& ref = response.results[r].references[i];
                const UA_String& browse = ref.browseName.name;
                if (UA_NodeId_isNull(&out) && browse.length == name.size() &&
                    std::memcmp(browse.data, name.data(), name.size()) == 0)
                    UA_NodeId_copy(&ref.nodeId.nodeId, &out);
            }
        UA_BrowseResponse_clear(&response);
        return out;
    }

private:
    vesk::duvo::opcua::detail::ClientSecurity security_; // outlives the client, which calls it
    UA_Client* client_ = nullptr;
};

/// A node id from its text; the map's were checked when it was read.
struct Node {
    explicit Node(const std::string& text) : text(text) {
        UA_NodeId_init(&id);
        if (UA_NodeId_parse(&id, UA_String{text.size(), reinterpret_cast<UA_Byte*>(const_cast<char*>(text.data()))}) !=
            UA_STATUSCODE_GOOD)
            throw UsageError("bad node id " + inQuotes(text));
    }
    ~Node() { UA_NodeId_clear(&id); }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    std::string text;
    UA_NodeId id;
};

/// A read attribute's variant, cleared on scope exit.
struct Value {
    Value() { UA_Variant_init(&v); }
    ~Value() { UA_Variant_clear(&v); }
    Value(const Value&) = delete;
    Value& operator=(const Value&) = delete;
    template <class X>
    const X* scalar(const UA_DataType* type) const {
        return UA_Variant_hasScalarType(&v, type) ? static_cast<const X*>(v.data) : nullptr;
    }
    UA_Variant v;
};

struct CheckRow {
    const char* kind;
    std::string name;
    std::string result = "ok"; // ok, mismatch or missing
    std::vector<std::string> findings;

    void mismatch(const std::string& what, const std::string& expected, const std::string& found) {
        result = "mismatch";
        findings.push_back(what + " expected " + expected + " found " + found);
    }
    std::string verdict() const {
        std::string out = result;
        for (std::size_t i = 0; i < findings.size(); ++i) out += (i ? "; " : ": ") + findings[i];
        return out;
    }
};

std::string className(UA_NodeClass c) {
    switch (c) {
    case UA_NODECLASS_OBJECT:
        return "Object";
    case UA_NODECLASS_VARIABLE:
        return "Variable";
    case UA_NODECLASS_METHOD:
        return "Method";
    case UA_NODECLASS_OBJECTTYPE:
        return "ObjectType";
    case UA_NODECLASS_VARIABLETYPE:
        return "VariableType";
    case UA_NODECLASS_REFERENCETYPE:
        return "ReferenceType";
    case UA_NODECLASS_DATATYPE:
        return "DataType";
    case UA_NODECLASS_VIEW:
        return "View";
    default:
        return std::to_string(static_cast<int>(c));
    }
}

/// The node class, or missing with the read's status.
bool nodeClassIs(Device& device, const Node& node, UA_NodeClass expected, const char* what, CheckRow& row) {
    Value cls;
    const UA_StatusCode status = device.read(node.id, UA_ATTRIBUTEID_NODECLASS, cls.v);
    if (status != UA_STATUSCODE_GOOD) {
        row.result = "missing";
        row.findings = {statusName(status) + " (" + what + " " + node.text + ")"};
        return false;
    }
    // Enumerations travel as Int32.
    const auto* found = cls.scalar<UA_Int32>(&UA_TYPES[UA_TYPES_INT32]);
    if (!found) found = cls.scalar<UA_Int32>(&UA_TYPES[UA_TYPES_NODECLASS]);
    if (!found || *found != static_cast<UA_Int32>(expected)) {
        row.mismatch(std::string(what) + " NodeClass", className(expected),
                     found ? className(static_cast<UA_NodeClass>(*found)) : "none");
        return false;
    }
    return true;
}

template <class T>
CheckRow checkType(Device& device, const Common& common) {
    using Field = typename T::field_type;
    using E = typename Field::element_type;
    CheckRow row{"type", T::typeName};
    const Node node(variableNode(common, T::typeName));

    Value type;
    const UA_StatusCode status = device.read(node.id, UA_ATTRIBUTEID_DATATYPE, type.v);
    if (status != UA_STATUSCODE_GOOD) {
        row.result = "missing";
        row.findings = {statusName(status) + (common.map ? " (" + node.text + ")" : "")};
        return row;
    }
    const auto* typeId = type.scalar<UA_NodeId>(&UA_TYPES[UA_TYPES_NODEID]);
    const std::string expectedType = uaTypeName<E>();
    if (!typeId || !UA_NodeId_equal(typeId, &uaTypeOf<E>()->typeId))
        row.mismatch("DataType", expectedType, typeId ? typeName(*typeId) : "none");

    Value rank;
    const UA_Int32 expectedRank = Field::isVector ? UA_VALUERANK_ONE_DIMENSION : UA_VALUERANK_SCALAR;
    device.read(node.id, UA_ATTRIBUTEID_VALUERANK, rank.v);
    const auto* foundRank = rank.scalar<UA_Int32>(&UA_TYPES[UA_TYPES_INT32]);
    if (!foundRank || *foundRank != expectedRank)
        row.mismatch("ValueRank", std::to_string(expectedRank), foundRank ? std::to_string(*foundRank) : "none");

    // A vector may leave its length open (0) or give the nominal one; a scalar has none.
    Value dims;
    device.read(node.id, UA_ATTRIBUTEID_ARRAYDIMENSIONS, dims.v);
    std::vector<UA_UInt32> found;
    if (dims.v.type == &UA_TYPES[UA_TYPES_UINT32] && !UA_Variant_isScalar(&dims.v)) {
        const auto* first = static_cast<const UA_UInt32*>(dims.v.data);
        found.assign(first, first + dims.v.arrayLength);
    }
    const bool anyOrNominal = found.size() == 1 && (found[0] == 0 || found[0] == T::nominalLength);
    const bool dimsOk = found.empty() || (Field::isVector && anyOrNominal);
    if (!dimsOk) {
        std::string text;
        for (const auto d : found) text += (text.empty() ? "" : ",") + std::to_string(d);
        row.mismatch("ArrayDimensions",
                     Field::isVector ? "[] or [0] or [" + std::to_string(T::nominalLength) + "]" : "[]",
                     "[" + text + "]");
    }

    Value access;
    device.read(node.id, UA_ATTRIBUTEID_ACCESSLEVEL, access.v);
    const auto* level = access.scalar<UA_Byte>(&UA_TYPES[UA_TYPES_BYTE]);
    const bool readable = level && (*level & UA_ACCESSLEVELMASK_READ);
    const bool writable = level && (*level & UA_ACCESSLEVELMASK_WRITE);
    if (!readable || !writable) {
        const std::string foundAccess = readable ? "readable" : writable ? "writable" : "neither readable nor writable";
        row.mismatch("AccessLevel", "readable, writable", foundAccess);
    }
    return row;
}

/// A method's argument list from its property, as the catalogue writes it; "none" without one.
std::vector<std::string> argumentShapes(Device& device, const UA_NodeId& method, const std::string& which,
                                        bool& present) {
    UA_NodeId property = device.property(method, which);
    present = !UA_NodeId_isNull(&property);
    std::vector<std::string> out;
    if (!present) return out;
    Value value;
    device.read(property, UA_ATTRIBUTEID_VALUE, value.v);
    UA_NodeId_clear(&property);
    if (value.v.type != &UA_TYPES[UA_TYPES_ARGUMENT]) {
        present = false;
        return out;
    }
    const std::size_t n = UA_Variant_isScalar(&value.v) ? 1 : value.v.arrayLength;
    for (std::size_t i = 0; i < n; ++i) {
        const auto& a = static_cast<const UA_Argument*>(value.v.data)[i];
        out.push_back(shapeText(a.dataType, a.valueRank));
    }
    return out;
}

void compareArguments(CheckRow& row, const std::string& which, const std::vector<std::string>& expected,
                      const std::vector<std::string>& found, bool present) {
    if (!present && !expected.empty()) {
        row.mismatch(which, std::to_string(expected.size()) + " (" + foldedTypes(expected) + ")", "none");
        return;
    }
    if (found.size() != expected.size()) {
        row.mismatch(which, std::to_string(expected.size()) + " (" + foldedTypes(expected) + ")",
                     std::to_string(found.size()) + (found.empty() ? "" : " (" + foldedTypes(found) + ")"));
        return;
    }
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (found[i] != expected[i]) row.mismatch(which + "[" + std::to_string(i) + "]", expected[i], found[i]);
}

template <class Row>
CheckRow checkInterface(Device& device, const Common& common) {
    const std::string name = Row::Methods::interfaceName;
    CheckRow row{"interface", name};
    const MethodNodes nodes = methodNodes(common, name, Row::Methods::methodName);
    const Node object(nodes.object);
    const Node method(nodes.method);
    if (!nodeClassIs(device, object, UA_NODECLASS_OBJECT, "object", row)) return row;
    if (!nodeClassIs(device, method, UA_NODECLASS_METHOD, "method", row)) return row;
    bool present = false;
    const auto inputs = argumentShapes(device, method.id, "InputArguments", present);
    compareArguments(row, "InputArguments", argumentTypes(typename Row::Params{}), inputs, present);
    const auto outputs = argumentShapes(device, method.id, "OutputArguments", present);
    compareArguments(row, "OutputArguments", {"Boolean"}, outputs, present);
    return row;
}

} // namespace

int checkCommand(int argc, char** argv) {
    Common common;
    po::options_description options("Options");
    addCommonOptions(options, common, {true, false, true, true, true, true});
    const CommandLine line = parseCommandLine(
        "m2ctl check [NAME...] [options]\n"
        "Reads from the device (--endpoint, default " +
            defaultEndpoint +
            ") how it declares each variable (DataType, ValueRank,\n"
            "ArrayDimensions, AccessLevel) and each method (object, InputArguments, OutputArguments), for the\n"
            "types and interfaces named or all of them, and compares with the catalogues. Writes and calls\n"
            "nothing. Prints one table and a summary; exit code 0 when everything conforms.",
        options, argc, argv, &common);
    if (line.help) return 0;
    const std::set<std::string> named(line.args.begin(), line.args.end());
    for (const auto& n : named)
        if (!visitByName(DataTypes{}, n, [](auto) {}) && !visitByName(InterfaceRows{}, n, [](auto) {}))
            throw UsageError("unknown type or interface " + inQuotes(n) + " (m2ctl list shows them)");
    // Named ones must have node ids; of all, those a map leaves out are skipped.
    const auto wanted = [&](const std::string& n) { return named.empty() ? inMap(common, n) : named.count(n) > 0; };

    const std::string endpoint = endpointOrDefault(common);
    authorityOf(endpoint);
    if (common.trustServer) trustServer(endpoint, common.security);
    Device device(endpoint, common);
    if (!common.json) {
        std::printf("m2ctl check: %s\n%-9s %-30s %s\n", endpoint.c_str(), "KIND", "NAME", "RESULT");
        std::fflush(stdout);
    }
    std::vector<CheckRow> rows;
    const auto add = [&](CheckRow row) {
        if (!common.json) {
            std::printf("%-9s %-30s %s\n", row.kind, row.name.c_str(), row.verdict().c_str());
            std::fflush(stdout);
        }
        rows.push_back(std::move(row));
    };
    forEach(DataTypes{}, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if (wanted(T::typeName)) add(checkType<T>(device, common));
    });
    forEach(InterfaceRows{}, [&](auto tag) {
        using Row = typename decltype(tag)::type;
        if (wanted(Row::Methods::interfaceName)) add(checkInterface<Row>(device, common));
    });

    std::size_t ok = 0, mismatches = 0, missing = 0;
    std::string failed;
    for (const auto& row : rows) {
        ok += row.result == "ok";
        mismatches += row.result == "mismatch";
        missing += row.result == "missing";
        if (row.result != "ok") failed += (failed.empty() ? "" : ", ") + row.name;
    }
    if (common.json) {
        std::string list;
        for (const auto& row : rows) {
            std::string findings;
            for (const auto& f : row.findings) findings += (findings.empty() ? "" : ",") + inQuotes(f);
            list += std::string(list.empty() ? "" : ",") + "\n  {\"kind\":" + inQuotes(row.kind) +
                    ",\"name\":" + inQuotes(row.name) + ",\"result\":" + inQuotes(row.result) + ",\"findings\":[" +
                    findings + "]}";
        }
        std::cout << "{\"endpoint\":" << inQuotes(endpoint) << ",\"rows\":[" << list
                  << "\n],\"checked\":" << rows.size() << ",\"ok\":" << ok << ",\"mismatch\":" << mismatches
                  << ",\"missing\":" << missing << "}\n";
    } else {
        std::printf("%zu of %zu conform (%zu mismatch, %zu missing)\n", ok, rows.size(), mismatches, missing);
    }
    std::cout.flush();
    if (ok != rows.size())
        throw std::runtime_error(std::to_string(rows.size() - ok) + " of " + std::to_string(rows.size()) +
                                 " do not conform: " + failed);
    return 0;
}

} // namespace m2ctl
