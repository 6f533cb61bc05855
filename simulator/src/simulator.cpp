#include <vesk/duvo/sim/simulator.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <open62541/plugin/accesscontrol_default.h>
#include <open62541/plugin/pki_default.h>
#include <open62541/server.h>
#include <open62541/server_config_default.h>

#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>

#include "nodeCatalogue.hpp"
#include "openAccess.hpp"
#include "stderrLogger.hpp"

namespace vesk::duvo::sim {

namespace {

// UA_Server_run_iterate may sleep up to half a second and nothing wakes it from another
// thread, so the loop runs the event loop itself with this bound, which bounds stop().
constexpr UA_UInt32 kMaxWaitMs = 20;

// Writes made by the simulator itself (helpers, animation) are not counted as client writes.
thread_local bool serverSideWrite = false;

struct ServerSideWrite {
    ServerSideWrite() noexcept { serverSideWrite = true; }
    ~ServerSideWrite() { serverSideWrite = false; }
    ServerSideWrite(const ServerSideWrite&) = delete;
    ServerSideWrite& operator=(const ServerSideWrite&) = delete;
};

/// A node id that borrows the characters of name.
UA_NodeId nodeId(const std::string& name) { return UA_NODEID_STRING(nodeNamespace, const_cast<char*>(name.c_str())); }

UA_LocalizedText text(const std::string& s) {
    return UA_LOCALIZEDTEXT(const_cast<char*>(""), const_cast<char*>(s.c_str()));
}

UA_QualifiedName browseName(const std::string& s) {
    return UA_QUALIFIEDNAME(nodeNamespace, const_cast<char*>(s.c_str()));
}

std::string statusName(UA_StatusCode status) { return UA_StatusCode_name(status); }

void check(UA_StatusCode status, const std::string& what) {
    if (status != UA_STATUSCODE_GOOD) throw std::runtime_error(what + ": " + statusName(status));
}

// open62541 refuses a one-dimensional node or argument without dimensions; 0 is "any length".
UA_UInt32 anyLength[1] = {0};

UA_Byte accessLevel(bool writable) {
    return writable ? UA_ACCESSLEVELMASK_READ | UA_ACCESSLEVELMASK_WRITE : UA_ACCESSLEVELMASK_READ;
}

bool listed(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// Zero, the empty string, or the nominal length of those.
OwnedVariant initialValue(detail::VariableNode def) {
    UA_Variant v;
    UA_Variant_init(&v);
    if (def.vector) {
        void* data = UA_Array_new(def.nominalLength, def.type);
        if (!data) throw std::bad_alloc();
        UA_Variant_setArray(&v, data, def.nominalLength, def.type);
    } else {
        void* data = UA_new(def.type);
        if (!data) throw std::bad_alloc();
        UA_Variant_setScalar(&v, data, def.type);
    }
    return OwnedVariant::adopt(v);
}

bool listensEverywhere(const std::string& address) {
    return address.empty() || address == "0.0.0.0" || address == "::";
}

std::string urlHost(const std::string& address) {
    return address.find(':') != std::string::npos ? "[" + address + "]" : address;
}

/// The port the server listens on, from the discovery URLs it adds once its sockets are open.
std::uint16_t listeningPort(UA_Server* server) {
    const UA_ApplicationDescription& app = UA_Server_getConfig(server)->applicationDescription;
    for (std::size_t i = 0; i < app.discoveryUrlsSize; ++i) {
        UA_String host = UA_STRING_NULL;
        UA_String path = UA_STRING_NULL;
        UA_UInt16 port = 0;
        if (UA_parseEndpointUrl(&app.discoveryUrls[i], &host, &port, &path) == UA_STATUSCODE_GOOD && port != 0)
            return port;
    }
    return 0;
}

/// open62541 listens with SO_REUSEPORT, so a second server on a busy port would start and
/// share it; a plain bind finds the listener (and ignores closed connections in TIME_WAIT).
void ensurePortFree(const std::string& address, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (::getaddrinfo(listensEverywhere(address) ? nullptr : address.c_str(), service.c_str(), &hints, &found) != 0)
        throw std::runtime_error("cannot resolve the bind address " + address);
    int error = 0;
    for (addrinfo* a = found; a && error == 0; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        int on = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (::bind(fd, a->ai_addr, a->ai_addrlen) != 0) error = errno;
        ::close(fd);
    }
    ::freeaddrinfo(found);
    if (error != 0)
        throw std::runtime_error("cannot listen on " + address + ":" + service + ": " + std::strerror(error));
}

void noop(UA_Server*, void*) {}

} // namespace

struct Simulator::Impl {
    struct VariableState {
        Impl* owner;
        const detail::VariableNode* def;
        std::string name;
        std::string node; // its node's string identifier
        std::size_t clientWrites = 0;
        bool writable = true;
    };

