#include <vesk/duvo/opcua/detail/binding/ensureCorrectType.hpp>

#include <string>

#include <vesk/duvo/exceptions.hpp>

namespace vesk::duvo::opcua::detail::binding {
namespace {

[[noreturn]] void refuse(const char* context, const UA_DataType* expected, const std::string& received) {
    throw DuvoException(std::string(context) + ": expected " + expected->typeName + ", received " + received);
}

} // namespace

void EnsureCorrectType(const char* context, const UA_Variant& variant, const UA_DataType* expected) {
    if (variant.type == expected && variant.data != nullptr) return;
    if (variant.type == nullptr || variant.data == nullptr) refuse(context, expected, "no value");
    refuse(context, expected, variant.type->typeName);
}

void EnsureScalar(const char* context, const UA_Variant& variant, const UA_DataType* expected) {
    EnsureCorrectType(context, variant, expected);
    if (variant.data == UA_EMPTY_ARRAY_SENTINEL || (!UA_Variant_isScalar(&variant) && variant.arrayLength == 0))
        refuse(context, expected, std::string("an empty ") + expected->typeName + " array");
}

} // namespace vesk::duvo::opcua::detail::binding
