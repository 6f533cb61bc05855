#pragma once
// Values on the command line and on the screen: parsing per element type and shape, text and
// JSON forms, and the distinctive values of the tour.
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <vesk/duvo/shared_vector.hpp>

#include "catalogue.hpp"

namespace m2ctl {

/// A mistake on the command line: exit code 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Splits on commas and trims blanks around each part.
std::vector<std::string> splitCommas(const std::string& text);
/// One argument is split on commas; several are taken one value each.
std::vector<std::string> valueTokens(const std::vector<std::string>& args);
/// A string in double quotes with JSON escapes.
std::string inQuotes(const std::string& text);
/// Seconds since the Unix epoch as "YYYY-MM-DDTHH:MM:SS.mmmZ".
std::string isoTime(double seconds);

/// Why a text is not a value of E; empty when it is (then out holds it).
template <class E>
std::string parseElement(const std::string& text, E& out) {
    const char* first = text.data();
    const char* last = text.data() + text.size();
    if constexpr (std::is_same_v<E, std::string>) {
        out = text;
        return {};
    } else if constexpr (std::is_same_v<E, bool>) {
        if (text == "true" || text == "1")
            out = true;
        else if (text == "false" || text == "0")
            out = false;
        else
            return "expected true, false, 1 or 0";
        return {};
    } else if constexpr (std::is_integral_v<E>) {
        const std::string range = "out of range for " + uaTypeName<E>() + " (" +
                                  std::to_string(+std::numeric_limits<E>::min()) + " to " +
                                  std::to_string(+std::numeric_limits<E>::max()) + ")";
        if (first != last && *first == '+') ++first;
        // Wide enough for every element type; the sign decides which.
        if (first != last && *first == '-') {
            long long wide = 0;
            const auto [end, ec] = std::from_chars(first, last, wide);
            if (ec == std::errc::result_out_of_range) return range;
            if (ec != std::errc() || end != last) return "not an integer";
            if (wide < static_cast<long long>(std::numeric_limits<E>::min())) return range;
            out = static_cast<E>(wide);
        } else {
            unsigned long long wide = 0;
            const auto [end, ec] = std::from_chars(first, last, wide);
            if (ec == std::errc::result_out_of_range) return range;
            if (ec != std::errc() || end != last) return "not an integer";
            if (wide > static_cast<unsigned long long>(std::numeric_limits<E>::max())) return range;
            out = static_cast<E>(wide);
        }
        return {};
    } else {
        if (first != last && *first == '+') ++first;
        double wide = 0;
        const auto [end, ec] = std::from_chars(first, last, wide);
        const std::string range = "out of range for " + uaTypeName<E>();
        if (ec == std::errc::result_out_of_range) return range;
        if (ec != std::errc() || end != last) return "not a number";
        if (std::isfinite(wide) && std::fabs(wide) > static_cast<double>(std::numeric_limits<E>::max())) return range;
        out = static_cast<E>(wide);
        return {};
    }
}

/// The element, or a UsageError naming what it was meant for.
template <class E>
E parseElementFor(const std::string& text, const std::string& what) {
    E out{};
    const std::string why = parseElement<E>(text, out);
    if (!why.empty()) throw UsageError("bad value " + inQuotes(text) + " for " + what + ": " + why);
    return out;
}

/// A field's value from the command line: a scalar takes one value; a vector one value per
/// argument, or one comma-separated argument (a single empty argument is the empty vector).
template <class T>
typename T::value_type parseValue(const std::vector<std::string>& args) {
    using Field = typename T::field_type;
    using E = typename Field::element_type;
    const std::string what = T::typeName;
    if constexpr (!Field::isVector) {
        if (args.size() != 1)
            throw UsageError(what + " takes one " + uaTypeName<E>() + " value, got " + std::to_string(args.size()));
        if constexpr (std::is_same_v<E, std::string>)
            return args[0];
        else
            return parseElementFor<E>(args[0], what);
    } else {
        if (args.empty()) throw UsageError(what + " needs values (\"\" for an empty vector)");
        std::vector<std::string> tokens;
        if (!(args.size() == 1 && args[0].empty())) tokens = valueTokens(args);
        std::vector<E> elements;
        for (std::size_t i = 0; i < tokens.size(); ++i)
            elements.push_back(parseElementFor<E>(tokens[i], what + " element " + std::to_string(i)));
        if constexpr (std::is_same_v<E, std::string>)
            return elements;
        else
            return typename Field::value_type(elements.begin(), elements.end());
    }
}

/// Text form of an element; JSON when json is set (numbers that JSON lacks become null).
template <class E>
std::string formatElement(const E& value, bool json = false) {
    if constexpr (std::is_same_v<E, std::string>) {
        return inQuotes(value);
    } else if constexpr (std::is_same_v<E, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_integral_v<E>) {
        return std::to_string(+value);
    } else {
        if (json && !std::isfinite(value)) return "null";
        char buffer[64];
        const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
        return ec == std::errc() ? std::string(buffer, end) : std::string("?");
    }
}

/// Text (or JSON) form of a field value or a parameter: vectors as [a, b, c].
template <class V>
std::string formatValue(const V& value, bool json = false) {
    if constexpr (std::is_arithmetic_v<V> || std::is_same_v<V, std::string>) {
        return formatElement(value, json);
    } else {
        std::string out = "[";
        for (const auto& element : value) {
            if (out.size() > 1) out += json ? "," : ", ";
            out += formatElement(element, json);
        }
        return out + "]";
    }
}

/// The k-th distinctive element: far from zero, different for each k, exactly representable.
template <class E>
E distinctElement(int k) {
    if constexpr (std::is_same_v<E, std::string>) {
        return "m2 \xc3\xa9l\xc3\xa9ment #" + std::to_string(k);
    } else if constexpr (std::is_same_v<E, bool>) {
        return k % 2 == 0;
    } else if constexpr (std::is_integral_v<E>) {
        // Uses the upper bits of wide types, so a narrowed transfer would show.
        const long long magnitude = 42 + 7 * k + (sizeof(E) >= 8 ? (1LL << 40) : sizeof(E) >= 4 ? (1LL << 20) : 0);
        return static_cast<E>(std::is_signed_v<E> && k % 2 == 1 ? -magnitude : magnitude);
    } else {
        return static_cast<E>((k % 2 == 1 ? -1.25 : 1.25) * (k + 1));
    }
}

/// A distinctive value of a field or parameter; vectors get `length` elements.
template <class V>
V distinctValue(int seed, std::size_t length) {
    if constexpr (std::is_arithmetic_v<V> || std::is_same_v<V, std::string>) {
        return distinctElement<V>(seed);
    } else {
        using E = std::remove_const_t<typename V::value_type>;
        std::vector<E> elements;
        for (std::size_t i = 0; i < length; ++i) elements.push_back(distinctElement<E>(seed + int(i)));
        if constexpr (std::is_same_v<V, std::vector<std::string>>)
            return elements;
        else
            return V(elements.begin(), elements.end());
    }
}

} // namespace m2ctl