    struct InterfaceState {
        Impl* owner;
        const detail::MethodNode* def;
        std::string name;
        std::string methodNode;
        Reply reply;
        CallRecord record;
    };

    explicit Impl(Options o) : options_(std::move(o)), port_(options_.port) {
        for (const auto& def : detail::variableNodes())
            variables_.push_back({this, &def, def.name, fieldNodeName(def.name)});
        for (const auto& def : detail::methodNodes())
            interfaces_.push_back({this, &def, def.iface, methodNodeName(def.iface, def.method), {}, {}});
    }

    VariableState& variable(const std::string& name) {
        auto it = std::find_if(variables_.begin(), variables_.end(), [&](const auto& v) { return v.name == name; });
        if (it == variables_.end()) throw std::invalid_argument("unknown variable '" + name + "'");
        return *it;
    }

    InterfaceState& iface(const std::string& name) {
        auto it = std::find_if(interfaces_.begin(), interfaces_.end(), [&](const auto& i) { return i.name == name; });
        if (it == interfaces_.end()) throw std::invalid_argument("unknown interface '" + name + "'");
        return *it;
    }

    UA_Server* requireServer() const {
        if (!server_) throw std::logic_error("the simulator is not running");
        return server_;
    }

    void start();
    UA_StatusCode configureSecurity(UA_ServerConfig& config);
    static constexpr const char* applicationUri = "urn:duvo:m2-sim";
    void stop();
    void addVariables(UA_Server* s);
    void addMethods(UA_Server* s);

    static void onWrite(UA_Server*, const UA_NodeId*, void*, const UA_NodeId*, void* nodeContext,
                        const UA_NumericRange*, const UA_DataValue*);
    static UA_StatusCode onCall(UA_Server*, const UA_NodeId*, void*, const UA_NodeId*, void* methodContext,
                                const UA_NodeId*, void*, size_t inputSize, const UA_Variant* input, size_t outputSize,
                                UA_Variant* output);
    static void animate(UA_Server* server, void* data);

    const Options options_;
    std::uint16_t port_;
    std::string certificate_; // DER, once a start made or read it
    // Sized once: the nodes keep pointers to their entries.
    std::vector<VariableState> variables_;
    std::vector<InterfaceState> interfaces_;

    // Guards the states above and `stopping_`; `changed_` signals writes and stop.
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool stopping_ = false;

