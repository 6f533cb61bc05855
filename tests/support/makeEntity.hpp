#pragma once
// Entities made directly from the plug-in's classes, for tests of the classes themselves.
#include <memory>
#include <string>
#include <vector>

#include <duvo/opcua/detail/ps/basePubSub.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/ps/qos.hpp>

namespace duvo::test {

/// A publish/subscribe entity, initialised as the plug-in's entry points leave it.
template <class Entity>
std::shared_ptr<Entity> make(const std::string& uri, const vesk::duvo::Duvo::Properties& properties,
                             const std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo>& duvo) {
    auto entity =
        std::make_shared<Entity>(uri, std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>{}, properties, duvo);
    entity->setState(vesk::duvo::opcua::detail::ps::EntityState::Initialized);
    return entity;
}

} // namespace duvo::test
