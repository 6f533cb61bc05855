#pragma once
// The client stubs of the 23 m2Types interfaces, derived from the catalogue: an asynchronous
// stub over the client entity, and a synchronous one that waits on it for the reply time.
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/thread/future.hpp>

#include <duvo/opcua/detail/rr/arguments.hpp>
#include <duvo/opcua/detail/rr/clientEntity.hpp>
#include <duvo/opcua/detail/rr/syncClientBase.hpp>
#include <m2Types/m2Types.hpp>

namespace vesk::duvo::opcua::detail::rr {
#define DUVO_RR_TRAITS(Iface, ...)                                                                                     \
    template <>                                                                                                        \
    struct RrInterfaceTraits<::m2Types::Iface##Async> {                                                                \
        static constexpr std::size_t methodCount = 1;                                                                  \
    };
M2TYPES_INTERFACE_CATALOGUE(DUVO_RR_TRAITS)
#undef DUVO_RR_TRAITS
} // namespace vesk::duvo::opcua::detail::rr

namespace generated::opcua::m2Types {

using RrQoSList = std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>;
using RrProperties = std::map<std::string, std::string>;
using OpcUaDuvoPtr = std::shared_ptr<vesk::duvo::opcua::detail::OpcUaDuvo>;

#define DUVO_GENERATE_STUBS(Iface, Method, ...)                                                                        \
    class Iface##AsyncImpl : public ::m2Types::Iface##Async,                                                           \
                             public vesk::duvo::opcua::detail::rr::ClientEntity<::m2Types::Iface##Async> {             \
    public:                                                                                                            \
        Iface##AsyncImpl(const std::string& uri, const RrQoSList& qos, const RrProperties& properties,                 \
                         const OpcUaDuvoPtr& duvo)                                                                     \
            : vesk::duvo::opcua::detail::rr::ClientEntity<::m2Types::Iface##Async>(uri, qos, properties, duvo) {}      \
        boost::future<bool> RPC_##Method(M2TYPES_PARAMS(__VA_ARGS__)) override {                                       \
            static const std::function<bool(const UA_Variant&)> convert =                                              \
                vesk::duvo::opcua::detail::rr::booleanResult(#Iface "::RPC_" #Method " (return value)");               \
            return this->template callMethodAsync<bool>(                                                               \
                0, vesk::duvo::opcua::detail::rr::marshal(M2TYPES_ARGS(__VA_ARGS__)), convert);                        \
        }                                                                                                              \
    };                                                                                                                 \
    class Iface##SyncImpl : public ::m2Types::Iface##Sync, public vesk::duvo::opcua::detail::rr::SyncClientBase {      \
    public:                                                                                                            \
        Iface##SyncImpl(const std::string& uri, const RrQoSList& qos, const RrProperties& properties,                  \
                        const OpcUaDuvoPtr& duvo)                                                                      \
            : vesk::duvo::opcua::detail::rr::SyncClientBase(uri, qos, properties, duvo),                               \
              impl_(uri, qos, properties, duvo) {}                                                                     \
        bool RPC_##Method(M2TYPES_PARAMS(__VA_ARGS__)) override {                                                      \
            return unpackAsync(impl_.clientOrNull(), impl_.RPC_##Method(M2TYPES_ARGS(__VA_ARGS__)));                   \
        }                                                                                                              \
        std::shared_ptr<vesk::duvo::Duvo> getDuvo() const override { return impl_.getDuvo(); }                         \
        void close() override { impl_.close(); }                                                                       \
        void asyncConnect() override { impl_.asyncConnect(); }                                                         \
        std::function<void()> registerConnectionListener(std::function<void(bool)> listener) override {                \
            return impl_.registerConnectionListener(std::move(listener));                                              \
        }                                                                                                              \
        Iface##AsyncImpl& asyncImpl() noexcept { return impl_; }                                                       \
                                                                                                                       \
    private:                                                                                                           \
        Iface##AsyncImpl impl_;                                                                                        \
    };
M2TYPES_INTERFACE_CATALOGUE(DUVO_GENERATE_STUBS)
#undef DUVO_GENERATE_STUBS

} // namespace generated::opcua::m2Types