    // Guards the server's lifetime against the helpers.
    mutable std::mutex serverMutex_;
    UA_Server* server_ = nullptr;
    std::thread loop_;
    std::atomic<bool> iterating_{false};
    std::atomic<bool> running_{false};
    std::uint64_t animationTick_ = 0; // iterate thread only
};

void Simulator::Impl::onWrite(UA_Server*, const UA_NodeId*, void*, const UA_NodeId*, void* nodeContext,
                              const UA_NumericRange*, const UA_DataValue*) {
    if (serverSideWrite) return;
    auto* state = static_cast<VariableState*>(nodeContext);
    {
        std::lock_guard<std::mutex> lock(state->owner->mutex_);
        ++state->clientWrites;
    }
    state->owner->changed_.notify_all();
}

UA_StatusCode Simulator::Impl::onCall(UA_Server*, const UA_NodeId*, void*, const UA_NodeId*, void* methodContext,
                                      const UA_NodeId*, void*, size_t inputSize, const UA_Variant* input,
                                      size_t outputSize, UA_Variant* output) {
    auto* state = static_cast<InterfaceState*>(methodContext);
    Impl& impl = *state->owner;
    Reply reply;
    try {
        std::vector<OwnedVariant> arguments(input, input + inputSize);
        std::lock_guard<std::mutex> lock(impl.mutex_);
        ++state->record.count;
        state->record.lastArguments = std::move(arguments);
        reply = state->reply;
    } catch (const std::bad_alloc&) {
        return UA_STATUSCODE_BADOUTOFMEMORY;
    }
    if (reply.delay.count() > 0) {
        std::unique_lock<std::mutex> lock(impl.mutex_);
        impl.changed_.wait_for(lock, reply.delay, [&] { return impl.stopping_; });
    }
    if (reply.status != UA_STATUSCODE_GOOD) return reply.status;
    if (outputSize < 1) return UA_STATUSCODE_BADINTERNALERROR;
    if (reply.wrongOutputType) {
        UA_Int32 one = 1;
        return UA_Variant_setScalarCopy(&output[0], &one, &UA_TYPES[UA_TYPES_INT32]);
    }
    UA_Boolean result = reply.result;
    return UA_Variant_setScalarCopy(&output[0], &result, &UA_TYPES[UA_TYPES_BOOLEAN]);
}

void Simulator::Impl::animate(UA_Server* server, void* data) {
    auto& impl = *static_cast<Impl*>(data);
    const std::uint64_t tick = ++impl.animationTick_;
    const double t = static_cast<double>(tick) * 0.1;
    UA_Float floats[6];
    UA_Double doubles[6];
    for (int i = 0; i < 6; ++i) {
        floats[i] = static_cast<UA_Float>(std::sin(t + i));
        doubles[i] = std::cos(t + i) * 10.0;
    }
    UA_Int32 counter = static_cast<UA_Int32>(tick % 1000000);
    UA_Boolean toggle = tick % 2 == 1;

    UA_Variant v;
    ServerSideWrite guard;
    UA_Variant_setArray(&v, floats, 6, &UA_TYPES[UA_TYPES_FLOAT]);
    UA_Server_writeValue(server, nodeId(fieldNodeName("M2FloatVector6")), v);
    UA_Variant_setArray(&v, doubles, 6, &UA_TYPES[UA_TYPES_DOUBLE]);
    UA_Server_writeValue(server, nodeId(fieldNodeName("M2DoubleVector6")), v);
    UA_Variant_setScalar(&v, &counter, &UA_TYPES[UA_TYPES_INT32]);
    UA_Server_writeValue(server, nodeId(fieldNodeName("M2Int32Value0")), v);
    UA_Variant_setScalar(&v, &toggle, &UA_TYPES[UA_TYPES_BOOLEAN]);
    UA_Server_writeValue(server, nodeId(fieldNodeName("M2BooleanValue0")), v);
}

void Simulator::Impl::addVariables(UA_Server* s) {
    const UA_NodeId objects = UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER);
    for (auto& state : variables_) {
        detail::VariableNode def = *state.def;
        if (listed(options_.otherDataType, state.name))
            def.type = def.type == &UA_TYPES[UA_TYPES_DOUBLE] ? &UA_TYPES[UA_TYPES_FLOAT] : &UA_TYPES[UA_TYPES_DOUBLE];
        const OwnedVariant initial = initialValue(def);
        UA_VariableAttributes attr = UA_VariableAttributes_default;
        attr.displayName = text(state.name);
        attr.dataType = def.type->typeId;
        if (state.def->vector) {
            attr.valueRank = UA_VALUERANK_ONE_DIMENSION;
            attr.arrayDimensions = anyLength;
            attr.arrayDimensionsSize = 1;
        } else {
            attr.valueRank = UA_VALUERANK_SCALAR;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            attr.accessLevel = attr.userAccessLevel = accessLevel(state.writable);
        }
        attr.value = *initial; // copied by the server
        check(UA_Server_addVariableNode(s, nodeId(state.node), objects, UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                        browseName(state.name), UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATAVARIABLETYPE),
                                        attr, &state, nullptr),
              "cannot add variable " + state.name);
        UA_ValueCallback callback{nullptr, &Impl::onWrite};
        check(UA_Server_setVariableNode_valueCallback(s, nodeId(state.node), callback),
              "cannot watch variable " + state.name);
    }
}

