// Whatever a server sends as a value: the fuzzer's bytes decoded as a UA_DataValue by
// open62541's own decoder, then handed to each of the 24 bindings as a notification would
// hand it. A sample is either filled with exactly what the value holds or refused and left
// as it was; a filled sample converts back to OPC UA and copies cleanly.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <open62541/types.h>

#include <duvo/opcua/detail/ps/dataMonitor.hpp>
#include <generated/opcua/m2Types/m2Types.hpp>

namespace {

using vesk::duvo::opcua::detail::binding::BindingOf_t;

[[noreturn]] void fail(const char* type, const std::string& what) {
    std::fprintf(stderr, "value_fuzzer: %s: %s\n", type, what.c_str());
    std::abort();
}

/// Elements compared bit for bit, so that NaNs compare equal to themselves.
template <class E>
bool same(const E& a, const E& b) {
    if constexpr (std::is_arithmetic_v<E>)
        return std::memcmp(&a, &b, sizeof(E)) == 0;
    else
        return a == b;
}

template <class E>
bool same(const vesk::duvo::shared_vector<const E>& a, const std::vector<E>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < b.size(); ++i)
        if (!same(a[i], b[i])) return false;
    return true;
}

template <class E>
bool same(const vesk::duvo::shared_vector<const E>& a, const vesk::duvo::shared_vector<const E>& b) {
    return same(a, std::vector<E>(b.begin(), b.end()));
}

bool same(const std::vector<std::string>& a, const std::vector<std::string>& b) { return a == b; }

std::optional<std::string> text(const UA_String& s) {
    if (s.length != 0 && s.data == nullptr) return std::nullopt;
    return std::string(s.length ? reinterpret_cast<const char*>(s.data) : "", s.length);
}

/// What a field of this shape should hold after taking the variant, or nothing when the
/// variant must be refused.
template <class Field>
struct Expected;

template <class E>
struct Expected<m2Types::Scalar<E>> {
    static std::optional<E> of(const UA_Variant& v, const UA_DataType* type) {
        if (v.type != type || v.data == nullptr || v.data == UA_EMPTY_ARRAY_SENTINEL) return std::nullopt;
        if (!UA_Variant_isScalar(&v) && v.arrayLength == 0) return std::nullopt;
        if constexpr (std::is_same_v<E, std::string>)
            return text(*static_cast<const UA_String*>(v.data));
        else
            return *static_cast<const E*>(v.data); // a scalar, or an array's first element
    }
};

template <class E>
struct Expected<m2Types::Vector<E>> {
    static std::optional<std::vector<E>> of(const UA_Variant& v, const UA_DataType* type) {
        if (v.type != type || v.data == nullptr) return std::nullopt;
        std::vector<E> out;
        for (std::size_t i = 0; i < v.arrayLength; ++i) {
            if constexpr (std::is_same_v<E, std::string>) {
                auto s = text(static_cast<const UA_String*>(v.data)[i]);
                if (!s) return std::nullopt;
                out.push_back(*s);
            } else {
                out.push_back(static_cast<const E*>(v.data)[i]);
            }
        }
        return out;
    }
};

/// A value unlike anything the decoder makes, so that a partial change shows.
template <class Type>
typename Type::value_type preset() {
    using Field = typename Type::field_type;
    using E = typename Field::element_type;
    if constexpr (std::is_same_v<typename Type::value_type, std::string>) {
        return "preset value that must survive a refusal";
    } else if constexpr (std::is_same_v<typename Type::value_type, std::vector<std::string>>) {
        return {"kept", "", "kept too"};
    } else if constexpr (Field::isVector) {
        vesk::duvo::shared_vector<E> v(3);
        for (std::size_t i = 0; i < 3; ++i) v[i] = static_cast<E>(7 + i);
        return vesk::duvo::freeze(std::move(v));
    } else {
        return static_cast<E>(true);
    }
}

template <class Type>
void feed(const UA_DataValue& value) {
    using ST = BindingOf_t<Type>;
    using Field = typename Type::field_type;
    const UA_DataType* type = vesk::duvo::opcua::detail::binding::UaTypeOf<typename Field::element_type>::type();

    // The monitor's steps: the time, then a new sample filled from the value.
    const double time = vesk::duvo::opcua::detail::ps::notificationTime(value);
    (void)time;
    ST sample;
    sample.setValue0(preset<Type>());
    const auto before = sample.getValue0();
    bool accepted = true;
    try {
        sample.setOpcUaDataValues(&value);
    } catch (const std::exception&) {
        accepted = false;
    }
    const auto expected = Expected<Field>::of(value.value, type);
    if (!accepted) {
        if (expected) fail(Type::typeName, "a valid value was refused");
        if (!same(sample.getValue0(), before)) fail(Type::typeName, "a refused value changed the sample");
        return;
    }
    if (!expected) fail(Type::typeName, "an invalid value was accepted");
    if (!same(sample.getValue0(), *expected)) fail(Type::typeName, "the sample holds something else than the value");

    // Filled samples travel on: back to OPC UA (encoded, as a publish would), cloned, copied.
    const UA_DataValue* out = sample.getOpcUaDataValues();
    if (UA_calcSizeBinary(out, &UA_TYPES[UA_TYPES_DATAVALUE]) == 0) fail(Type::typeName, "cannot encode");
    const auto clone = sample.clone();
    if (!same(clone->getValue0(), sample.getValue0())) fail(Type::typeName, "a clone differs");
    ST copy;
    copy.copy(*clone);
    if (!same(copy.getValue0(), sample.getValue0())) fail(Type::typeName, "a copy differs");
    // Filling again over the clone's shared buffer leaves the clone alone.
    sample.setOpcUaDataValues(&value);
    if (!same(clone->getValue0(), *expected)) fail(Type::typeName, "a refill changed a clone");
}

template <class... Types>
void feedAll(const UA_DataValue& value, m2Types::TypeList<Types...>) {
    (feed<Types>(value), ...);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    UA_ByteString bytes{size, const_cast<UA_Byte*>(data)};
    UA_DataValue value;
    UA_DataValue_init(&value);
    if (UA_decodeBinary(&bytes, &value, &UA_TYPES[UA_TYPES_DATAVALUE], nullptr) != UA_STATUSCODE_GOOD) return 0;
    feedAll(value, m2Types::DataTypes{});
    UA_DataValue_clear(&value);
    return 0;
}
