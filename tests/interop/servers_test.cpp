// The two servers side by side: the same m2Types address space, and the error paths on which
// they differ, each asserted as it is. docs/decisions.md ("The independent server") lists them.
#include <sstream>

#include <vesk/duvo/sim/simulator.hpp>

#include "support/servers.hpp"
#include "tool/program.hpp"

namespace duvo::test {
namespace {

/// One attribute as text: its value, or its status when it has none.
std::string attribute(RawClient& client, const UA_NodeId& node, UA_AttributeId id) {
    UA_DataValue dv = client.readAttribute(node, id);
    std::string out;
    if (dv.hasStatus && dv.status != UA_STATUSCODE_GOOD) {
        out = UA_StatusCode_name(dv.status);
    } else if (!dv.hasValue || UA_Variant_isEmpty(&dv.value)) {
        out = "empty";
    } else {
        UA_String s = UA_STRING_NULL;
        UA_print(dv.value.data, dv.value.type, &s);
        if (!UA_Variant_isScalar(&dv.value)) {
            out = std::string(dv.value.type->typeName) + "[" + std::to_string(dv.value.arrayLength) + "]";
            if (dv.value.type != &UA_TYPES[UA_TYPES_ARGUMENT]) {
                out += "{";
                for (std::size_t i = 0; i < dv.value.arrayLength; ++i) {
                    UA_String e = UA_STRING_NULL;
                    UA_print(static_cast<const char*>(dv.value.data) + i * dv.value.type->memSize, dv.value.type, &e);
                    out += (i ? "," : "") + std::string(reinterpret_cast<const char*>(e.data), e.length);
                    UA_String_clear(&e);
                }
                out += "}";
            }
        } else {
            out = std::string(reinterpret_cast<const char*>(s.data), s.length);
        }
        UA_String_clear(&s);
    }
    UA_DataValue_clear(&dv);
    return out;
}

/// A method's argument list: name, data type, rank and dimensions of each.
std::string arguments(RawClient& client, const UA_NodeId& method, const std::string& which) {
    UA_NodeId property = client.property(method, which);
    if (UA_NodeId_isNull(&property)) return "no " + which;
    const OwnedVariant value = client.read(property);
    UA_NodeId_clear(&property);
    if (!value.hasType(&UA_TYPES[UA_TYPES_ARGUMENT])) return which + " of another type";
    std::ostringstream out;
    for (std::size_t i = 0; i < value.arrayLength(); ++i) {
        const auto& a = value.at<UA_Argument>(i);
        out << std::string(reinterpret_cast<const char*>(a.name.data), a.name.length) << ":"
            << RawClient::text(a.dataType) << ":" << a.valueRank << ":[";
        for (std::size_t d = 0; d < a.arrayDimensionsSize; ++d) out << (d ? "," : "") << a.arrayDimensions[d];
        out << "] ";
    }
    return out.str();
}

std::string join(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& i : items) out += (out.empty() ? "" : " ") + i;
    return out;
}

/// What a client can learn of a data structure's variable.
std::string describeVariable(RawClient& client, const std::string& name) {
    const UA_NodeId node = stringNode(name);
    std::ostringstream out;
    out << "class " << attribute(client, node, UA_ATTRIBUTEID_NODECLASS) << "\nbrowse name "
        << attribute(client, node, UA_ATTRIBUTEID_BROWSENAME) << "\ndata type "
        << attribute(client, node, UA_ATTRIBUTEID_DATATYPE) << "\nvalue rank "
        << attribute(client, node, UA_ATTRIBUTEID_VALUERANK) << "\narray dimensions "
        << attribute(client, node, UA_ATTRIBUTEID_ARRAYDIMENSIONS) << "\naccess "
        << attribute(client, node, UA_ATTRIBUTEID_ACCESSLEVEL) << "\nuser access "
        << attribute(client, node, UA_ATTRIBUTEID_USERACCESSLEVEL) << "\ntype definition "
        << join(client.browse(node, UA_NS0ID_HASTYPEDEFINITION)) << "\norganized by "
        << join(client.browse(node, UA_NS0ID_ORGANIZES, true));
    return out.str();
}

/// What a client can learn of an interface's object and method.
std::string describeInterface(RawClient& client, const std::string& iface, const std::string& method) {
    const UA_NodeId object = stringNode(iface);
    const std::string methodId = iface + "." + method;
    const UA_NodeId methodNode = stringNode(methodId);
    std::ostringstream out;
    out << "object class " << attribute(client, object, UA_ATTRIBUTEID_NODECLASS) << "\nobject browse name "
        << attribute(client, object, UA_ATTRIBUTEID_BROWSENAME) << "\nobject organized by "
        << join(client.browse(object, UA_NS0ID_ORGANIZES, true)) << "\nobject components "
        << join(client.browse(object, UA_NS0ID_HASCOMPONENT)) << "\nmethod class "
        << attribute(client, methodNode, UA_ATTRIBUTEID_NODECLASS) << "\nmethod browse name "
        << attribute(client, methodNode, UA_ATTRIBUTEID_BROWSENAME) << "\nexecutable "
        << attribute(client, methodNode, UA_ATTRIBUTEID_EXECUTABLE) << "\nuser executable "
        << attribute(client, methodNode, UA_ATTRIBUTEID_USEREXECUTABLE) << "\ninputs "
        << arguments(client, methodNode, "InputArguments") << "\noutputs "
        << arguments(client, methodNode, "OutputArguments");
    return out.str();
}

/// The in-process simulator beside the program's node server.
class BothServers : public duvo::test::OnNodeServer {
protected:
    static void SetUpTestSuite() {
        vesk::duvo::sim::Options options;
        options.logLevel = UA_LOGLEVEL_ERROR;
        simulator = new vesk::duvo::sim::Simulator(options);
        simulator->start();
    }
    static void TearDownTestSuite() {
        delete simulator;
        simulator = nullptr;
    }
    void SetUp() override {
        OnNodeServer::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        simRaw = std::make_unique<RawClient>(simulator->endpoint());
    }

