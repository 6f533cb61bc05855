#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <log4cplus/logger.h>
#include <open62541/types.h>

#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/client.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/opcua/uaCpp.hpp>
#include <vesk/duvo/opcua/uriHelper.hpp>
#include <vesk/duvo/ps/qos.hpp>
#include <vesk/duvo/util.hpp>

namespace vesk::duvo::opcua::detail::ps {

/// Lifecycle of a publish/subscribe entity.
enum class EntityState : std::int32_t { NotInitialized = 0, Initialized = 1, Closed = 2 };

/// What every publish/subscribe entity of type T has: its URI, the node ids of its fields,
/// the shared client of its server, and its lifecycle state.
template <class T, class ST>
class OpcUaBasePubSub {
public:
    using NodeId = UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>;
    using QoSList = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
    using Properties = std::map<std::string, std::string>;

    OpcUaBasePubSub(const std::string& uri, const QoSList& qos, const Properties& properties,
                    const std::shared_ptr<OpcUaDuvo>& duvo)
        : logger_(log4cplus::Logger::getInstance("orsa.duvo.opcua.internal")), uri_(uri), qos_(qos),
          properties_(properties), duvo_(duvo) {
        if (!UriHelper::isPubSubUri(uri)) throw std::invalid_argument("URI is not publish/subscribe URI uri:" + uri);
        vesk::duvo::util::checkUri(uri, false, true);
        nodeIds_ = getNodeIds(uri);
        if (nodeIds_.size() != ST::fieldCount)
            throw std::invalid_argument("number of OPC-UA nodes in the URI (" + std::to_string(nodeIds_.size()) + ") " +
                                        "does not match the number of fields in the data type " + "(" +
                                        std::to_string(ST::fieldCount) + ")" + " Uri:" + uri);
        // The endpoint is "opc.tcp://" + authority + path; scheme, query and fragment are dropped.
        client_ = duvo->getClient(UriHelper::endpointOf(uri), properties);
    }

    virtual ~OpcUaBasePubSub() = default;
    OpcUaBasePubSub(const OpcUaBasePubSub&) = delete;
    OpcUaBasePubSub& operator=(const OpcUaBasePubSub&) = delete;

    /// Throws unless the entity is initialised and not closed; each refusal is logged once.
    void checkState() const {
        const EntityState s = state_.load(std::memory_order_acquire);
        if (s == EntityState::Initialized) return;
        const std::string message =
            (s == EntityState::Closed ? "Entity closed. Uri:" : "Entity is not INITIALIZED. Uri:") + uri_;
        logger_.log(log4cplus::ERROR_LOG_LEVEL, message, "duvo/opcua/detail/ps/basePubSub", __LINE__, "checkState");
        throw vesk::duvo::IllegalStateException(message);
    }

    void setState(EntityState s) noexcept { state_.store(s, std::memory_order_release); }
    EntityState getState() const noexcept { return state_.load(std::memory_order_acquire); }

    const std::string& getUri() const noexcept { return uri_; }
    const QoSList& getQos() const noexcept { return qos_; }
    const Properties& getProperties() const noexcept { return properties_; }
    const std::shared_ptr<OpcUaDuvo>& getOpcUaDuvo() const noexcept { return duvo_; }
    const std::vector<NodeId>& getNodeIdList() const noexcept { return nodeIds_; }
    const std::shared_ptr<OpcUaClient>& getClient() const noexcept { return client_; }

protected:
    log4cplus::Logger logger_;
    // Written by close() under the entity's own mutex, read by every operation.
    std::atomic<EntityState> state_{EntityState::NotInitialized};
    const std::string uri_;
    const QoSList qos_;
    const Properties properties_;
    const std::shared_ptr<OpcUaDuvo> duvo_;
    std::vector<NodeId> nodeIds_;
    std::shared_ptr<OpcUaClient> client_;
};

} // namespace vesk::duvo::opcua::detail::ps
