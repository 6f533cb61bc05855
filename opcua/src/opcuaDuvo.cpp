#include <vesk/duvo/opcua/opcuaDuvo.hpp>

namespace vesk::duvo::opcua::detail {

OpcUaDuvo::OpcUaDuvo(vesk::duvo::Duvo::Properties properties) : properties_(std::move(properties)) {}

OpcUaDuvo::~OpcUaDuvo() = default;

std::shared_ptr<OpcUaClient> OpcUaDuvo::getClient(const std::string& endpoint,
                                                  const std::map<std::string, std::string>& properties) {
    std::lock_guard<std::mutex> lock(clientsMutex_);
    for (auto it = clients_.begin(); it != clients_.end();) {
        if (it->second.expired()) it = clients_.erase(it);
        else ++it;
    }
    if (auto client = clients_[endpoint].lock()) return client;
    auto client = std::make_shared<OpcUaClient>(endpoint, properties);
    clients_[endpoint] = client;
    return client;
}

} // namespace vesk::duvo::opcua::detail
