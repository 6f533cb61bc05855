#pragma once
// A keyed sample type for the instance cases: no m2Types structure has a key.
#include <functional>
#include <memory>

#include <vesk/duvo/ps/dataEntity.hpp>

#include <duvo/ps/queue/keyHash.hpp>

namespace duvo::test {

/// The abstract type, as a module would declare it: a key field and a value.
class Keyed : public vesk::duvo::ps::DataEntity<Keyed> {
public:
    virtual int getKey() const = 0;
    virtual int getValue() const = 0;
};

/// Its binding class; a second instantiation stands for another middleware's binding.
template <int Binding>
class KeyedImpl : public Keyed {
public:
    KeyedImpl(int key = 0, int value = 0) : key_(key), value_(value) {}
    std::unique_ptr<Keyed> clone() const override { return std::make_unique<KeyedImpl>(*this); }
    bool keyEquals(const Keyed& other) const override { return other.getKey() == key_; }
    std::unique_ptr<Keyed> cloneKey() const override { return std::make_unique<KeyedImpl>(key_); }
    bool hasKey() const override { return true; }
    int getKey() const override { return key_; }
    int getValue() const override { return value_; }
    void copy(const Keyed& other) { *this = KeyedImpl(other.getKey(), other.getValue()); }

private:
    int key_;
    int value_;
};

using KeyedBinding = KeyedImpl<0>;
using ForeignKeyed = KeyedImpl<1>;

} // namespace duvo::test

template <>
struct vesk::duvo::ps::queue::KeyHash<::duvo::test::Keyed> {
    std::size_t operator()(const ::duvo::test::Keyed& s) const noexcept { return std::hash<int>{}(s.getKey()); }
};
