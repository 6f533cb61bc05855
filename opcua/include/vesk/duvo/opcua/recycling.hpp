#pragma once
// Free lists for what the client makes and frees once per request: the request's record, its
// promise's shared state and its in-flight entry. Once the client is warm, a publish or a call
// takes these blocks from the lists instead of the heap.
#include <cstddef>
#include <mutex>
#include <new>
#include <vector>

namespace vesk::duvo::opcua::detail {

/// Blocks of one size, shared by every client of the process. Thread-safe: a block may be
/// taken on an application thread and given back on the network thread.
template <std::size_t Size>
class BlockPool {
public:
    static void* take() {
        Lists& l = lists();
        {
            std::lock_guard<std::mutex> lock(l.mutex);
            if (!l.free.empty()) {
                void* block = l.free.back();
                l.free.pop_back();
                return block;
            }
        }
        return ::operator new(Size);
    }

    static void give(void* block) noexcept {
        Lists& l = lists();
        {
            std::lock_guard<std::mutex> lock(l.mutex);
            if (l.free.size() < l.free.capacity()) {
                l.free.push_back(block);
                return;
            }
        }
        ::operator delete(block);
    }

private:
    struct Lists {
        Lists() { free.reserve(kept); }
        std::mutex mutex;
        std::vector<void*> free; // never grows: what does not fit goes back to the heap
    };
    static constexpr std::size_t kept = 4096; // requests in flight at once, and more

    static Lists& lists() {
        // Never destroyed: a client may be destroyed during static destruction. Its blocks
        // stay reachable from here, so leak checkers do not count them.
        static Lists* l = new Lists;
        return *l;
    }
};

/// An allocator over BlockPool for single objects; arrays (a hash table's buckets) go to the heap.
template <class T>
struct Recycling {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = Recycling<U>;
    };
    static constexpr std::size_t blockSize = (sizeof(T) + 63) / 64 * 64; // fewer, fuller pools
    static_assert(alignof(T) <= alignof(std::max_align_t), "the pool's blocks are max_align_t-aligned");

    Recycling() noexcept = default;
    template <class U>
    Recycling(const Recycling<U>&) noexcept {}

    T* allocate(std::size_t n) {
        if (n == 1) return static_cast<T*>(BlockPool<blockSize>::take());
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t n) noexcept {
        if (n == 1)
            BlockPool<blockSize>::give(p);
        else
            ::operator delete(p);
    }

    template <class U>
    bool operator==(const Recycling<U>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const Recycling<U>&) const noexcept {
        return false;
    }
};

} // namespace vesk::duvo::opcua::detail
