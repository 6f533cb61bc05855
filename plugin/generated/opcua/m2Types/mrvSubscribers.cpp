// Entry points of the most-recent-value subscribers of the 24 data structures.
#include <duvo/opcua/detail/ps/mrvSubscriber.hpp>
#include <generated/opcua/m2Types/entryPoints.hpp>

using namespace generated::opcua::m2Types::entry;

#define DUVO_MRV_SUBSCRIBER_ENTRY_POINTS(Name, ...)                                                                    \
    DUVO_EXPORT vesk::duvo::ps::MrvSubscriber<::m2Types::Name>* generated_opcua_MrvSubscriber_m2Types_##Name(          \
        const std::string& uri, const PsQoS& qos, const Properties& properties, const Middleware& middleware) {        \
        using namespace vesk::duvo::opcua::detail::ps;                                                                 \
        return createDelegated<OpcUaMrvSubscriberDelegator<::m2Types::Name, generated::opcua::m2Types::Name>,          \
                               OpcUaMrvSubscriber<::m2Types::Name, generated::opcua::m2Types::Name>>(                  \
            uri, qos, properties, middleware);                                                                         \
    }
M2TYPES_DATA_CATALOGUE(DUVO_MRV_SUBSCRIBER_ENTRY_POINTS)
#undef DUVO_MRV_SUBSCRIBER_ENTRY_POINTS
