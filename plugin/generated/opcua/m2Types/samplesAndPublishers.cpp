// Entry points of the samples and publishers of the 24 data structures.
#include <duvo/opcua/detail/ps/publisher.hpp>
#include <generated/opcua/m2Types/entryPoints.hpp>

namespace vesk::duvo::opcua::detail::binding {
#define DUVO_INSTANTIATE_TRAITS(Name, ...) template struct DuvoOpcUaTraits<::m2Types::Name>;
M2TYPES_DATA_CATALOGUE(DUVO_INSTANTIATE_TRAITS)
#undef DUVO_INSTANTIATE_TRAITS
} // namespace vesk::duvo::opcua::detail::binding

using namespace generated::opcua::m2Types::entry;

#define DUVO_DATA_ENTRY_POINTS(Name, ...)                                                                              \
    DUVO_EXPORT ::m2Types::Name* generated_opcua_DataEntity_m2Types_##Name() {                                         \
        return new generated::opcua::m2Types::Name();                                                                  \
    }                                                                                                                  \
    DUVO_EXPORT vesk::duvo::ps::Publisher<::m2Types::Name>* generated_opcua_Publisher_m2Types_##Name(                  \
        const std::string& uri, const PsQoS& qos, const Properties& properties, const Middleware& middleware) {        \
        using namespace vesk::duvo::opcua::detail::ps;                                                                 \
        return createDelegated<OpcUaPublisherDelegator<::m2Types::Name, generated::opcua::m2Types::Name>,              \
                               OpcUaPublisher<::m2Types::Name, generated::opcua::m2Types::Name>>(uri, qos, properties, \
                                                                                                 middleware);          \
    }
M2TYPES_DATA_CATALOGUE(DUVO_DATA_ENTRY_POINTS)
#undef DUVO_DATA_ENTRY_POINTS