void Simulator::Impl::addMethods(UA_Server* s) {
    const UA_NodeId objects = UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER);
    const std::string resultName = "result";
    for (auto& state : interfaces_) {
        UA_ObjectAttributes objectAttr = UA_ObjectAttributes_default;
        objectAttr.displayName = text(state.name);
        const std::string objectNode = objectNodeName(state.name);
        check(UA_Server_addObjectNode(s, nodeId(objectNode), objects, UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                      browseName(state.name), UA_NODEID_NUMERIC(0, UA_NS0ID_BASEOBJECTTYPE), objectAttr,
                                      nullptr, nullptr),
              "cannot add object " + state.name);

        auto nodeArgs = state.def->arguments;
        if (listed(options_.lastArgumentDropped, state.name) && !nodeArgs.empty()) nodeArgs.pop_back();
        std::vector<std::string> names(nodeArgs.size());
        std::vector<UA_Argument> inputs(nodeArgs.size());
        for (std::size_t i = 0; i < nodeArgs.size(); ++i) {
            names[i] = "arg" + std::to_string(i);
            UA_Argument_init(&inputs[i]);
            inputs[i].name = UA_STRING(const_cast<char*>(names[i].c_str()));
            inputs[i].dataType = nodeArgs[i].type->typeId;
            if (nodeArgs[i].array) {
                inputs[i].valueRank = UA_VALUERANK_ONE_DIMENSION;
                inputs[i].arrayDimensions = anyLength;
                inputs[i].arrayDimensionsSize = 1;
            } else {
                inputs[i].valueRank = UA_VALUERANK_SCALAR;
            }
        }
        UA_Argument output;
        UA_Argument_init(&output);
        output.name = UA_STRING(const_cast<char*>(resultName.c_str()));
        output.dataType = UA_TYPES[UA_TYPES_BOOLEAN].typeId;
        output.valueRank = UA_VALUERANK_SCALAR;

        UA_MethodAttributes methodAttr = UA_MethodAttributes_default;
        methodAttr.displayName = text(state.def->method);
        methodAttr.executable = methodAttr.userExecutable = true;
        check(UA_Server_addMethodNode(s, nodeId(state.methodNode), nodeId(objectNode),
                                      UA_NODEID_NUMERIC(0, UA_NS0ID_HASCOMPONENT), browseName(state.def->method),
                                      methodAttr, &Impl::onCall, inputs.size(), inputs.data(), 1, &output, &state,
                                      nullptr),
              "cannot add method " + state.methodNode);
    }
}

namespace {

std::vector<std::pair<std::string, std::string>> readUsers(const std::string& path) {
    std::vector<std::pair<std::string, std::string>> users;
    std::istringstream in(pki::readFile(path));
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const auto colon = line.find(':');
        if (line.empty() || line[0] == '#') continue;
        if (colon == std::string::npos || colon == 0)
            throw std::runtime_error("a line of " + path + " is not \"name:password\"");
        users.emplace_back(line.substr(0, colon), line.substr(colon + 1));
    }
    return users;
}

UA_ByteString view(const std::string& s) { return {s.size(), reinterpret_cast<UA_Byte*>(const_cast<char*>(s.data()))}; }

} // namespace

