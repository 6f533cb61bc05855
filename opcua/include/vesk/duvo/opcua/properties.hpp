#pragma once
// Typed reading of the middleware properties.
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <boost/lexical_cast.hpp>

namespace vesk::duvo::opcua::detail {

/// Thrown for a property value that does not convert: `invalid value for DUVO property "KEY": "VALUE"`.
[[noreturn]] void throwInvalidProperty(const std::string& key, const std::string& value);

/// Reads `true`/`false` (any case) and `1`/`0`; anything else throws as throwInvalidProperty.
bool parseBoolProperty(const std::string& key, const std::string& value);

/// The property key converted to T (Boost's lexical cast), or defaultValue when it is absent.
/// A value that does not convert throws std::runtime_error with the message
/// `invalid value for DUVO property "KEY": "VALUE"`.
template <class T>
T getDuvoProperty(const std::map<std::string, std::string>& props, const std::string& key, T defaultValue) {
    const auto it = props.find(key);
    if (it == props.end()) return defaultValue;
    if constexpr (std::is_same_v<T, bool>) {
        return parseBoolProperty(key, it->second);
    } else {
        try {
            return boost::lexical_cast<T>(it->second);
        } catch (const boost::bad_lexical_cast&) {
            throwInvalidProperty(key, it->second);
        }
    }
}

} // namespace vesk::duvo::opcua::detail