    /// Publishes one sample of T to a node of each server; "ok" or the error.
    template <class T>
    std::pair<std::string, std::string> publishTo(const std::string& node, const typename T::value_type& value) {
        return {publishOnce<T>(vesk::duvo::sim::pubSubUri(simulator->endpoint(), node), value),
                publishOnce<T>(psUri(node), value)};
    }
    template <class T>
    std::string publishOnce(const std::string& uri, const typename T::value_type& value) {
        try {
            auto publisher = middleware()->createPublisher<T>(uri);
            std::shared_ptr<T> sample = publisher->createDataEntity();
            sample->setValue0(value);
            publisher->publish(*sample, kWait);
            return "ok";
        } catch (const std::exception& e) {
            // Keep the status of "...: failed to write to node N: STATUS Uri:..."; anything else whole.
            const std::string text = e.what();
            const auto uriAt = text.find(" Uri:");
            if (text.find(": failed to write to node ") == std::string::npos || uriAt == std::string::npos) return text;
            const auto statusAt = text.rfind(": ", uriAt);
            return text.substr(statusAt + 2, uriAt - statusAt - 2);
        }
    }

    /// Calls a stub at an (object, method) pair of each server; "true", "false" or the error.
    template <class Sync, class Invoke>
    std::pair<std::string, std::string> callAt(const std::string& object, const std::string& method, Invoke invoke) {
        const auto once = [&](const std::string& endpoint) -> std::string {
            const std::string uri = "opcua-rr://" + endpoint.substr(std::string("opc.tcp://").size()) +
                                    "#ns=1;s=" + object + ",ns=1;s=" + method;
            try {
                auto stub = middleware()->createClient<Sync>(uri, replyTime(kWait));
                return invoke(*stub) ? "true" : "false";
            } catch (const std::exception& e) {
                return e.what();
            }
        };
        return {once(simulator->endpoint()), once(node->endpoint())};
    }

