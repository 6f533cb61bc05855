#pragma once
// The OPC UA data type that carries each element type of the module, as the simulator
// declares its nodes. Kept apart from the plug-in's own mapping on purpose: a wrong row in
// either one makes the plug-in and the simulator disagree, which the tests notice.
#include <string>
#include <type_traits>

#include <open62541/types.h>

namespace vesk::duvo::sim {

/// The UA_TYPES index of an element type.
template <class E>
constexpr int uaTypeIndexOf() {
    if constexpr (std::is_same_v<E, bool>)
        return UA_TYPES_BOOLEAN;
    else if constexpr (std::is_same_v<E, signed char>)
        return UA_TYPES_SBYTE;
    else if constexpr (std::is_same_v<E, unsigned char>)
        return UA_TYPES_BYTE;
    else if constexpr (std::is_same_v<E, short>)
        return UA_TYPES_INT16;
    else if constexpr (std::is_same_v<E, unsigned short>)
        return UA_TYPES_UINT16;
    else if constexpr (std::is_same_v<E, int>)
        return UA_TYPES_INT32;
    else if constexpr (std::is_same_v<E, unsigned int>)
        return UA_TYPES_UINT32;
    else if constexpr (std::is_same_v<E, unsigned long> && sizeof(unsigned long) == 8)
        return UA_TYPES_UINT64;
    else if constexpr (std::is_same_v<E, float>)
        return UA_TYPES_FLOAT;
    else if constexpr (std::is_same_v<E, double>)
        return UA_TYPES_DOUBLE;
    else {
        static_assert(std::is_same_v<E, std::string>, "an element type without an OPC UA type");
        return UA_TYPES_STRING;
    }
}

/// The OPC UA data type of an element type.
template <class E>
const UA_DataType* uaTypeOf() {
    return &UA_TYPES[uaTypeIndexOf<E>()];
}

} // namespace vesk::duvo::sim
