// Property values as an application may set them: a value is read as its type exactly when
// it is written as one, and anything else is refused with the one message that names the
// key and the value.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include <vesk/duvo/opcua/properties.hpp>

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& key, const std::string& value) {
    std::fprintf(stderr, "property_fuzzer: %s\n  key: \"%s\"\n  value: \"%s\"\n", what.c_str(), key.c_str(),
                 value.c_str());
    std::abort();
}

std::string lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

/// A decimal integer: an optional sign and digits, nothing else, within the type's range.
template <class I>
std::optional<I> integer(const std::string& s) {
    std::size_t i = (!s.empty() && (s[0] == '+' || s[0] == '-')) ? 1 : 0;
    if (i == s.size()) return std::nullopt;
    for (std::size_t k = i; k < s.size(); ++k)
        if (!std::isdigit(static_cast<unsigned char>(s[k]))) return std::nullopt;
    errno = 0;
    const long long v = std::strtoll(s.c_str(), nullptr, 10);
    if (errno == ERANGE || v < static_cast<long long>(std::numeric_limits<I>::min()) ||
        v > static_cast<long long>(std::numeric_limits<I>::max()))
        return std::nullopt;
    return static_cast<I>(v);
}

/// What getDuvoProperty<T> gives, or nothing when it refuses; fails on any other exception
/// or a refusal worded otherwise.
template <class T>
std::optional<T> read(const std::map<std::string, std::string>& props, const std::string& key, T fallback) {
    try {
        return vesk::duvo::opcua::detail::getDuvoProperty<T>(props, key, fallback);
    } catch (const std::runtime_error& e) {
        const std::string expected = "invalid value for DUVO property \"" + key + "\": \"" + props.at(key) + "\"";
        // what() ends at a NUL byte.
        if (e.what() != expected.substr(0, expected.find('\0')))
            fail(std::string("refused with another text: ") + e.what(), key, props.at(key));
        return std::nullopt;
    } catch (const std::exception& e) {
        fail(std::string("threw something else than std::runtime_error: ") + e.what(), key, props.at(key));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // KEY \0 VALUE; without a separator the whole input is the value of a fixed key.
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = input.find('\0');
    const std::string key = cut == std::string::npos ? "opc.ps.pollingPeriodMs" : input.substr(0, cut);
    const std::string value = cut == std::string::npos ? input : input.substr(cut + 1);
    const std::map<std::string, std::string> props{{key, value}, {"opc.other", "x"}};

    const auto flag = read<bool>(props, key, false);
    const std::string l = lower(value);
    const std::optional<bool> wanted = (l == "true" || l == "1")    ? std::optional<bool>(true)
                                       : (l == "false" || l == "0") ? std::optional<bool>(false)
                                                                    : std::nullopt;
    if (flag != wanted) fail("bool read differently", key, value);

    if (read<int>(props, key, 0) != integer<int>(value)) fail("int read differently", key, value);
    if (read<long>(props, key, 0) != integer<long>(value)) fail("long read differently", key, value);
    if (read<std::string>(props, key, "") != value) fail("text read differently", key, value);

    // An absent key gives the default, whatever else the map holds.
    const std::string absent = key + "#absent";
    if (vesk::duvo::opcua::detail::getDuvoProperty<int>(props, absent, 42) != 42) fail("no default", key, value);
    if (vesk::duvo::opcua::detail::getDuvoProperty<bool>(props, absent, true) != true) fail("no default", key, value);
    return 0;
}
