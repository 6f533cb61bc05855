#pragma once
// One owning wrapper for every open62541 value.
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include <open62541/types.h>
#include <open62541/types_generated.h>

namespace vesk::duvo::opcua::detail {

/// Maps an open62541 struct to its entry of the UA_TYPES table.
template <class T>
struct UaTypeOf;

#define DUVO_UA_TYPE_OF(T, INDEX)                                                                                      \
    template <>                                                                                                        \
    struct UaTypeOf<T> {                                                                                               \
        static const UA_DataType* type() { return &UA_TYPES[INDEX]; }                                                  \
    };

DUVO_UA_TYPE_OF(UA_NodeId, UA_TYPES_NODEID)
DUVO_UA_TYPE_OF(UA_String, UA_TYPES_STRING)
DUVO_UA_TYPE_OF(UA_Variant, UA_TYPES_VARIANT)
DUVO_UA_TYPE_OF(UA_DataValue, UA_TYPES_DATAVALUE)
DUVO_UA_TYPE_OF(UA_ReadValueId, UA_TYPES_READVALUEID)
DUVO_UA_TYPE_OF(UA_WriteValue, UA_TYPES_WRITEVALUE)
DUVO_UA_TYPE_OF(UA_CallMethodRequest, UA_TYPES_CALLMETHODREQUEST)
DUVO_UA_TYPE_OF(UA_CallMethodResult, UA_TYPES_CALLMETHODRESULT)
DUVO_UA_TYPE_OF(UA_ReadRequest, UA_TYPES_READREQUEST)
DUVO_UA_TYPE_OF(UA_ReadResponse, UA_TYPES_READRESPONSE)
DUVO_UA_TYPE_OF(UA_WriteRequest, UA_TYPES_WRITEREQUEST)
DUVO_UA_TYPE_OF(UA_WriteResponse, UA_TYPES_WRITERESPONSE)
DUVO_UA_TYPE_OF(UA_CallRequest, UA_TYPES_CALLREQUEST)
DUVO_UA_TYPE_OF(UA_CallResponse, UA_TYPES_CALLRESPONSE)

#undef DUVO_UA_TYPE_OF

/// Frees a heap value made by UA_new (or by UaCpp), contents included.
template <class T>
void uaDelete(T* value) {
    UA_delete(value, UaTypeOf<T>::type());
}

/// Owning wrapper of a heap-allocated open62541 value of type T, held by Holder: either
/// std::shared_ptr<T> (copies share the value, as reference-counted handles) or
/// std::unique_ptr<T, void (*)(T*)> (copies are deep copies). Copy, move and clear go through
/// T's UA_TYPES entry. A moved-from wrapper holds nothing.
template <class T, class Holder>
class UaCpp {
    static constexpr bool shares = std::is_same_v<Holder, std::shared_ptr<T>>;
    static_assert(shares || std::is_same_v<Holder, std::unique_ptr<T, void (*)(T*)>>,
                  "Holder is std::shared_ptr<T> or std::unique_ptr<T, void(*)(T*)>");

public:
    using value_type = T;
    using holder_type = Holder;

    /// A zeroed value.
    UaCpp() : holder_(allocate()) {}

    /// A deep copy of value.
    explicit UaCpp(const T& value) : holder_(allocate()) {
        const UA_StatusCode rc = UA_copy(&value, holder_.get(), type());
        if (rc != UA_STATUSCODE_GOOD) throw std::bad_alloc();
    }

    /// Takes the contents of value and leaves it zeroed (no element is copied).
    static UaCpp take(T& value) {
        UaCpp result;
        *result.holder_ = value;
        UA_init(&value, type());
        return result;
    }

    /// Takes ownership of a value allocated by UA_new (or null).
    static UaCpp adopt(T* value) { return UaCpp(Holder(value, &uaDelete<T>)); }

    UaCpp(const UaCpp& other) : holder_(copyOf(other)) {}
    UaCpp& operator=(const UaCpp& other) {
        if (this != &other) holder_ = copyOf(other);
        return *this;
    }
    UaCpp(UaCpp&&) noexcept = default;
    UaCpp& operator=(UaCpp&&) noexcept = default;
    ~UaCpp() = default;

    /// A deep copy, whatever the holder.
    UaCpp clone() const { return holder_ ? UaCpp(*holder_) : UaCpp(Holder(nullptr, &uaDelete<T>)); }

    /// Empties the value (frees its contents, leaves it zeroed).
    void clear() {
        if (holder_) UA_clear(holder_.get(), type());
    }

    T* get() const { return holder_.get(); }
    T* operator->() const { return holder_.get(); }
    T& operator*() const { return *holder_; }
    explicit operator bool() const { return static_cast<bool>(holder_); }
    const Holder& holder() const { return holder_; }

    static const UA_DataType* type() { return UaTypeOf<T>::type(); }

private:
    explicit UaCpp(Holder holder) : holder_(std::move(holder)) {}

    static Holder allocate() {
        auto* value = static_cast<T*>(UA_new(type()));
        if (value == nullptr) throw std::bad_alloc();
        return Holder(value, &uaDelete<T>);
    }

    static Holder copyOf(const UaCpp& other) {
        if constexpr (shares) {
            return other.holder_;
        } else {
            return other.holder_ ? std::move(other.clone().holder_) : Holder(nullptr, &uaDelete<T>);
        }
    }

    Holder holder_;
};

/// The wrappers the platform hands out.
template <class T>
using UaShared = UaCpp<T, std::shared_ptr<T>>;
template <class T>
using UaUnique = UaCpp<T, std::unique_ptr<T, void (*)(T*)>>;

using UaNodeId = UaShared<UA_NodeId>;
using UaReadValueId = UaShared<UA_ReadValueId>;
using UaReadResponse = UaUnique<UA_ReadResponse>;
using UaWriteResponse = UaUnique<UA_WriteResponse>;
using UaCallResponse = UaUnique<UA_CallResponse>;

} // namespace vesk::duvo::opcua::detail
