#pragma once
#include <string>

#include <open62541/types.h>

namespace vesk::duvo::opcua::detail::binding {

/// The open62541 data type that carries a C++ element type.
template <class E>
struct UaTypeOf;

#define DUVO_UA_TYPE_OF(E, INDEX)                                                                                      \
    template <>                                                                                                        \
    struct UaTypeOf<E> {                                                                                               \
        static constexpr int index = INDEX;                                                                            \
        static const UA_DataType* type() noexcept { return &UA_TYPES[INDEX]; }                                         \
    };
DUVO_UA_TYPE_OF(bool, UA_TYPES_BOOLEAN)
DUVO_UA_TYPE_OF(signed char, UA_TYPES_SBYTE)
DUVO_UA_TYPE_OF(unsigned char, UA_TYPES_BYTE)
DUVO_UA_TYPE_OF(short, UA_TYPES_INT16)
DUVO_UA_TYPE_OF(unsigned short, UA_TYPES_UINT16)
DUVO_UA_TYPE_OF(int, UA_TYPES_INT32)
DUVO_UA_TYPE_OF(unsigned int, UA_TYPES_UINT32)
DUVO_UA_TYPE_OF(unsigned long, UA_TYPES_UINT64)
DUVO_UA_TYPE_OF(float, UA_TYPES_FLOAT)
DUVO_UA_TYPE_OF(double, UA_TYPES_DOUBLE)
DUVO_UA_TYPE_OF(std::string, UA_TYPES_STRING)
#undef DUVO_UA_TYPE_OF

/// A UA_String that borrows the characters of s (the empty-array sentinel when s is empty).
inline UA_String borrowString(const std::string& s) noexcept {
    UA_String out;
    out.length = s.size();
    out.data = s.empty() ? static_cast<UA_Byte*>(UA_EMPTY_ARRAY_SENTINEL)
                         : reinterpret_cast<UA_Byte*>(const_cast<char*>(s.data()));
    return out;
}

} // namespace vesk::duvo::opcua::detail::binding
