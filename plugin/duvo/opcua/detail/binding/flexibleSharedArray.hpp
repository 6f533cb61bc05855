#pragma once
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include <open62541/types.h>

#include <duvo/opcua/detail/binding/uaType.hpp>
#include <vesk/duvo/opcua/detail/binding/ensureCorrectType.hpp>
#include <vesk/duvo/shared_vector.hpp>

namespace vesk::duvo::opcua::detail::binding {

/// The element buffer of a numeric vector field. It holds the same four fields as
/// shared_vector<const E> and converts to and from it without copying elements; a refill
/// from OPC UA reuses the buffer when this array owns it alone and it is large enough.
template <class E>
class FlexibleSharedArray {
    static_assert(std::is_arithmetic_v<E>, "numeric elements only");

public:
    using frozen_type = vesk::duvo::shared_vector<const E>;

    FlexibleSharedArray() = default;

    frozen_type get() const noexcept { return frozen_type(buffer_, offset_, size_, capacity_); }

    void set(const frozen_type& v) noexcept {
        buffer_ = v.buffer();
        offset_ = v.offset();
        size_ = v.size();
        capacity_ = v.capacity();
    }

    void swap(frozen_type& v) noexcept {
        frozen_type mine = get();
        set(v);
        v.swap(mine);
    }

    const E* data() const noexcept { return buffer_ ? buffer_.get() + offset_ : nullptr; }
    std::size_t size() const noexcept { return size_; }
    std::size_t capacity() const noexcept { return capacity_; }
    std::size_t offset() const noexcept { return offset_; }
    long use_count() const noexcept { return buffer_.use_count(); }

    /// Replaces the contents with the elements of the variant (a scalar variant gives an
    /// empty array). A refused or failed refill leaves the array unchanged.
    void assignFromVariant(const char* context, const UA_Variant* variant) {
        EnsureCorrectType(context, *variant, UaTypeOf<E>::type());
        const std::size_t n = variant->arrayLength;
        if (n == 0) {
            *this = FlexibleSharedArray();
            return;
        }
        const E* source = static_cast<const E*>(variant->data);
        if (buffer_ && buffer_.use_count() == 1 && capacity_ - offset_ >= n) {
            copyElements(buffer_.get() + offset_, source, n);
        } else {
            // A shared buffer stays with its other holders, so the array is always the sole
            // owner of what it holds afterwards (frozen).
            const std::size_t cap = std::max(capacity_, n);
            if (cap > std::size_t(-1) / sizeof(E)) throw std::bad_array_new_length();
            std::shared_ptr<E> fresh(new E[cap], vesk::duvo::detail::default_array_deleter<E>());
            copyElements(fresh.get(), source, n);
            buffer_ = std::move(fresh);
            offset_ = 0;
            capacity_ = cap;
        }
        size_ = n;
    }

    /// As assignFromVariant, but the elements of a variant that owns them (a value the stack
    /// decoded and handed over) become this array's buffer instead of being copied; the
    /// variant is left without them. Anything else is copied as by assignFromVariant.
    void takeFromVariant(const char* context, UA_Variant* variant) {
        EnsureCorrectType(context, *variant, UaTypeOf<E>::type());
        if (variant->storageType != UA_VARIANT_DATA || variant->arrayLength == 0 ||
            variant->data <= UA_EMPTY_ARRAY_SENTINEL) {
            assignFromVariant(context, variant);
            return;
        }
        // Detached first: should the buffer's control block fail to allocate, the deleter has
        // freed the elements and the variant no longer points at them.
        E* const elements = static_cast<E*>(variant->data);
        const std::size_t n = variant->arrayLength;
        variant->data = nullptr;
        variant->arrayLength = 0;
        buffer_ = std::shared_ptr<E>(elements, StackFree());
        offset_ = 0;
        size_ = n;
        capacity_ = n;
    }

    /// Makes the variant a one-dimensional array over the elements, borrowing them.
    void toVariant(UA_Variant& variant) const noexcept {
        variant.type = UaTypeOf<E>::type();
        variant.storageType = UA_VARIANT_DATA_NODELETE;
        variant.arrayLength = size_;
        variant.data = size_ ? const_cast<E*>(data()) : UA_EMPTY_ARRAY_SENTINEL;
        variant.arrayDimensionsSize = 0;
        variant.arrayDimensions = nullptr;
    }

private:
    /// Elements the stack allocated go back to its allocator.
    struct StackFree {
        void operator()(E* elements) const noexcept { UA_free(elements); }
    };

    static void copyElements(E* to, const E* from, std::size_t n) noexcept {
        if (n == 1)
            *to = *from;
        else
            std::memmove(to, from, n * sizeof(E));
    }

    std::shared_ptr<E> buffer_;
    std::size_t offset_ = 0;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

} // namespace vesk::duvo::opcua::detail::binding
