// Entry points of the synchronous and asynchronous clients of the 23 interfaces.
#include <generated/opcua/m2Types/entryPoints.hpp>
#include <generated/opcua/m2Types/rpc.hpp>

using namespace generated::opcua::m2Types::entry;

#define DUVO_CLIENT_ENTRY_POINTS(Iface, ...)                                                                           \
    DUVO_EXPORT ::m2Types::Iface##Async* generated_opcua_Client_m2Types_##Iface##Async(                                \
        const std::string& uri, const RrQoS& qos, const Properties& properties, const Middleware& middleware) {        \
        return new generated::opcua::m2Types::Iface##AsyncImpl(uri, qos, properties, middleware);                      \
    }                                                                                                                  \
    DUVO_EXPORT ::m2Types::Iface##Sync* generated_opcua_Client_m2Types_##Iface##Sync(                                  \
        const std::string& uri, const RrQoS& qos, const Properties& properties, const Middleware& middleware) {        \
        return new generated::opcua::m2Types::Iface##SyncImpl(uri, qos, properties, middleware);                       \
    }
M2TYPES_INTERFACE_CATALOGUE(DUVO_CLIENT_ENTRY_POINTS)
#undef DUVO_CLIENT_ENTRY_POINTS
