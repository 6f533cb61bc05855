#pragma once
// What every entry point of the plug-in shares. The entry points themselves are derived from
// the catalogues in four files (samples and publishers, subscribers, most-recent-value
// subscribers, clients) so that they compile in parallel.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <duvo/opcua/detail/ps/basePubSub.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/ps/qos.hpp>
#include <vesk/duvo/rr/qos.hpp>

#define DUVO_EXPORT extern "C" __attribute__((visibility("default")))

namespace generated::opcua::m2Types::entry {

using PsQoS = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
using RrQoS = std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>;
using Properties = vesk::duvo::Duvo::Properties;
using Middleware = std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo>;

/// The entity is created behind its delegator and marked INITIALIZED before it is handed
/// out; if its construction throws, the delegator is freed and the exception goes on.
template <class Delegator, class Entity>
Delegator* createDelegated(const std::string& uri, const PsQoS& qos, const Properties& properties,
                           const Middleware& middleware) {
    std::unique_ptr<Delegator> delegator(new Delegator());
    auto entity = std::make_shared<Entity>(uri, qos, properties, middleware);
    delegator->setEntity(entity);
    entity->setState(vesk::duvo::opcua::detail::ps::EntityState::Initialized);
    return delegator.release();
}

} // namespace generated::opcua::m2Types::entry
