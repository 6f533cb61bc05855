#pragma once
#include <open62541/types.h>

namespace vesk::duvo::opcua::detail::binding {

/// Returns when the variant holds data of the expected type; otherwise throws
/// vesk::duvo::DuvoException naming the field (context), the expected and the received type.
void EnsureCorrectType(const char* context, const UA_Variant& variant, const UA_DataType* expected);

/// As EnsureCorrectType, and the variant must hold at least one element (a scalar, or an
/// array whose first element is taken); an empty array is refused.
void EnsureScalar(const char* context, const UA_Variant& variant, const UA_DataType* expected);

} // namespace vesk::duvo::opcua::detail::binding
