#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <vesk/duvo/rr/qos.hpp>

namespace vesk::duvo::util {

/// Unix time in milliseconds.
std::int64_t currentTimeMillis();

/// Unix milliseconds to seconds as a double.
double timestampToDouble(std::int64_t millis);

/// Seconds as a double to Unix milliseconds (rounded down).
std::int64_t timestampFromDouble(double seconds);

/// A new random (version 4) UUID in its text form.
std::string newUUID();

/// The reply time of the QoS list in milliseconds; 2147483647 when none is given.
long getReplyTimeQoS(const std::vector<std::shared_ptr<rr::qos::QoS>>& qos);

/// Throws std::invalid_argument, naming the URI, when it does not parse, has no host, or
/// lacks a path or fragment that the flags require.
void checkUri(const std::string& uri, bool needsPath, bool needsFragment);

} // namespace vesk::duvo::util
