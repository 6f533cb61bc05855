#pragma once
// Method arguments: parsed from the command line per the interface's parameter types, made up
// for the tour, shown, and compared with what a simulator received.
#include <cstddef>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <vesk/duvo/sim/ownedVariant.hpp>

#include "catalogue.hpp"
#include "values.hpp"

namespace m2ctl {

template <class List>
struct ArgumentTuple;
template <class... Ps>
struct ArgumentTuple<m2Types::TypeList<Ps...>> {
    using type = std::tuple<Ps...>;
    static constexpr std::size_t vectors = (std::size_t(0) + ... + std::size_t(IsVectorParam<Ps>::value));
    static constexpr std::size_t scalars = sizeof...(Ps) - vectors;
    static_assert(vectors <= 1, "the values of two vector parameters could not be told apart");
};

/// Length of a vector parameter in the tour (the interfaces give none).
inline constexpr std::size_t tourVectorLength = 6;

namespace detail {

template <class P>
P takeArgument(const std::vector<std::string>& tokens, std::size_t& cursor, std::size_t vectorLength,
               const std::string& what, std::size_t position) {
    const std::string argument = what + " argument " + std::to_string(position + 1);
    if constexpr (IsVectorParam<P>::value) {
        using E = typename ElementOf<P>::type;
        std::vector<E> elements;
        for (std::size_t i = 0; i < vectorLength; ++i)
            elements.push_back(parseElementFor<E>(tokens[cursor++], argument + " element " + std::to_string(i)));
        return P(elements.begin(), elements.end());
    } else {
        return parseElementFor<P>(tokens[cursor++], argument);
    }
}

template <class... Ps, std::size_t... Is>
std::tuple<Ps...> parseArguments(const std::vector<std::string>& tokens, std::size_t vectorLength,
                                 const std::string& what, std::index_sequence<Is...>) {
    std::size_t cursor = 0;
    // Braced initialisation evaluates left to right, so the tokens are taken in order.
    return std::tuple<Ps...>{takeArgument<Ps>(tokens, cursor, vectorLength, what, Is)...};
}

template <class... Ps>
std::tuple<Ps...> parseArgumentList(m2Types::TypeList<Ps...> list, const std::vector<std::string>& args,
                                    const std::string& what) {
    using Shape = ArgumentTuple<m2Types::TypeList<Ps...>>;
    const std::vector<std::string> tokens = valueTokens(args);
    const std::string types = foldedTypes(argumentTypes(list));
    if (Shape::vectors == 0 && tokens.size() != Shape::scalars)
        throw UsageError(what + " takes " + std::to_string(Shape::scalars) +
                         (Shape::scalars == 1 ? " value" : " values") + " (" + types + "), got " +
                         std::to_string(tokens.size()));
    if (Shape::vectors == 1 && tokens.size() < Shape::scalars)
        throw UsageError(what + " takes at least " + std::to_string(Shape::scalars) + " values (" + types + "), got " +
                         std::to_string(tokens.size()));
    return parseArguments<Ps...>(tokens, tokens.size() - Shape::scalars, what, std::index_sequence_for<Ps...>{});
}

template <class... Ps, std::size_t... Is>
std::tuple<Ps...> distinctArgumentList(m2Types::TypeList<Ps...>, std::index_sequence<Is...>) {
    return std::tuple<Ps...>{distinctValue<Ps>(int(Is), tourVectorLength)...};
}

/// Whether the simulator got exactly this argument: same OPC UA type, shape and elements.
template <class P>
bool sameArgument(const vesk::duvo::sim::OwnedVariant& got, const P& sent) {
    using E = typename ElementOf<P>::type;
    if (!got.hasType(uaTypeOf<E>())) return false;
    if constexpr (IsVectorParam<P>::value) {
        if (got.isScalar() || got.arrayLength() != sent.size()) return false;
        for (std::size_t i = 0; i < sent.size(); ++i)
            if (!(got.template at<E>(i) == sent[i])) return false;
        return true;
    } else {
        return got.isScalar() && got.template at<E>() == sent;
    }
}

} // namespace detail

/// The arguments of the interface row's method from the command line. One argument is split
/// on commas, several are one value each; a vector parameter takes what the scalars leave.
template <class Row>
typename ArgumentTuple<typename Row::Params>::type parseArguments(const std::vector<std::string>& args) {
    return detail::parseArgumentList(typename Row::Params{}, args, Row::Methods::interfaceName);
}

/// Distinctive arguments, different per position, for the tour.
template <class Row>
typename ArgumentTuple<typename Row::Params>::type distinctArguments() {
    using Params = typename Row::Params;
    return detail::distinctArgumentList(Params{}, std::make_index_sequence<Params::size>{});
}

/// "a, [b, c]" (or a JSON array's content).
template <class Tuple>
std::string formatArguments(const Tuple& arguments, bool json = false) {
    std::string out;
    std::apply(
        [&](const auto&... a) { ((out += (out.empty() ? "" : (json ? "," : ", ")) + formatValue(a, json)), ...); },
        arguments);
    return out;
}

/// Whether the recorded arguments are exactly those sent.
template <class Tuple>
bool sameArguments(const std::vector<vesk::duvo::sim::OwnedVariant>& got, const Tuple& sent) {
    if (got.size() != std::tuple_size_v<Tuple>) return false;
    std::size_t i = 0;
    return std::apply([&](const auto&... a) { return (detail::sameArgument(got[i++], a) && ...); }, sent);
}

} // namespace m2ctl
