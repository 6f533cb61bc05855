#pragma once
// What m2ctl knows of the module, derived from its two catalogue tables: the type list, one
// row per interface, name lookup, OPC UA type names and node ids.
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <m2Types/catalogue.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/shared_vector.hpp>
#include <vesk/duvo/sim/nodeLayout.hpp>
#include <vesk/duvo/sim/uaTypes.hpp>

namespace m2ctl {

template <class T>
struct Tag {
    using type = T;
};

/// One row of the interface catalogue: its classes, its parameter types and its method.
#define M2CTL_INTERFACE_ROW(Iface, Method, ...)                                                                        \
    struct Iface##Row {                                                                                                \
        using Methods = m2Types::Iface;                                                                                \
        using Sync = m2Types::Iface##Sync;                                                                             \
        using Async = m2Types::Iface##Async;                                                                           \
        using Params = m2Types::TypeList<__VA_ARGS__>;                                                                 \
        template <class Stub, class... Args>                                                                           \
        static auto invoke(Stub& stub, const Args&... args) {                                                          \
            return stub.RPC_##Method(args...);                                                                         \
        }                                                                                                              \
    };
M2TYPES_INTERFACE_CATALOGUE(M2CTL_INTERFACE_ROW)
#undef M2CTL_INTERFACE_ROW

#define M2CTL_ROW_ENTRY(Iface, ...) Iface##Row,
/// The 23 interface rows, in catalogue order.
using InterfaceRows =
    m2Types::detail::DropLast<m2Types::TypeList<>, M2TYPES_INTERFACE_CATALOGUE(M2CTL_ROW_ENTRY) void>::type;
#undef M2CTL_ROW_ENTRY

using m2Types::DataTypes;

/// A data type's or an interface row's name.
template <class T>
std::string entityName() {
    if constexpr (std::is_base_of_v<vesk::duvo::ps::DataEntityBase, T>)
        return T::typeName;
    else
        return T::Methods::interfaceName;
}

/// Calls f(Tag<X>{}) for every X of the list, in order.
template <class... Ts, class F>
void forEach(m2Types::TypeList<Ts...>, F&& f) {
    (f(Tag<Ts>{}), ...);
}

/// Calls f(Tag<X>{}) for the X of the list with that name; false when there is none.
template <class... Ts, class F>
bool visitByName(m2Types::TypeList<Ts...>, const std::string& name, F&& f) {
    return ((name == entityName<Ts>() ? (f(Tag<Ts>{}), true) : false) || ...);
}

/// A numeric vector parameter is passed as a shared vector.
template <class P>
struct IsVectorParam : std::false_type {};
template <class E>
struct IsVectorParam<vesk::duvo::shared_vector<const E>> : std::true_type {};

/// The element type of a parameter or a field.
template <class P>
struct ElementOf {
    using type = P;
};
template <class E>
struct ElementOf<vesk::duvo::shared_vector<const E>> {
    using type = E;
};

/// The OPC UA type that carries an element type: the simulator's, so that m2ctl check
/// holds a device to the nodes the simulator declares.
using vesk::duvo::sim::uaTypeOf;

template <class E>
std::string uaTypeName() {
    return uaTypeOf<E>()->typeName;
}

/// The OPC UA form of each parameter: "Double", or "Double[]" for a vector.
template <class... Ps>
std::vector<std::string> argumentTypes(m2Types::TypeList<Ps...>) {
    return {(uaTypeName<typename ElementOf<Ps>::type>() + (IsVectorParam<Ps>::value ? "[]" : ""))...};
}

/// Argument types with runs of three or more folded: "Boolean, Float x15".
inline std::string foldedTypes(const std::vector<std::string>& types) {
    std::string out;
    for (std::size_t i = 0; i < types.size();) {
        std::size_t run = 1;
        while (i + run < types.size() && types[i + run] == types[i]) ++run;
        if (run < 3) run = 1;
        out += (out.empty() ? "" : ", ") + types[i] + (run > 1 ? " x" + std::to_string(run) : "");
        i += run;
    }
    return out;
}

/// Node ids on the simulator (and on a device laid out like it).
inline std::string variableNodeId(const std::string& type) { return vesk::duvo::sim::fieldNodeId(type); }
using vesk::duvo::sim::methodNodeId;
using vesk::duvo::sim::objectNodeId;

} // namespace m2ctl
