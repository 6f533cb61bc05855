#pragma once
#include <type_traits>

#include <m2Types/m2Types.hpp>

namespace duvo::test {

/// The types of a catalogue list for which Pred<T>::value holds.
template <template <class> class Pred, class List, class Acc = m2Types::TypeList<>>
struct Filter;
template <template <class> class Pred, class... Acc>
struct Filter<Pred, m2Types::TypeList<>, m2Types::TypeList<Acc...>> {
    using type = m2Types::TypeList<Acc...>;
};
template <template <class> class Pred, class Head, class... Rest, class... Acc>
struct Filter<Pred, m2Types::TypeList<Head, Rest...>, m2Types::TypeList<Acc...>>
    : Filter<Pred, m2Types::TypeList<Rest...>,
             std::conditional_t<Pred<Head>::value, m2Types::TypeList<Acc..., Head>, m2Types::TypeList<Acc...>>> {};

template <class T>
struct IsVector : std::bool_constant<T::field_type::isVector> {};
template <class T>
struct IsNumericVector : std::bool_constant<m2Types::detail::swappable_v<typename T::field_type>> {};

} // namespace duvo::test
