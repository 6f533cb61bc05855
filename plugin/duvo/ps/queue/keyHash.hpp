#pragma once
#include <cstddef>

namespace vesk::duvo::ps::queue {

/// Hash of a sample's key, used by the instance map and the most-recent-value store.
///
/// The sample interface (DataEntity<T>) has no hash slot, and its slot order is fixed, so the
/// hash lives in this trait instead. The default is a constant: correct for every type (the
/// maps then fall back to keyEquals within one bucket) and exact for keyless types, whose
/// samples never enter the instance map and share the one empty key in the most-recent-value
/// store. A keyed type specialises the trait, hashing exactly the fields that keyEquals
/// compares, so that samples with equal keys always hash equally.
template <class T>
struct KeyHash {
    std::size_t operator()(const T& /*sample*/) const noexcept { return 0; }
};

} // namespace vesk::duvo::ps::queue