// The security policies, the check of client certificates and the logins.
UA_StatusCode Simulator::Impl::configureSecurity(UA_ServerConfig& config) {
    UA_StatusCode status = UA_STATUSCODE_GOOD;
    if (options_.security == Options::Security::None) {
        status = UA_ServerConfig_addSecurityPolicyNone(&config, nullptr);
    } else {
        if (options_.pkiDir.empty())
            throw std::runtime_error("a secure simulator needs a PKI folder (Options::pkiDir)");
        const std::string certPath = options_.pkiDir + "/own/cert.der", keyPath = options_.pkiDir + "/own/key.der";
        if (!std::filesystem::exists(certPath) || !std::filesystem::exists(keyPath))
            pki::createSelfSigned(applicationUri, "m2-sim@localhost", certPath, keyPath);
        certificate_ = pki::toDer(pki::readFile(certPath));
        std::string key = pki::toDer(pki::readFile(keyPath));
        const UA_ByteString cert = view(certificate_), privateKey = view(key);
        UA_String_clear(&config.applicationDescription.applicationUri);
        config.applicationDescription.applicationUri = UA_STRING_ALLOC(applicationUri);
        // A None channel stays possible for discovery even without a None endpoint.
        status = UA_ServerConfig_addSecurityPolicyNone(&config, &cert);
        if (status == UA_STATUSCODE_GOOD)
            status = UA_ServerConfig_addSecurityPolicyBasic256Sha256(&config, &cert, &privateKey);
        if (status == UA_STATUSCODE_GOOD)
            status = UA_ServerConfig_addSecurityPolicyAes128Sha256RsaOaep(&config, &cert, &privateKey);
        if (status == UA_STATUSCODE_GOOD)
            status = UA_ServerConfig_addSecurityPolicyAes256Sha256RsaPss(&config, &cert, &privateKey);
        std::fill(key.begin(), key.end(), '\0');
        const auto trusted = pki::certificatesIn(options_.pkiDir + "/trusted");
        if (status == UA_STATUSCODE_GOOD && !trusted.empty()) {
            std::vector<UA_ByteString> list;
            for (const auto& t : trusted) list.push_back(view(t));
            for (UA_CertificateVerification* cv : {&config.secureChannelPKI, &config.sessionPKI}) {
                if (cv->clear) cv->clear(cv);
                if (status == UA_STATUSCODE_GOOD)
                    status = UA_CertificateVerification_Trustlist(cv, list.data(), list.size(), nullptr, 0, nullptr, 0);
            }
        }
    }
    if (status != UA_STATUSCODE_GOOD) return status;
    if (options_.usersFile.empty()) return detail::setOpenAccess(config);
    const auto users = readUsers(options_.usersFile);
    std::vector<UA_UsernamePasswordLogin> logins;
    for (const auto& [name, password] : users)
        logins.push_back({UA_STRING(const_cast<char*>(name.c_str())), view(password)});
    if (config.accessControl.clear) config.accessControl.clear(&config.accessControl);
    // Passwords travel encrypted: with security, the strongest policy of the server encrypts them.
    // With security each endpoint's own policy encrypts the password; without, it goes as it is.
    const UA_String none = UA_STRING(const_cast<char*>("http://opcfoundation.org/UA/SecurityPolicy#None"));
    const bool plain = options_.security == Options::Security::None;
    config.allowNonePolicyPassword = plain;
    return UA_AccessControl_default(&config, false, plain ? &none : nullptr, logins.size(), logins.data());
}

