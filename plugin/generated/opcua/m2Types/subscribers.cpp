// Entry points of the subscribers of the 24 data structures.
#include <duvo/opcua/detail/ps/subscriber.hpp>
#include <generated/opcua/m2Types/entryPoints.hpp>

using namespace generated::opcua::m2Types::entry;

#define DUVO_SUBSCRIBER_ENTRY_POINTS(Name, ...)                                                                        \
    DUVO_EXPORT vesk::duvo::ps::Subscriber<::m2Types::Name>* generated_opcua_Subscriber_m2Types_##Name(                \
        const std::string& uri, const PsQoS& qos, const Properties& properties, const Middleware& middleware) {        \
        using namespace vesk::duvo::opcua::detail::ps;                                                                 \
        return createDelegated<OpcUaSubscriberDelegator<::m2Types::Name, generated::opcua::m2Types::Name>,             \
                               OpcUaSubscriber<::m2Types::Name, generated::opcua::m2Types::Name>>(                     \
            uri, qos, properties, middleware);                                                                         \
    }
M2TYPES_DATA_CATALOGUE(DUVO_SUBSCRIBER_ENTRY_POINTS)
#undef DUVO_SUBSCRIBER_ENTRY_POINTS
