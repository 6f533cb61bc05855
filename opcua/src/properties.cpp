#include <vesk/duvo/opcua/properties.hpp>

#include <algorithm>
#include <cctype>

namespace vesk::duvo::opcua::detail {

void throwInvalidProperty(const std::string& key, const std::string& value) {
    throw std::runtime_error("invalid value for DUVO property \"" + key + "\": \"" + value + "\"");
}

bool parseBoolProperty(const std::string& key, const std::string& value) {
    std::string lower(value);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (lower == "true" || lower == "1") return true;
    if (lower == "false" || lower == "0") return false;
    throwInvalidProperty(key, value);
}

} // namespace vesk::duvo::opcua::detail
