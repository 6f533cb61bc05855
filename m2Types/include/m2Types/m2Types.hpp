#pragma once
// The m2Types module: the abstract classes of its 24 data structures and the interface
// classes of its 23 request/reply interfaces, all derived from the catalogues.
#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

#include <boost/thread/future.hpp>

#include <m2Types/catalogue.hpp>
#include <m2Types/preprocessor.hpp>
#include <vesk/duvo/ps/dataEntity.hpp>
#include <vesk/duvo/rr/rrEntity.hpp>
#include <vesk/duvo/shared_vector.hpp>

// The module's classes are visible from every library that uses them, even one built with
// hidden visibility (the plug-in): their type information must be one, and the plug-in's
// traits of a hidden type would be hidden too.
#define M2TYPES_API __attribute__((visibility("default")))

namespace m2Types {

/// Field shapes of the data catalogue.
template <class E>
struct Scalar {
    /// The element type.
    using element_type = E;
    /// The type the accessors take and return.
    using value_type = E;
    /// False: one element.
    static constexpr bool isVector = false;
};

/// A numeric vector field: a frozen shared vector.
template <class E>
struct Vector {
    /// The element type.
    using element_type = E;
    /// The type the accessors take and return.
    using value_type = vesk::duvo::shared_vector<const E>;
    /// True: any number of elements.
    static constexpr bool isVector = true;
};

/// A string vector field: a std::vector of strings.
template <>
struct Vector<std::string> {
    /// The element type.
    using element_type = std::string;
    /// The type the accessors take and return.
    using value_type = std::vector<std::string>;
    /// True: any number of elements.
    static constexpr bool isVector = true;
};

namespace detail {

/// How a value is passed to a setter or a method: arithmetic types by value, the rest by
/// const reference.
template <class V>
using param_t = std::conditional_t<std::is_arithmetic_v<V>, V, const V&>;

/// Numeric vectors can also swap their buffer with the application's.
template <class Field>
inline constexpr bool swappable_v = Field::isVector&& std::is_arithmetic_v<typename Field::element_type>;

/// The accessors of the one field, value0.
template <class Self, class Field, bool Swappable = swappable_v<Field>>
class Value0 : public virtual vesk::duvo::ps::DataEntity<Self> {
public:
    /// The field's shape, Scalar or Vector of the element type.
    using field_type = Field;
    /// The type the accessors take and return.
    using value_type = typename Field::value_type;

    /// The field's value.
    virtual value_type getValue0() const = 0;
    /// Sets the field (a vector is shared, not copied).
    virtual void setValue0(param_t<value_type> value) = 0;
};

/// The accessors of a numeric vector field, with swapValue0.
template <class Self, class Field>
class Value0<Self, Field, true> : public virtual vesk::duvo::ps::DataEntity<Self> {
public:
    /// The field's shape, Scalar or Vector of the element type.
    using field_type = Field;
    /// The type the accessors take and return.
    using value_type = typename Field::value_type;

