#include <vesk/duvo/opcua/time.hpp>

namespace vesk::duvo::opcua::detail {

namespace {
constexpr UA_DateTime unixEpochTicks = 116444736000000000LL;
}

double unixTimestamp(UA_DateTime sourceTimestamp, UA_UInt16 picoseconds) {
    // Mirrors the stamping: whole ticks first, then the picoseconds as 1e-5 of a tick. A
    // server may send any DateTime; one too far back for the exact difference is taken inexactly.
    UA_DateTime sinceEpoch = 0;
    const double ticks = __builtin_sub_overflow(sourceTimestamp, unixEpochTicks, &sinceEpoch)
                             ? static_cast<double>(sourceTimestamp) - static_cast<double>(unixEpochTicks)
                             : static_cast<double>(sinceEpoch);
    return (ticks + picoseconds * 0.00001) / 1e7;
}

double maxDataTimestamp(const UA_ReadResponse& response) {
    double newest = 0.0;
    bool found = false;
    for (size_t i = 0; i < response.resultsSize; ++i) {
        const UA_DataValue& value = response.results[i];
        if (!value.hasSourceTimestamp) continue;
        const double t = unixTimestamp(value.sourceTimestamp, value.hasSourcePicoseconds ? value.sourcePicoseconds : 0);
        if (!found || t > newest) newest = t;
        found = true;
    }
    return newest;
}

} // namespace vesk::duvo::opcua::detail
