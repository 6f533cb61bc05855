#pragma once
// The simulator's nodes, derived from the two catalogues of the module and the simulator's
// own element-type table (not the plug-in's, so that the two check each other).
#include <cstddef>
#include <string>
#include <vector>

#include <open62541/types.h>

#include <m2Types/catalogue.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/shared_vector.hpp>
#include <vesk/duvo/sim/uaTypes.hpp>

namespace vesk::duvo::sim::detail {

/// One structure field: its variable, the OPC UA type and shape it is declared with.
struct VariableNode {
    const char* name;
    const UA_DataType* type;
    bool vector;
    std::size_t nominalLength;
};

struct ArgumentNode {
    const UA_DataType* type;
    bool array;
};

struct MethodNode {
    const char* iface;
    std::string method;
    std::vector<ArgumentNode> arguments;
};

/// One OPC UA argument per parameter: a scalar, or one array for a shared vector.
template <class P>
struct ArgumentOf {
    static ArgumentNode get() { return {uaTypeOf<P>(), false}; }
};
template <class E>
struct ArgumentOf<vesk::duvo::shared_vector<const E>> {
    static ArgumentNode get() { return {uaTypeOf<E>(), true}; }
};

template <class... P>
std::vector<ArgumentNode> argumentsOf() {
    return {ArgumentOf<P>::get()...};
}

inline const std::vector<VariableNode>& variableNodes() {
#define DUVO_SIM_VARIABLE(Name, Shape, Element, Nominal)                                                               \
    {#Name, uaTypeOf<Element>(), m2Types::Shape<Element>::isVector, Nominal},
    static const std::vector<VariableNode> nodes{M2TYPES_DATA_CATALOGUE(DUVO_SIM_VARIABLE)};
#undef DUVO_SIM_VARIABLE
    return nodes;
}

inline const std::vector<MethodNode>& methodNodes() {
#define DUVO_SIM_METHOD(Iface, Method, ...) {#Iface, "RPC_" #Method, argumentsOf<__VA_ARGS__>()},
    static const std::vector<MethodNode> nodes{M2TYPES_INTERFACE_CATALOGUE(DUVO_SIM_METHOD)};
#undef DUVO_SIM_METHOD
    return nodes;
}

} // namespace vesk::duvo::sim::detail