    /// The field's value.
    virtual value_type getValue0() const = 0;
    /// Sets the field (a vector is shared, not copied).
    virtual void setValue0(param_t<value_type> value) = 0;
    /// Exchanges the field's vector with value, without copying.
    virtual void swapValue0(value_type& value) = 0;
};

} // namespace detail

// The "/** */" comments expand with each class, for the API reference.
#define M2TYPES_DECLARE_TYPE(Name, Shape, Element, Nominal)                                                            \
    /** A data structure of the module: one field, value0. */                                                          \
    class M2TYPES_API Name : public detail::Value0<Name, Shape<Element>> {                                             \
    public:                                                                                                            \
        /** The type's name, as the binding and the tools spell it. */                                                 \
        static constexpr const char* typeName = #Name;                                                                 \
        /** The vector length the interface intends (0 for a scalar). */                                               \
        static constexpr std::size_t nominalLength = Nominal;                                                          \
        ~Name() override;                                                                                              \
    };
M2TYPES_DATA_CATALOGUE(M2TYPES_DECLARE_TYPE)
#undef M2TYPES_DECLARE_TYPE

// For each interface: the synchronous method set <I>, the asynchronous one Async<I>, and the
// client interfaces <I>Sync and <I>Async.
#define M2TYPES_DECLARE_INTERFACE(Iface, Method, ...)                                                                  \
    /** An interface's synchronous methods (its Sync client implements them). */                                       \
    class M2TYPES_API Iface : public virtual vesk::duvo::rr::RrEntity {                                                \
    public:                                                                                                            \
        /** The interface's name, as the binding and the tools spell it. */                                            \
        static constexpr const char* interfaceName = #Iface;                                                           \
        /** The name of its one method. */                                                                             \
        static constexpr const char* methodName = "RPC_" #Method;                                                      \
        ~Iface() override;                                                                                             \
        /** Calls the method and returns its Boolean result. */                                                        \
        virtual bool RPC_##Method(M2TYPES_PARAMS(__VA_ARGS__)) = 0;                                                    \
    };                                                                                                                 \
    /** An interface's asynchronous methods (its Async client implements them). */                                     \
    class M2TYPES_API Async##Iface : public virtual vesk::duvo::rr::RrEntity {                                         \
    public:                                                                                                            \
        ~Async##Iface() override;                                                                                      \
        /** Calls the method; the future holds its Boolean result. */                                                  \
        virtual boost::future<bool> RPC_##Method(M2TYPES_PARAMS(__VA_ARGS__)) = 0;                                     \
    };                                                                                                                 \
    /** The synchronous client of an interface. */                                                                     \
    class M2TYPES_API Iface##Sync : public virtual Iface, public virtual vesk::duvo::rr::ClientRrEntity {              \
    public:                                                                                                            \
        /** The client's name: the interface's followed by Sync. */                                                    \
        static constexpr const char* clientName = #Iface "Sync";                                                       \
        ~Iface##Sync() override;                                                                                       \
    };                                                                                                                 \
    /** The asynchronous client of an interface. */                                                                    \
    class M2TYPES_API Iface##Async : public virtual Async##Iface, public virtual vesk::duvo::rr::ClientRrEntity {      \
    public:                                                                                                            \
        /** The client's name: the interface's followed by Async. */                                                   \
        static constexpr const char* clientName = #Iface "Async";                                                      \
        ~Iface##Async() override;                                                                                      \
    };
M2TYPES_INTERFACE_CATALOGUE(M2TYPES_DECLARE_INTERFACE)
#undef M2TYPES_DECLARE_INTERFACE

/// A list of types, for code that runs over a whole catalogue.
template <class... Ts>
struct TypeList {
    /// The number of types.
    static constexpr std::size_t size = sizeof...(Ts);
};

namespace detail {
/// TypeList<Acc..., Ts...> without its last type (the lists below end with a void after the
/// catalogue's trailing comma).
template <class Acc, class... Ts>
struct DropLast;
/// The last type reached: dropped.
template <class... Acc, class Last>
struct DropLast<TypeList<Acc...>, Last> {
    /// The list without the last type.
    using type = TypeList<Acc...>;
};
/// Moves Head into the accumulated list.
template <class... Acc, class Head, class Next, class... Rest>
struct DropLast<TypeList<Acc...>, Head, Next, Rest...> : DropLast<TypeList<Acc..., Head>, Next, Rest...> {};
} // namespace detail

/// Rebinds a TypeList's types to another variadic template (for example a test's type list).
template <template <class...> class To, class List>
struct Rebind;
/// To<Ts...> for TypeList<Ts...>.
template <template <class...> class To, class... Ts>
struct Rebind<To, TypeList<Ts...>> {
    /// To<Ts...>.
    using type = To<Ts...>;
};
/// Rebind<To, List>::type.
template <template <class...> class To, class List>
using rebind_t = typename Rebind<To, List>::type;

#define M2TYPES_LIST_ENTRY(Name, ...) Name,
/// The 24 data structures, in catalogue order.
using DataTypes = detail::DropLast<TypeList<>, M2TYPES_DATA_CATALOGUE(M2TYPES_LIST_ENTRY) void>::type;
/// The 23 interfaces (their synchronous method sets), in catalogue order.
using Interfaces = detail::DropLast<TypeList<>, M2TYPES_INTERFACE_CATALOGUE(M2TYPES_LIST_ENTRY) void>::type;
#undef M2TYPES_LIST_ENTRY

} // namespace m2Types
