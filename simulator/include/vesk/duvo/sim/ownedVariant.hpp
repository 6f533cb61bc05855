#pragma once
#include <cstddef>
#include <new>
#include <utility>

#include <open62541/types.h>

namespace vesk::duvo::sim {

/// A UA_Variant that owns its content: copies are deep, a move leaves an empty variant.
/// Same layout as UA_Variant, so get() can be handed to the C API without copying.
class OwnedVariant {
public:
    /// An empty variant.
    OwnedVariant() noexcept { UA_Variant_init(&v_); }
    /// Deep copy of a variant that the caller keeps.
    explicit OwnedVariant(const UA_Variant& v) : OwnedVariant() { copyFrom(v); }
    /// A deep copy.
    OwnedVariant(const OwnedVariant& o) : OwnedVariant() { copyFrom(o.v_); }
    /// Takes the content; o is left empty.
    OwnedVariant(OwnedVariant&& o) noexcept : v_(o.v_) { UA_Variant_init(&o.v_); }
    /// Replaces the content with a deep copy.
    OwnedVariant& operator=(const OwnedVariant& o) {
        if (this != &o) {
            OwnedVariant tmp(o);
            swap(tmp);
        }
        return *this;
    }
    /// Exchanges contents with o.
    OwnedVariant& operator=(OwnedVariant&& o) noexcept {
        swap(o);
        return *this;
    }
    /// Frees the content.
    ~OwnedVariant() { UA_Variant_clear(&v_); }

    /// Takes over the content of v and leaves v empty.
    static OwnedVariant adopt(UA_Variant& v) noexcept {
        OwnedVariant out;
        out.v_ = v;
        UA_Variant_init(&v);
        return out;
    }

    /// Exchanges contents with o.
    void swap(OwnedVariant& o) noexcept { std::swap(v_, o.v_); }

    /// The variant, for the C API.
    const UA_Variant* get() const noexcept { return &v_; }
    /// The variant, for the C API.
    UA_Variant* get() noexcept { return &v_; }
    /// The variant.
    const UA_Variant& operator*() const noexcept { return v_; }
    /// The variant's fields.
    const UA_Variant* operator->() const noexcept { return &v_; }

    /// Whether it holds no value.
    bool empty() const noexcept { return UA_Variant_isEmpty(&v_); }
    /// Whether it holds a scalar.
    bool isScalar() const noexcept { return UA_Variant_isScalar(&v_); }
    /// Whether its value is of that OPC UA type.
    bool hasType(const UA_DataType* type) const noexcept { return v_.type == type; }
    /// The number of elements of an array (0 for a scalar).
    std::size_t arrayLength() const noexcept { return v_.arrayLength; }

    /// The i-th element (or the scalar for i = 0); the caller has checked the type.
    template <class T>
    const T& at(std::size_t i = 0) const noexcept {
        return static_cast<const T*>(v_.data)[i];
    }

private:
    void copyFrom(const UA_Variant& v);

    UA_Variant v_;
};

inline void OwnedVariant::copyFrom(const UA_Variant& v) {
    if (UA_Variant_copy(&v, &v_) != UA_STATUSCODE_GOOD) throw std::bad_alloc();
}

} // namespace vesk::duvo::sim
