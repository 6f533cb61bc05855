#pragma once
// The binding classes of the 24 m2Types data structures, derived from the catalogue.
#include <duvo/opcua/detail/binding/sampleBinding.hpp>
#include <duvo/opcua/detail/binding/traits.hpp>
#include <m2Types/m2Types.hpp>

namespace generated::opcua::m2Types {

#define DUVO_GENERATE_BINDING(Name, ...)                                                                               \
    class Name : public vesk::duvo::opcua::detail::binding::SampleBindingOf<Name, ::m2Types::Name> {                   \
    public:                                                                                                            \
        /* Names the field in the messages of a refused value. */                                                      \
        static constexpr const char* context = "::m2Types::" #Name ".value0";                                          \
    };
M2TYPES_DATA_CATALOGUE(DUVO_GENERATE_BINDING)
#undef DUVO_GENERATE_BINDING

} // namespace generated::opcua::m2Types

namespace vesk::duvo::opcua::detail::binding {
#define DUVO_BINDING_OF(Name, ...)                                                                                     \
    template <>                                                                                                        \
    struct BindingOf<::m2Types::Name> {                                                                                \
        using type = ::generated::opcua::m2Types::Name;                                                                \
    };
M2TYPES_DATA_CATALOGUE(DUVO_BINDING_OF)
#undef DUVO_BINDING_OF
} // namespace vesk::duvo::opcua::detail::binding
