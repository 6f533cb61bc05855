#pragma once
// The two servers the publish, subscribe and call bodies run against: our simulator, and
// node-opcua (interop/server.js) as an independent implementation. A body sees either through
// Server, as a device or an engineer would, and makes its entities through the loaded plug-in.
#include <generated/opcua/m2Types/m2Types.hpp>

#include "interop/nodeServer.hpp"
#include "support/prelude.hpp"
#include "support/rawClient.hpp"
#include "support/simulatorFixture.hpp"

namespace duvo::test {

using vesk::duvo::sim::CallRecord;
using vesk::duvo::sim::SourceTime;

class Server {
public:
    virtual ~Server() = default;
    /// Writes the variable, as a device would.
    virtual void write(const std::string& variable, const UA_Variant& value) = 0;
    virtual OwnedVariant read(const std::string& variable) = 0;
    virtual SourceTime sourceTime(const std::string& variable) = 0;
    /// The calls of the method so far; the count only grows.
    virtual CallRecord calls(const std::string& iface, const std::string& method) = 0;
    /// What the method's later calls return.
    virtual void answer(const std::string& iface, const std::string& method, bool result) = 0;

    /// Writes T's variable through T's binding.
    template <class Type>
    void writeValue(const typename Type::value_type& value) {
        vesk::duvo::opcua::detail::binding::BindingOf_t<Type> sample;
        sample.setValue0(value);
        write(Type::typeName, sample.getOpcUaDataValues()->value);
    }
    /// The value the server holds for T, decoded apart from the binding.
    template <class Type>
    typename Type::value_type value() {
        return valueOf<Type>(*read(Type::typeName));
    }
};

class SimulatorServer : public Server {
public:
    explicit SimulatorServer(vesk::duvo::sim::Simulator& sim) : sim_(sim) {}
    void write(const std::string& variable, const UA_Variant& value) override { sim_.write(variable, value); }
    OwnedVariant read(const std::string& variable) override { return sim_.read(variable); }
    SourceTime sourceTime(const std::string& variable) override { return sim_.sourceTime(variable); }
    CallRecord calls(const std::string& iface, const std::string&) override { return sim_.calls(iface); }
    void answer(const std::string& iface, const std::string&, bool result) override {
        vesk::duvo::sim::Reply reply;
        reply.result = result;
        sim_.setReply(iface, reply);
    }

private:
    vesk::duvo::sim::Simulator& sim_;
};

/// node-opcua keeps each method's record in variables beside it (interop/server.js).
class NodeOpcuaServer : public Server {
public:
    NodeOpcuaServer(const std::string& endpoint, bool secure) : raw(endpoint, secure) {}
    void write(const std::string& variable, const UA_Variant& value) override {
        ASSERT_EQ(raw.write(variable, value), UA_STATUSCODE_GOOD) << variable;
    }
    OwnedVariant read(const std::string& variable) override { return raw.read(variable); }
    SourceTime sourceTime(const std::string& variable) override {
        UA_DataValue dv = raw.readAttribute(stringNode(variable), UA_ATTRIBUTEID_VALUE);
        const SourceTime time{dv.hasSourceTimestamp, dv.sourceTimestamp, dv.sourcePicoseconds};
        UA_DataValue_clear(&dv);
        return time;
    }
    CallRecord calls(const std::string& iface, const std::string& method) override {
        const std::string node = iface + "." + method;
        CallRecord record;
        record.count = raw.read(node + ".CallCount").at<UA_UInt32>();
        const OwnedVariant last = raw.read(node + ".LastCall");
        for (std::size_t i = 0; last->type == &UA_TYPES[UA_TYPES_VARIANT] && i < last.arrayLength(); ++i)
            record.lastArguments.emplace_back(last.at<UA_Variant>(i));
        return record;
    }
    void answer(const std::string& iface, const std::string& method, bool result) override {
        UA_Boolean b = result;
        UA_Variant v;
        UA_Variant_setScalar(&v, &b, &UA_TYPES[UA_TYPES_BOOLEAN]);
        write(iface + "." + method + ".Result", v);
    }

    RawClient raw;
};

/// The simulator's side of a body run over both servers.
class OnSimulator : public SimulatorSuite {
public:
    void SetUp() override {
        SimulatorSuite::SetUp();
        server = std::make_unique<SimulatorServer>(*simulator);
    }
    /// Middleware whose entities read these properties (and connect as the suite does).
    std::shared_ptr<OpcUaDuvo> middleware(Properties properties = {}) const {
        for (const auto& [key, value] : duvo->properties()) properties.emplace(key, value);
        return std::make_shared<OpcUaDuvo>(std::move(properties));
    }
    using SimulatorSuite::psUri;
    using SimulatorSuite::rrUri;
    std::unique_ptr<Server> server;
};

/// node-opcua's side: one server per program. It skips when node is absent and the run does
/// not require it (DUVO_REQUIRE_INTEROP), and fails when the server should run and does not.
class OnNodeServer : public ::testing::Test {
public:
    void SetUp() override {
        interop::Availability availability;
        node = interop::sharedServer(availability);
        if (!node) {
            if (availability.skip) GTEST_SKIP() << "interop tests skipped, " << availability.reason;
            FAIL() << availability.reason;
        }
        raw = std::make_unique<NodeOpcuaServer>(node->endpoint(), interop::secure());
        server = raw.get();
    }
    std::shared_ptr<OpcUaDuvo> middleware(Properties properties = {}) const {
        properties.emplace("opc.asyncCallSubmitTimeoutMs", std::to_string(kWait.count()));
        if (interop::secure())
            for (auto& [key, value] : securePki().clientProperties(interop::secureClientPki()))
                properties.emplace(key, value);
        return std::make_shared<OpcUaDuvo>(std::move(properties));
    }
    std::string psUri(const std::string& variable) const {
        return vesk::duvo::sim::pubSubUri(node->endpoint(), variable);
    }
    std::string rrUri(const std::string& iface, const std::string& method) const {
        return vesk::duvo::sim::rpcUri(node->endpoint(), iface, method);
    }

    interop::NodeServer* node = nullptr;
    std::unique_ptr<NodeOpcuaServer> raw;
    Server* server = nullptr;
};

} // namespace duvo::test

/// One body, run as Name in the typed suites SimSuite (over OnSimulator) and NodeSuite (over
/// OnNodeServer); the body sees its fixture as f and the type as TypeParam.
#define TYPED_TEST_ON_BOTH(SimSuite, NodeSuite, Name)                                                                  \
    template <class TypeParam, class Fixture>                                                                          \
    void Name##OnBoth(Fixture& f);                                                                                     \
    TYPED_TEST(SimSuite, Name) { Name##OnBoth<TypeParam>(*this); }                                                     \
    TYPED_TEST(NodeSuite, Name) { Name##OnBoth<TypeParam>(*this); }                                                    \
    template <class TypeParam, class Fixture>                                                                          \
    void Name##OnBoth(Fixture& f)

/// The same for a test of the suites SimSuite and NodeSuite.
#define TEST_ON_BOTH(SimSuite, NodeSuite, Name)                                                                        \
    template <class Fixture>                                                                                           \
    void Name##OnBoth(Fixture& f);                                                                                     \
    TEST_F(SimSuite, Name) { Name##OnBoth(*this); }                                                                    \
    TEST_F(NodeSuite, Name) { Name##OnBoth(*this); }                                                                   \
    template <class Fixture>                                                                                           \
    void Name##OnBoth(Fixture& f)
