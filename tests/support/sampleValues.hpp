#pragma once
// Distinct, recognisable values for every field shape, so that a round trip through OPC UA
// proves that each element arrives in its place.
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <m2Types/m2Types.hpp>

namespace duvo::test {

template <class Field>
struct SampleValues;

template <class E>
struct SampleValues<m2Types::Scalar<E>> {
    static E make(int seed) {
        if constexpr (std::is_same_v<E, bool>)
            return seed % 2 == 1;
        else
            return static_cast<E>(seed * 3 + 1) / static_cast<E>(std::is_floating_point_v<E> ? 4 : 1);
    }
};

template <>
struct SampleValues<m2Types::Scalar<std::string>> {
    static std::string make(int seed) { return "value \xc3\xa9; \"" + std::to_string(seed) + "\""; }
};

template <class E>
struct SampleValues<m2Types::Vector<E>> {
    static vesk::duvo::shared_vector<const E> make(int seed, std::size_t n) {
        vesk::duvo::shared_vector<E> v(n);
        for (std::size_t i = 0; i < n; ++i) v[i] = SampleValues<m2Types::Scalar<E>>::make(seed + int(i));
        return vesk::duvo::freeze(std::move(v));
    }
};

template <>
struct SampleValues<m2Types::Vector<std::string>> {
    static std::vector<std::string> make(int seed, std::size_t n) {
        std::vector<std::string> v;
        for (std::size_t i = 0; i < n; ++i)
            v.push_back(i % 3 == 2 ? std::string() : "s" + std::to_string(seed + int(i)));
        return v;
    }
};

/// A value of T's field: a vector has its nominal length unless a length is given.
template <class T>
typename T::value_type makeValue(int seed, std::size_t length = T::nominalLength) {
    using Field = typename T::field_type;
    if constexpr (Field::isVector)
        return SampleValues<Field>::make(seed, length);
    else
        return SampleValues<Field>::make(seed);
}

/// A method argument of parameter type P, distinct per seed; a shared vector has 5 elements.
template <class P>
P sampleArgument(int seed) {
    if constexpr (std::is_arithmetic_v<P>)
        return SampleValues<m2Types::Scalar<P>>::make(seed);
    else
        return SampleValues<m2Types::Vector<std::remove_const_t<typename P::value_type>>>::make(seed, 5);
}

/// A sample of a module type made by some other binding: ours must refuse it.
struct ForeignInt32 : m2Types::M2Int32Value0 {
    std::unique_ptr<M2Int32Value0> clone() const override { return std::make_unique<ForeignInt32>(); }
    bool keyEquals(const M2Int32Value0&) const override { return false; }
    std::unique_ptr<M2Int32Value0> cloneKey() const override { return clone(); }
    bool hasKey() const override { return false; }
    int getValue0() const override { return 1; }
    void setValue0(int) override {}
};

/// Gives typed tests the module type's name.
struct TypeNames {
    template <class T>
    static std::string GetName(int) {
        return T::typeName;
    }
};

} // namespace duvo::test