void Simulator::Impl::start() {
    if (server_) return;
    if (port_ != 0) ensurePortFree(options_.bindAddress, port_);
    UA_ServerConfig config;
    std::memset(&config, 0, sizeof config);
    config.logging = detail::newStderrLogger(options_.logLevel);
    // What UA_ServerConfig_setMinimal sets up, with an access control of our own.
    UA_StatusCode status = UA_ServerConfig_setBasics_withPort(&config, port_);
    try {
        if (status == UA_STATUSCODE_GOOD) status = configureSecurity(config);
    } catch (...) {
        UA_ServerConfig_clean(&config);
        throw;
    }
    if (status == UA_STATUSCODE_GOOD)
        status = options_.security == Options::Security::Secure ? UA_ServerConfig_addAllSecureEndpoints(&config)
                                                                : UA_ServerConfig_addAllEndpoints(&config);
    if (status != UA_STATUSCODE_GOOD) {
        UA_ServerConfig_clean(&config);
        check(status, "cannot configure the simulator");
    }
    // Without an address in its URL the server listens on every interface.
    const std::string host = listensEverywhere(options_.bindAddress) ? "" : urlHost(options_.bindAddress);
    const std::string url = "opc.tcp://" + host + ":" + std::to_string(port_);
    UA_Array_delete(config.serverUrls, config.serverUrlsSize, &UA_TYPES[UA_TYPES_STRING]);
    config.serverUrls = UA_String_new();
    *config.serverUrls = UA_STRING_ALLOC(url.c_str());
    config.serverUrlsSize = 1;
    config.tcpReuseAddr = true; // a restart must not wait for the old sockets to expire
    // The stack's floors (100 ms, 50 ms) would slow down every subscription of the tests.
    config.publishingIntervalLimits.min = 1.0;
    config.samplingIntervalLimits.min = 0.0;

    UA_Server* s = UA_Server_newWithConfig(&config);
    if (!s) {
        UA_ServerConfig_clean(&config);
        throw std::runtime_error("cannot create the simulator's server");
    }
    try {
        addVariables(s);
        addMethods(s);
        if (options_.animate)
            check(UA_Server_addRepeatedCallback(
                      s, &Impl::animate, this,
                      static_cast<double>(std::max<long long>(1, options_.animationPeriod.count())), nullptr),
                  "cannot add the animation");
        check(UA_Server_run_startup(s), "cannot start the simulator on " + url);
        const std::uint16_t actual = port_ != 0 ? port_ : listeningPort(s);
        if (actual == 0) {
            UA_Server_run_shutdown(s);
            throw std::runtime_error("the simulator found no listening port for " + url);
        }
        port_ = actual;
    } catch (...) {
        UA_Server_delete(s);
        throw;
    }
    server_ = s;
    iterating_ = true;
    UA_EventLoop* eventLoop = UA_Server_getConfig(s)->eventLoop;
    loop_ = std::thread([this, eventLoop] {
        while (iterating_.load()) eventLoop->run(eventLoop, kMaxWaitMs);
    });
    running_ = true;
}

void Simulator::Impl::stop() {
    if (!server_) return;
    running_ = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true; // releases delayed replies
    }
    changed_.notify_all();
    iterating_ = false;
    loop_.join();
    // The shutdown runs the event loop until its sockets are gone, each round waiting for
    // the next timer or 100 ms; a close timer ends those waits early.
    UA_Server_addRepeatedCallback(server_, &noop, nullptr, 1.0, nullptr);
    UA_Server_run_shutdown(server_);
    UA_Server_delete(server_);
    server_ = nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = false;
}

