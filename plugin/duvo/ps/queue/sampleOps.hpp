#pragma once
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include <vesk/duvo/ps/dataEvent.hpp>

#include <duvo/ps/queue/keyHash.hpp>

namespace vesk::duvo::ps::queue {

/// A sample owned without its type: the typed edge decides what the pointer is (the queue and
/// the most-recent-value store take it as the application's type T).
using OwnedSample = std::unique_ptr<void, void (*)(void*)>;

template <class T>
void deleteAs(void* sample) noexcept {
    delete static_cast<T*>(sample);
}

/// The sample as T, owned untyped.
template <class T>
OwnedSample ownAs(std::unique_ptr<T> sample) noexcept {
    return OwnedSample(static_cast<void*>(sample.release()), &deleteAs<T>);
}

namespace detail {
class EventCore;
class InstanceQueue;
} // namespace detail

/// What the untyped stores must know of a sample type. Every pointer is a sample as T; one
/// object per type, made by sampleOps<T, ST>().
class SampleOps {
public:
    virtual bool hasKey(const void* sample) const = 0;
    /// a's keyEquals(b).
    virtual bool keyEquals(const void* a, const void* b) const = 0;
    virtual OwnedSample cloneKey(const void* sample) const = 0;
    virtual OwnedSample clone(const void* sample) const = 0;
    /// KeyHash<T> of the sample.
    virtual std::size_t keyHash(const void* sample) const = 0;
    /// The typed event, which carries the untyped one: one allocation per event.
    virtual std::shared_ptr<detail::EventCore> newEvent(std::shared_ptr<detail::InstanceQueue> instance,
                                                        double sourceTime, std::shared_ptr<void> data, bool validData,
                                                        InstanceState state, InstanceEvent event) const = 0;

protected:
    ~SampleOps() = default;
};

/// Where an untyped read puts the samples it takes: the typed edge's vector.
class SamplesOut {
public:
    virtual void reserve(std::size_t count) = 0;
    virtual void add(const std::shared_ptr<void>& sample) = 0;

protected:
    ~SamplesOut() = default;
};

template <class T>
class SamplesInto final : public SamplesOut {
public:
    explicit SamplesInto(std::vector<std::shared_ptr<T>>& samples) noexcept : samples_(samples) {}
    void reserve(std::size_t count) override { samples_.reserve(samples_.size() + count); }
    void add(const std::shared_ptr<void>& sample) override { samples_.push_back(std::static_pointer_cast<T>(sample)); }

private:
    std::vector<std::shared_ptr<T>>& samples_;
};

/// Where an untyped readDataEvents puts the events it takes.
class EventsOut {
public:
    virtual void add(const std::shared_ptr<detail::EventCore>& event) = 0;

protected:
    ~EventsOut() = default;
};

} // namespace vesk::duvo::ps::queue
