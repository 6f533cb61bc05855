#pragma once
#include <array>
#include <functional>
#include <string>
#include <type_traits>

#include <open62541/types.h>

#include <duvo/opcua/detail/binding/uaType.hpp>
#include <vesk/duvo/exceptions.hpp>
#include <vesk/duvo/opcua/detail/binding/ensureCorrectType.hpp>
#include <vesk/duvo/shared_vector.hpp>

namespace vesk::duvo::opcua::detail::rr {

/// A method argument as a variant that references the argument (nothing is copied or owned).
template <class P>
UA_Variant argumentVariant(const P& argument) noexcept {
    UA_Variant v;
    UA_Variant_init(&v);
    v.storageType = UA_VARIANT_DATA_NODELETE;
    v.type = binding::UaTypeOf<P>::type();
    v.data = const_cast<P*>(&argument);
    return v;
}

template <class E>
UA_Variant argumentVariant(const vesk::duvo::shared_vector<const E>& argument) noexcept {
    UA_Variant v;
    UA_Variant_init(&v);
    v.storageType = UA_VARIANT_DATA_NODELETE;
    v.type = binding::UaTypeOf<E>::type();
    v.arrayLength = argument.size();
    v.data = argument.empty() ? UA_EMPTY_ARRAY_SENTINEL : const_cast<E*>(argument.data());
    return v;
}

/// One variant per argument, in order.
template <class... Ps>
std::array<UA_Variant, sizeof...(Ps)> marshal(const Ps&... arguments) noexcept {
    return {argumentVariant(arguments)...};
}

/// The converter of a method's result: a Boolean scalar, checked against the context's name.
inline std::function<bool(const UA_Variant&)> booleanResult(const char* context) {
    return [context](const UA_Variant& v) {
        binding::EnsureCorrectType(context, v, &UA_TYPES[UA_TYPES_BOOLEAN]);
        if (!UA_Variant_isScalar(&v))
            throw vesk::duvo::DuvoException(std::string(context) + ": expected a Boolean scalar, received an array");
        return *static_cast<const UA_Boolean*>(v.data);
    };
}

} // namespace vesk::duvo::opcua::detail::rr
