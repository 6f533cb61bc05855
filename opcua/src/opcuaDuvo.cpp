#include <vesk/duvo/opcua/opcuaDuvo.hpp>

#include <stdexcept>

#include <vesk/duvo/opcua/detail/security.hpp>

#include "logging.hpp"

namespace vesk::duvo::opcua::detail {

// Every entity and client of an application comes from an instance, so this is where the
// middleware's loggers are first used.
OpcUaDuvo::OpcUaDuvo(vesk::duvo::Duvo::Properties properties) : properties_(std::move(properties)) {
    setUpLogging(properties_);
}

OpcUaDuvo::~OpcUaDuvo() = default;

std::shared_ptr<OpcUaClient> OpcUaDuvo::getClient(const std::string& endpoint,
                                                  const std::map<std::string, std::string>& entityProperties) {
    // Security set on the middleware applies to every endpoint whose entity does not set its own.
    std::map<std::string, std::string> properties = entityProperties;
    for (const char* const* key = ClientSecurity::keys; *key; ++key)
        if (auto it = properties_.find(*key); it != properties_.end()) properties.emplace(*key, it->second);
    std::lock_guard<std::mutex> lock(clientsMutex_);
    for (auto it = clients_.begin(); it != clients_.end();) {
        if (it->second.client.expired())
            it = clients_.erase(it);
        else
            ++it;
    }
    auto& shared = clients_[endpoint];
    if (auto client = shared.client.lock()) {
        // One connection has one identity: sharing it with other credentials would be silent.
        const std::string differs = ClientSecurity::firstDifference(shared.properties, properties);
        if (!differs.empty())
            throw std::runtime_error("the client of " + endpoint + " already uses another value of DUVO property \"" +
                                     differs + "\": one endpoint has one client and one security");
        return client;
    }
    auto client = std::make_shared<OpcUaClient>(endpoint, properties);
    shared = SharedClient{client, properties};
    return client;
}

const PluginLoader& OpcUaDuvo::pluginLoader() {
    std::lock_guard<std::mutex> lock(loaderMutex_);
    if (!loader_) {
        const auto path = properties_.find("opc.pluginPath");
        loader_ = std::make_unique<PluginLoader>(moduleName, path == properties_.end() ? std::string() : path->second);
    }
    return *loader_;
}

std::string OpcUaDuvo::entryPointName(const std::string& kind, const std::string& name) {
    return "generated_opcua_" + kind + "_" + moduleName + "_" + name;
}

void* OpcUaDuvo::entryPoint(const char* kind, const char* name) {
    // The loader never changes once made, so the lookup needs no lock.
    return pluginLoader().symbol(entryPointName(kind, name));
}

std::shared_ptr<OpcUaDuvo> OpcUaDuvo::self() {
    // Entities hold their middleware, so one not owned by a shared_ptr cannot create them.
    if (auto owner = weak_from_this().lock()) return owner;
    throw std::logic_error("OpcUaDuvo creates entities only when held by a std::shared_ptr (use std::make_shared)");
}

} // namespace vesk::duvo::opcua::detail