Simulator::Simulator(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Simulator::~Simulator() { stop(); }

void Simulator::start() {
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    impl_->start();
}

void Simulator::stop() {
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    impl_->stop();
}

void Simulator::restart() {
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    impl_->stop();
    impl_->start();
}

bool Simulator::running() const { return impl_->running_; }

std::uint16_t Simulator::port() const {
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    return impl_->port_;
}

std::string Simulator::certificate() const { return impl_->certificate_; }

std::string Simulator::endpoint() const {
    const std::string& address = impl_->options_.bindAddress;
    const std::string host = listensEverywhere(address) ? "127.0.0.1" : urlHost(address);
    return "opc.tcp://" + host + ":" + std::to_string(port());
}

OwnedVariant Simulator::read(const std::string& variable) const {
    auto& state = impl_->variable(variable);
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    UA_Variant value;
    UA_Variant_init(&value);
    check(UA_Server_readValue(impl_->requireServer(), nodeId(state.node), &value), "cannot read " + variable);
    return OwnedVariant::adopt(value);
}

SourceTime Simulator::sourceTime(const std::string& variable) const {
    auto& state = impl_->variable(variable);
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    UA_ReadValueId id;
    UA_ReadValueId_init(&id);
    id.nodeId = nodeId(state.node);
    id.attributeId = UA_ATTRIBUTEID_VALUE;
    UA_DataValue value = UA_Server_read(impl_->requireServer(), &id, UA_TIMESTAMPSTORETURN_SOURCE);
    SourceTime out;
    out.present = value.hasSourceTimestamp;
    out.timestamp = value.sourceTimestamp;
    out.picoseconds = value.hasSourcePicoseconds ? value.sourcePicoseconds : 0;
    UA_DataValue_clear(&value);
    return out;
}

void Simulator::write(const std::string& variable, const UA_Variant& value) {
    auto& state = impl_->variable(variable);
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    ServerSideWrite guard;
    // Stamped like a device's own value, so that readers can tell new data from old.
    UA_WriteValue write;
    UA_WriteValue_init(&write);
    write.nodeId = nodeId(state.node);
    write.attributeId = UA_ATTRIBUTEID_VALUE;
    write.value.value = value;
    write.value.hasValue = true;
    write.value.sourceTimestamp = UA_DateTime_now();
    write.value.hasSourceTimestamp = true;
    check(UA_Server_write(impl_->requireServer(), &write), "cannot write " + variable);
}

std::size_t Simulator::writeCount(const std::string& variable) const {
    auto& state = impl_->variable(variable);
    std::lock_guard<std::mutex> lock(impl_->mutex_);
    return state.clientWrites;
}

bool Simulator::waitForWrites(const std::string& variable, std::size_t count, std::chrono::milliseconds timeout) const {
    auto& state = impl_->variable(variable);
    std::unique_lock<std::mutex> lock(impl_->mutex_);
    return impl_->changed_.wait_for(lock, timeout, [&] { return state.clientWrites >= count; });
}

void Simulator::setWritable(const std::string& variable, bool writable) {
    auto& state = impl_->variable(variable);
    std::lock_guard<std::mutex> lock(impl_->serverMutex_);
    {
        std::lock_guard<std::mutex> stateLock(impl_->mutex_);
        state.writable = writable;
    }
    if (impl_->server_)
        check(UA_Server_writeAccessLevel(impl_->server_, nodeId(state.node), accessLevel(writable)),
              "cannot change the access level of " + variable);
}

CallRecord Simulator::calls(const std::string& iface) const {
    auto& state = impl_->iface(iface);
    std::lock_guard<std::mutex> lock(impl_->mutex_);
    return state.record;
}

void Simulator::clearRecords() {
    std::lock_guard<std::mutex> lock(impl_->mutex_);
    for (auto& v : impl_->variables_) v.clientWrites = 0;
    for (auto& i : impl_->interfaces_) i.record = CallRecord{};
}

void Simulator::setReply(const Reply& reply) {
    std::lock_guard<std::mutex> lock(impl_->mutex_);
    for (auto& i : impl_->interfaces_) i.reply = reply;
}

void Simulator::setReply(const std::string& iface, const Reply& reply) {
    auto& state = impl_->iface(iface);
    std::lock_guard<std::mutex> lock(impl_->mutex_);
    state.reply = reply;
}

std::vector<std::string> Simulator::variableNames() {
    std::vector<std::string> names;
    for (const auto& def : detail::variableNodes()) names.emplace_back(def.name);
    return names;
}

std::vector<std::string> Simulator::interfaceNames() {
    std::vector<std::string> names;
    for (const auto& def : detail::methodNodes()) names.emplace_back(def.iface);
    return names;
}

} // namespace vesk::duvo::sim
