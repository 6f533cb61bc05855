// Tours the m2Types catalogues: every data structure is filled, converted to its OPC UA
// value, encoded and decoded by open62541 and read back; every interface is listed with
// the OPC UA arguments its method sends. Exits non-zero if any round trip fails.
#include <cstdio>
#include <string>
#include <type_traits>

#include <open62541/types.h>

#include <generated/opcua/m2Types/m2Types.hpp>

namespace {

using vesk::duvo::opcua::detail::binding::BindingOf_t;
using vesk::duvo::opcua::detail::binding::UaTypeOf;

template <class Field>
typename Field::value_type exampleValue() {
    using E = typename Field::element_type;
    if constexpr (!Field::isVector) {
        if constexpr (std::is_same_v<E, std::string>)
            return "hello";
        else
            return E(1);
    } else if constexpr (std::is_same_v<E, std::string>) {
        return {"a", "b", "c"};
    } else {
        return {E(1), E(2), E(3)};
    }
}

template <class T>
bool tourType() {
    using ST = BindingOf_t<T>;
    using Field = typename T::field_type;
    ST sample;
    sample.setValue0(exampleValue<Field>());

    UA_ByteString bytes;
    UA_ByteString_init(&bytes);
    UA_DataValue decoded;
    UA_DataValue_init(&decoded);
    bool ok =
        UA_encodeBinary(sample.getOpcUaDataValues(), &UA_TYPES[UA_TYPES_DATAVALUE], &bytes) == UA_STATUSCODE_GOOD &&
        UA_decodeBinary(&bytes, &decoded, &UA_TYPES[UA_TYPES_DATAVALUE], nullptr) == UA_STATUSCODE_GOOD;
    if (ok) {
        ST back;
        back.setOpcUaDataValues(&decoded);
        ok = back.getValue0() == sample.getValue0();
    }
    std::printf("  %-18s %-8s %-7s nominal %-3zu %s\n", T::typeName,
                UaTypeOf<typename Field::element_type>::type()->typeName, Field::isVector ? "array" : "scalar",
                T::nominalLength, ok ? "round trip ok" : "ROUND TRIP FAILED");
    UA_ByteString_clear(&bytes);
    UA_DataValue_clear(&decoded);
    return ok;
}

template <class... Ts>
bool tourTypes(m2Types::TypeList<Ts...>) {
    return (tourType<Ts>() & ...);
}

/// The OPC UA form of one method argument.
template <class P>
std::string argumentName() {
    if constexpr (std::is_arithmetic_v<P>)
        return UaTypeOf<P>::type()->typeName;
    else
        return std::string(UaTypeOf<typename P::value_type>::type()->typeName) + "[]";
}

template <class... Ps>
std::string argumentList() {
    std::string out;
    ((out += (out.empty() ? "" : ", ") + argumentName<Ps>()), ...);
    return out;
}

} // namespace

int main() {
    std::printf("m2Types data structures (%zu):\n", m2Types::DataTypes::size);
    const bool ok = tourTypes(m2Types::DataTypes{});
    std::printf("m2Types interfaces (%zu):\n", m2Types::Interfaces::size);
#define PRINT_INTERFACE(Iface, Method, ...)                                                                            \
    std::printf("  %-30s RPC_%-26s (%s) -> Boolean\n", #Iface, #Method, argumentList<__VA_ARGS__>().c_str());
    M2TYPES_INTERFACE_CATALOGUE(PRINT_INTERFACE)
#undef PRINT_INTERFACE
    std::printf(ok ? "all round trips ok\n" : "some round trips FAILED\n");
    return ok ? 0 : 1;
}