    static vesk::duvo::sim::Simulator* simulator;
    std::unique_ptr<RawClient> simRaw;
};

vesk::duvo::sim::Simulator* BothServers::simulator = nullptr;

class AddressSpace : public BothServers {};

TEST_F(AddressSpace, every_variable_and_method_matches_the_simulator_in_all_it_describes) {
#define COMPARE_VARIABLE(Name, ...)                                                                                    \
    EXPECT_EQ(describeVariable(raw->raw, #Name), describeVariable(*simRaw, #Name)) << #Name;                           \
    EXPECT_EQ(attribute(raw->raw, stringNode(#Name), UA_ATTRIBUTEID_VALUE),                                            \
              attribute(*simRaw, stringNode(#Name), UA_ATTRIBUTEID_VALUE))                                             \
        << #Name << " starts with another value";
    M2TYPES_DATA_CATALOGUE(COMPARE_VARIABLE)
#undef COMPARE_VARIABLE
#define COMPARE_INTERFACE(Iface, Method, ...)                                                                          \
    EXPECT_EQ(describeInterface(raw->raw, #Iface, "RPC_" #Method), describeInterface(*simRaw, #Iface, "RPC_" #Method)) \
        << #Iface;
    M2TYPES_INTERFACE_CATALOGUE(COMPARE_INTERFACE)
#undef COMPARE_INTERFACE

    // The comparison would pass on two empty servers: pin down what it sees of one of each kind.
    const std::string variable = describeVariable(*simRaw, "M2FloatVector6");
    EXPECT_NE(variable.find("data type \"i=10\""), std::string::npos) << variable;
    EXPECT_NE(variable.find("value rank 1"), std::string::npos) << variable;
    EXPECT_NE(variable.find("organized by i=85"), std::string::npos) << variable;
    const std::string method = describeInterface(*simRaw, "WhRpcDeadZoneCalibrationAds", "RPC_DeadZoneCalibrationAds");
    EXPECT_NE(method.find("inputs arg0:i=1:-1:[] arg1:i=10:-1:[]"), std::string::npos) << method;
    EXPECT_NE(method.find("outputs result:i=1:-1:[]"), std::string::npos) << method;
    EXPECT_NE(method.find("object components ns=1;s=WhRpcDeadZoneCalibrationAds.RPC_DeadZoneCalibrationAds"),
              std::string::npos)
        << method;
}

// The simulator's side is tool.M2ctlOnSimulator.check_conforms_and_names_each_planted_fault.
TEST_F(AddressSpace, m2ctl_check_finds_node_opcua_conforming) {
    const Outcome o =
        Program(M2CTL_PROGRAM, {"check", "--timeout", "10000", "--endpoint", node->endpoint()}).finish(60s);
    EXPECT_EQ(o.code, 0) << o.out << o.err;
    EXPECT_NE(o.out.find("47 of 47 conform (0 mismatch, 0 missing)"), std::string::npos) << o.out;
}

class Differences : public BothServers {
protected:
    void TearDown() override {
        // Put back what a test left in a wrong shape, for the tests that follow.
        if (!raw) return;
        raw->writeValue<m2Types::M2Int32Value0>(0);
        raw->writeValue<m2Types::M2Int32Vector6>(vesk::duvo::freeze(vesk::duvo::shared_vector<int>(6)));
    }
};

TEST_F(Differences, a_value_of_the_other_shape_is_refused_by_the_simulator_and_kept_by_node_opcua) {
    // node-opcua checks the element type, not the value rank.
    using Vector = m2Types::M2Int32Vector6;
    using Scalar = m2Types::M2Int32Value0;
    EXPECT_EQ(publishTo<Vector>("M2Int32Value0", vesk::duvo::shared_vector<const int>{7, 8, 9}),
              std::make_pair(std::string("BadTypeMismatch"), std::string("ok")));
    EXPECT_EQ(publishTo<Scalar>("M2Int32Vector6", 5),
              std::make_pair(std::string("BadTypeMismatch"), std::string("ok")));
    const OwnedVariant array = raw->raw.read("M2Int32Value0");
    EXPECT_FALSE(array.isScalar());
    EXPECT_EQ(array.arrayLength(), 3u);
    EXPECT_TRUE(raw->raw.read("M2Int32Vector6").isScalar());

    // A subscriber of the scalar receives the array's first element, one of the vector takes
    // the scalar as an array of none.
    const auto polling = middleware({{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", "20"}});
    auto scalar = polling->createSubscriber<Scalar>(psUri("M2Int32Value0"));
    auto vector = polling->createSubscriber<Vector>(psUri("M2Int32Vector6"));
    std::vector<std::shared_ptr<Scalar>> first;
    std::vector<std::shared_ptr<Vector>> none;
    ASSERT_TRUE(eventually([&] {
        if (first.empty()) first = scalar->read(0);
        if (none.empty()) none = vector->read(0);
        return !first.empty() && !none.empty();
    }));
    EXPECT_EQ(first.front()->getValue0(), 7);
    EXPECT_EQ(none.front()->getValue0().size(), 0u);
}

TEST_F(Differences, the_same_refusals_where_both_check) {
    // Another element type, an unknown node, a method's node as a variable.
    EXPECT_EQ(publishTo<m2Types::M2FloatVector6>("M2DoubleVector6", vesk::duvo::shared_vector<const float>{1, 2}),
              std::make_pair(std::string("BadTypeMismatch"), std::string("BadTypeMismatch")));
    EXPECT_EQ(publishTo<m2Types::M2Uint16Value0>("M2Int16Value0", 3),
              std::make_pair(std::string("BadTypeMismatch"), std::string("BadTypeMismatch")));
    EXPECT_EQ(publishTo<m2Types::M2Int32Value0>("NoSuchVariable", 1),
              std::make_pair(std::string("BadNodeIdUnknown"), std::string("BadNodeIdUnknown")));
}

TEST_F(Differences, calls_with_arguments_the_method_does_not_take) {
    // A Boolean where the method takes a Byte: open62541 answers BadInvalidArgument (with the
    // argument's own BadTypeMismatch in the input argument results), node-opcua BadTypeMismatch.
    const auto wrongType =
        callAt<m2Types::PsRpcSetpowerSync>("OpRpcSystemResetErrors", "OpRpcSystemResetErrors.RPC_ResetErrors",
                                           [](auto& s) { return s.RPC_SetPower(true); });
    EXPECT_EQ(wrongType.first, "RPC call failed: BadInvalidArgument");
    EXPECT_EQ(wrongType.second, "RPC call failed: BadTypeMismatch");

    // An array where the method takes a scalar: the same split.
    const auto arrayForScalar =
        callAt<m2Types::PsRpcLegPositionSetpointSync>("OpRpcSystemStop", "OpRpcSystemStop.RPC_Stop", [](auto& s) {
            return s.RPC_LegPositionSetpoint(vesk::duvo::shared_vector<const double>{1.0});
        });
    EXPECT_EQ(arrayForScalar.first, "RPC call failed: BadInvalidArgument");
    EXPECT_EQ(arrayForScalar.second, "RPC call failed: BadTypeMismatch");

    // One argument where the method takes three, and sixteen where it takes one: both agree.
    const auto tooFew =
        callAt<m2Types::PsRpcSetpowerSync>("OpRpcSystemBuiltInTest", "OpRpcSystemBuiltInTest.RPC_BuiltInTest",
                                           [](auto& s) { return s.RPC_SetPower(true); });
    EXPECT_EQ(tooFew.first, "RPC call failed: BadArgumentsMissing");
    EXPECT_EQ(tooFew.second, "RPC call failed: BadArgumentsMissing");
    const auto tooMany =
        callAt<m2Types::WhRpcDeadZoneCalibrationAdsSync>("PsRpcSetpower", "PsRpcSetpower.RPC_SetPower", [](auto& s) {
            return s.RPC_DeadZoneCalibrationAds(true, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
        });
    EXPECT_EQ(tooMany.first, "RPC call failed: BadTooManyArguments");
    EXPECT_EQ(tooMany.second, "RPC call failed: BadTooManyArguments");
}

TEST_F(Differences, a_method_called_on_an_object_it_does_not_belong_to) {
    // open62541 checks that the object has the method; node-opcua runs the method anyway.
    const auto calls = [&] { return raw->raw.read("PsRpcSetpower.RPC_SetPower.CallCount").at<UA_UInt32>(); };
    const UA_UInt32 before = calls();
    const auto result = callAt<m2Types::PsRpcSetpowerSync>("WhRpcSetpower", "PsRpcSetpower.RPC_SetPower",
                                                           [](auto& s) { return s.RPC_SetPower(true); });
    EXPECT_EQ(result.first, "RPC call failed: BadMethodInvalid");
    EXPECT_EQ(result.second, "true");
    EXPECT_EQ(calls(), before + 1);
}

TEST(NodeServerProcess, announces_its_endpoint_and_stops_on_sigterm) {
    interop::Availability availability;
    if (!interop::sharedServer(availability)) {
        if (availability.skip) GTEST_SKIP() << "interop tests skipped, " << availability.reason;
        FAIL() << availability.reason;
    }
    interop::NodeServer::Paths paths{interop::NodeServer::findNode(), INTEROP_SERVER_SCRIPT, INTEROP_CATALOGUE,
                                     interop::workDir() + "/second", interop::workDir() + "/pki"};
    interop::NodeServer second(paths, std::chrono::seconds(120));
    EXPECT_EQ(second.endpoint().rfind("opc.tcp://127.0.0.1:", 0), 0u) << second.endpoint();
    {
        RawClient client(second.endpoint());
        EXPECT_TRUE(client.read("M2BooleanValue0").hasType(&UA_TYPES[UA_TYPES_BOOLEAN]));
    }
    // node-opcua's shutdown takes seconds on a loaded machine: the grace is generous, and the
    // test still ends as soon as the process exits.
    EXPECT_TRUE(second.stop(std::chrono::seconds(60))) << "did not exit cleanly on SIGTERM";
}

} // namespace
} // namespace duvo::test
