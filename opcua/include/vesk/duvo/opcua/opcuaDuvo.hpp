#pragma once
// The OPC UA binding's middleware instance: it hands out the shared client of each endpoint.
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <vesk/duvo/middleware.hpp>
#include <vesk/duvo/opcua/client.hpp>

namespace vesk::duvo::opcua::detail {

class OpcUaDuvo : public vesk::duvo::Duvo, public std::enable_shared_from_this<OpcUaDuvo> {
public:
    explicit OpcUaDuvo(vesk::duvo::Duvo::Properties properties = {});
    ~OpcUaDuvo() override;

    const vesk::duvo::Duvo::Properties& properties() const { return properties_; }

    /// The client of the endpoint: the same one for every caller while anyone holds it, a new
    /// one (connecting at once) otherwise. The properties of the call that creates it apply.
    /// Thread-safe.
    std::shared_ptr<OpcUaClient> getClient(const std::string& endpoint, const std::map<std::string, std::string>& properties);

private:
    vesk::duvo::Duvo::Properties properties_;
    std::mutex clientsMutex_;
    std::map<std::string, std::weak_ptr<OpcUaClient>> clients_;
};

} // namespace vesk::duvo::opcua::detail
