#include "testServer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <open62541/server_config_default.h>

namespace duvo::test {

namespace {

void quiet(void*, UA_LogLevel level, UA_LogCategory, const char* msg, va_list args) {
    if (level < UA_LOGLEVEL_FATAL) return; // a server cut off by the tests complains a lot
    std::vfprintf(stderr, msg, args);
    std::fputc('\n', stderr);
}
UA_Logger quietLogger{&quiet, nullptr, nullptr};

UA_StatusCode sleep(UA_Server*, const UA_NodeId*, void*, const UA_NodeId*, void*, const UA_NodeId*, void*, size_t,
                    const UA_Variant* input, size_t, UA_Variant* output) {
    const UA_UInt32 ms = *static_cast<UA_UInt32*>(input[0].data);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return UA_Variant_setScalarCopy(output, &ms, &UA_TYPES[UA_TYPES_UINT32]);
}

sockaddr_in loopback(unsigned port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

UA_Argument argument(const char* name, UA_UInt32 type) {
    UA_Argument a;
    UA_Argument_init(&a);
    a.name = UA_STRING(const_cast<char*>(name));
    a.dataType = UA_TYPES[type].typeId;
    a.valueRank = UA_VALUERANK_SCALAR;
    return a;
}

} // namespace

unsigned freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        throw std::runtime_error("no free port");
    ::close(fd);
    return ntohs(a.sin_port);
}

TestServer::TestServer() : port_(static_cast<UA_UInt16>(freePort())) { start(); }

TestServer::~TestServer() { stop(); }

void TestServer::start() {
    UA_ServerConfig config;
    std::memset(&config, 0, sizeof config);
    config.logging = &quietLogger;
    UA_ServerConfig_setMinimal(&config, port_, nullptr);
    // Loopback only, and no lower bound that would merge changes between publishes.
    UA_Array_delete(config.serverUrls, config.serverUrlsSize, &UA_TYPES[UA_TYPES_STRING]);
    config.serverUrls = UA_String_new();
    *config.serverUrls = UA_STRING_ALLOC(endpoint().c_str());
    config.serverUrlsSize = 1;
    config.publishingIntervalLimits.min = 5;
    config.samplingIntervalLimits.min = 0;
    config.monitoredItemRegisterCallback = &TestServer::onItem;
    server_ = UA_Server_newWithConfig(&config);
    addNodes();
    if (UA_Server_run_startup(server_) != UA_STATUSCODE_GOOD) throw std::runtime_error("test server did not start");
    running_ = true;
    thread_ = std::thread([this] {
        while (running_) {
            idle_ = paused_.load();
            if (idle_)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            else
                UA_Server_run_iterate(server_, true);
        }
    });
}

void TestServer::stop() {
    if (server_ == nullptr) return;
    running_ = false;
    poke();
    thread_.join();
    UA_Server_run_shutdown(server_);
    UA_Server_delete(server_);
    server_ = nullptr;
}

// A connection that opens and closes ends the server's wait for network events at once.
void TestServer::poke() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(port_);
    ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::close(fd);
}

void TestServer::pause() {
    paused_ = true;
    poke();
    while (running_ && !idle_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void TestServer::addNodes() {
    const auto ns1 = [](const char* s) { return UA_NODEID_STRING(1, const_cast<char*>(s)); };
    const auto variable = [&](const char* name, const void* value, UA_UInt32 type) {
        UA_VariableAttributes attr = UA_VariableAttributes_default;
        UA_Variant_setScalar(&attr.value, const_cast<void*>(value), &UA_TYPES[type]);
        attr.dataType = UA_TYPES[type].typeId;
        attr.accessLevel = UA_ACCESSLEVELMASK_READ | UA_ACCESSLEVELMASK_WRITE;
        UA_Server_addVariableNode(server_, ns1(name), UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER),
                                  UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                  UA_QUALIFIEDNAME(1, const_cast<char*>(name)),
                                  UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATAVARIABLETYPE), attr, this, nullptr);
    };
    const UA_Double d = 0;
    const UA_Int32 i = 0;
    const UA_String s = UA_STRING_NULL;
    variable("Double", &d, UA_TYPES_DOUBLE);
    variable("Int32", &i, UA_TYPES_INT32);
    variable("String", &s, UA_TYPES_STRING);

    UA_ObjectAttributes objectAttr = UA_ObjectAttributes_default;
    UA_Server_addObjectNode(server_, ns1("Methods"), UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER),
                            UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES), UA_QUALIFIEDNAME(1, const_cast<char*>("Methods")),
                            UA_NODEID_NUMERIC(0, UA_NS0ID_BASEOBJECTTYPE), objectAttr, nullptr, nullptr);
    UA_MethodAttributes methodAttr = UA_MethodAttributes_default;
    methodAttr.executable = methodAttr.userExecutable = true;
    UA_Argument sleepIn = argument("ms", UA_TYPES_UINT32);
    UA_Argument sleepOut = argument("slept", UA_TYPES_UINT32);
    UA_Server_addMethodNode(server_, ns1("Methods.Sleep"), ns1("Methods"), UA_NODEID_NUMERIC(0, UA_NS0ID_HASCOMPONENT),
                            UA_QUALIFIEDNAME(1, const_cast<char*>("Sleep")), methodAttr, &sleep, 1, &sleepIn, 1,
                            &sleepOut, nullptr, nullptr);
}

void TestServer::writeDouble(const char* node, double value) {
    UA_Variant v;
    UA_Variant_setScalar(&v, &value, &UA_TYPES[UA_TYPES_DOUBLE]);
    if (UA_Server_writeValue(server_, UA_NODEID_STRING(1, const_cast<char*>(node)), v) != UA_STATUSCODE_GOOD)
        throw std::runtime_error("server-side write failed");
}

void TestServer::onItem(UA_Server*, const UA_NodeId*, void*, const UA_NodeId* nodeId, void* nodeContext, UA_UInt32,
                        UA_Boolean removed) {
    auto* self = static_cast<TestServer*>(nodeContext);
    if (self == nullptr || nodeId->identifierType != UA_NODEIDTYPE_STRING) return;
    const std::string name(reinterpret_cast<const char*>(nodeId->identifier.string.data),
                           nodeId->identifier.string.length);
    std::lock_guard<std::mutex> lock(self->countsMutex_);
    auto& count = self->counts_[name];
    (removed ? count.second : count.first) += 1;
}

int TestServer::itemsCreated(const std::string& node) {
    std::lock_guard<std::mutex> lock(countsMutex_);
    return counts_[node].first;
}

int TestServer::itemsDeleted(const std::string& node) {
    std::lock_guard<std::mutex> lock(countsMutex_);
    return counts_[node].second;
}

} // namespace duvo::test
