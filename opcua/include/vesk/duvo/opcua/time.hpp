#pragma once
// OPC UA times as the middleware's double seconds since the Unix epoch.
#include <open62541/types.h>
#include <open62541/types_generated.h>

namespace vesk::duvo::opcua::detail {

/// Seconds since the Unix epoch of an OPC UA source timestamp and its picoseconds, the exact
/// inverse of how a publisher stamps a sample time t:
///   ticks = floor(t * 1e7); sourceTimestamp = ticks + 116444736000000000;
///   picoseconds = (t * 1e7 - ticks) / 0.00001, truncated.
double unixTimestamp(UA_DateTime sourceTimestamp, UA_UInt16 picoseconds);

/// The newest source time (unixTimestamp of source timestamp and picoseconds) among the
/// results, or 0.0 when no result carries a source timestamp. Server timestamps are not used:
/// they tell when the server answered, not when the data changed, so unchanged data would
/// look new at every read.
double maxDataTimestamp(const UA_ReadResponse& response);

} // namespace vesk::duvo::opcua::detail
