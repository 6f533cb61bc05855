#pragma once
#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <open62541/types.h>

#include <duvo/opcua/detail/binding/flexibleSharedArray.hpp>
#include <duvo/opcua/detail/binding/uaType.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/detail/binding/ensureCorrectType.hpp>

namespace vesk::duvo::opcua::detail::binding {

/// How one field of a shape is held and converted. Every conversion to a variant borrows
/// the field's memory (the variant never owns it) and writes descriptors only into the
/// caller's Scratch, so threads converting one sample share nothing; every conversion from a
/// variant checks the type first, so a refused value changes nothing.
template <class Field>
class FieldBinding;

/// A number or a Boolean.
template <class E>
class FieldBinding<::m2Types::Scalar<E>> {
public:
    struct Scratch {};

    E get() const noexcept { return value0; }
    void set(E v) noexcept { value0 = v; }

    void toVariant(UA_Variant& variant, Scratch&) const noexcept {
        variant.type = UaTypeOf<E>::type();
        variant.storageType = UA_VARIANT_DATA_NODELETE;
        variant.data = const_cast<E*>(&value0);
    }

    void fromVariant(const char* context, const UA_Variant& variant) {
        EnsureScalar(context, variant, UaTypeOf<E>::type());
        value0 = *static_cast<const E*>(variant.data);
    }

private:
    E value0{};
};

/// Refuses a UA_String with a length but no characters, as std::string would.
inline void checkUaString(const UA_String& s) {
    if (s.length != 0 && s.data == nullptr) throw std::logic_error("basic_string: construction from null is not valid");
}

/// Text from OPC UA, reusing the target's capacity.
inline void assignFromUa(std::string& to, const UA_String& s) {
    checkUaString(s);
    to.assign(s.length ? reinterpret_cast<const char*>(s.data) : "", s.length);
}

/// A string, handed to OPC UA through one borrowing descriptor.
template <>
class FieldBinding<::m2Types::Scalar<std::string>> {
public:
    using Scratch = UA_String;

    const std::string& get() const noexcept { return value0; }
    void set(const std::string& v) { value0 = v; }

    void toVariant(UA_Variant& variant, Scratch& descriptor) const noexcept {
        descriptor = borrowString(value0);
        variant.type = &UA_TYPES[UA_TYPES_STRING];
        variant.storageType = UA_VARIANT_DATA_NODELETE;
        variant.data = &descriptor;
    }

    void fromVariant(const char* context, const UA_Variant& variant) {
        EnsureScalar(context, variant, &UA_TYPES[UA_TYPES_STRING]);
        assignFromUa(value0, *static_cast<const UA_String*>(variant.data));
    }

private:
    std::string value0;
};

/// A numeric vector in a shared, copy-on-write buffer.
template <class E>
class FieldBinding<::m2Types::Vector<E>> {
public:
    using frozen_type = vesk::duvo::shared_vector<const E>;
    struct Scratch {};

    frozen_type get() const noexcept { return value0.get(); }
    void set(const frozen_type& v) noexcept { value0.set(v); }
    void swap(frozen_type& v) noexcept { value0.swap(v); }
    const FlexibleSharedArray<E>& array() const noexcept { return value0; }

    void toVariant(UA_Variant& variant, Scratch&) const noexcept { value0.toVariant(variant); }
    void fromVariant(const char* context, const UA_Variant& variant) { value0.assignFromVariant(context, &variant); }
    void takeFromVariant(const char* context, UA_Variant& variant) { value0.takeFromVariant(context, &variant); }

private:
    FlexibleSharedArray<E> value0;
};

/// A vector of strings, handed to OPC UA through a scratch array of borrowing descriptors.
template <>
class FieldBinding<::m2Types::Vector<std::string>> {
public:
    /// Room for the nominal 15 descriptors without allocating; more go to the heap.
    struct Scratch {
        std::array<UA_String, 16> small;
        std::vector<UA_String> large;
        UA_String* room(std::size_t n) {
            if (n <= small.size()) return small.data();
            large.resize(n); // may throw std::bad_alloc, which reaches the caller
            return large.data();
        }
    };

    const std::vector<std::string>& get() const noexcept { return value0; }
    void set(const std::vector<std::string>& v) { value0 = v; }

    void toVariant(UA_Variant& variant, Scratch& scratch) const {
        UA_String* descriptors = scratch.room(value0.size());
        for (std::size_t i = 0; i < value0.size(); ++i) descriptors[i] = borrowString(value0[i]);
        variant.type = &UA_TYPES[UA_TYPES_STRING];
        variant.storageType = UA_VARIANT_DATA_NODELETE;
        variant.arrayLength = value0.size();
        variant.data = value0.empty() ? UA_EMPTY_ARRAY_SENTINEL : descriptors;
    }

    void fromVariant(const char* context, const UA_Variant& variant) {
        EnsureCorrectType(context, variant, &UA_TYPES[UA_TYPES_STRING]);
        const auto* strings = static_cast<const UA_String*>(variant.data);
        const std::size_t n = variant.arrayLength;
        // Check every element first so that a refused value leaves the old one in place.
        for (std::size_t i = 0; i < n; ++i) checkUaString(strings[i]);
        value0.resize(n);
        for (std::size_t i = 0; i < n; ++i) assignFromUa(value0[i], strings[i]);
    }

private:
    std::vector<std::string> value0;
};

} // namespace vesk::duvo::opcua::detail::binding
