#pragma once
#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace vesk::duvo {

namespace detail {

/// Releases an element buffer made with new[].
template <class E>
struct default_array_deleter {
    /// Deletes the array.
    void operator()(E* p) const noexcept { delete[] p; }
};

/// The four fields shared by the frozen and the thawed vector. Copying copies the fields
/// and raises the buffer's reference count; elements are never copied by a copy.
template <class E>
class shared_vector_base {
public:
    /// The element type.
    using element_type = E;
    /// Sizes and indexes.
    using size_type = std::size_t;

    /// Number of elements.
    size_type size() const noexcept { return size_; }
    /// Number of elements the buffer holds from its start.
    size_type capacity() const noexcept { return capacity_; }
    /// Index of the first element in the buffer.
    size_type offset() const noexcept { return offset_; }
    /// Whether there are no elements.
    bool empty() const noexcept { return size_ == 0; }
    /// Number of vectors sharing the buffer (0 without a buffer).
    long use_count() const noexcept { return buffer_.use_count(); }
    /// Whether this vector alone holds the buffer.
    bool unique() const noexcept { return buffer_.use_count() == 1; }
    /// The shared buffer (null when empty).
    const std::shared_ptr<E>& buffer() const noexcept { return buffer_; }

protected:
    /// No buffer.
    shared_vector_base() = default;
    /// The given buffer, seen from offset for size elements.
    shared_vector_base(std::shared_ptr<E> buffer, size_type offset, size_type size, size_type capacity) noexcept
        : buffer_(std::move(buffer)), offset_(offset), size_(size), capacity_(capacity) {}
    /// Shares the other's buffer.
    shared_vector_base(const shared_vector_base&) = default;
    /// Shares the other's buffer.
    shared_vector_base& operator=(const shared_vector_base&) = default;
    /// Takes the other's buffer and leaves it empty.
    shared_vector_base(shared_vector_base&& o) noexcept
        : buffer_(std::move(o.buffer_)), offset_(o.offset_), size_(o.size_), capacity_(o.capacity_) {
        o.offset_ = o.size_ = o.capacity_ = 0;
    }
    /// Takes the other's buffer and leaves it empty.
    shared_vector_base& operator=(shared_vector_base&& o) noexcept {
        if (this != &o) {
            buffer_ = std::move(o.buffer_);
            offset_ = o.offset_;
            size_ = o.size_;
            capacity_ = o.capacity_;
            o.offset_ = o.size_ = o.capacity_ = 0;
        }
        return *this;
    }

    /// The first element (null without a buffer).
    E* begin_ptr() const noexcept { return buffer_ ? buffer_.get() + offset_ : nullptr; }

    /// A new buffer of n value-initialised elements.
    static std::shared_ptr<E> allocate(size_type n) {
        if (n > std::size_t(-1) / sizeof(E)) throw std::bad_array_new_length();
        return std::shared_ptr<E>(new E[n](), default_array_deleter<E>());
    }

    /// Exchanges the four fields with o.
    void swap_base(shared_vector_base& o) noexcept {
        buffer_.swap(o.buffer_);
        std::swap(offset_, o.offset_);
        std::swap(size_, o.size_);
        std::swap(capacity_, o.capacity_);
    }

    /// The shared buffer (null when empty).
    std::shared_ptr<E> buffer_;
    /// Index of the first element in the buffer.
    size_type offset_ = 0;
    /// Number of elements.
    size_type size_ = 0;
    /// Number of elements the buffer holds from its start.
    size_type capacity_ = 0;
};

} // namespace detail

template <class E>
class shared_vector;

/// A reference-counted, copy-on-write array of E, mutable (thawed). It is filled here and
/// then frozen into a shared_vector<const E>, which is what samples and calls exchange.
template <class E>
class shared_vector : public detail::shared_vector_base<E> {
    using base = detail::shared_vector_base<E>;
    template <class>
    friend class shared_vector;

public:
    /// The element type.
    using value_type = E;
    /// Sizes and indexes.
    using size_type = std::size_t;
    /// An iterator over the elements.
    using iterator = E*;
    /// A read-only iterator over the elements.
    using const_iterator = const E*;

    /// An empty vector without a buffer.
    shared_vector() = default;
    /// n copies of value in a new buffer.
    explicit shared_vector(size_type n, const E& value = E()) : base(n ? base::allocate(n) : nullptr, 0, n, n) {
        std::fill_n(data(), n, value);
    }
    /// The given elements in a new buffer.
    shared_vector(std::initializer_list<E> init) : shared_vector(init.begin(), init.end()) {}
    /// The elements of the range in a new buffer.
    template <class It, class = typename std::iterator_traits<It>::iterator_category>
    shared_vector(It first, It last) {
        const auto n = static_cast<size_type>(std::distance(first, last));
        if (n) {
            this->buffer_ = base::allocate(n);
            this->size_ = this->capacity_ = n;
            std::copy(first, last, data());
        }
    }

    /// The first element (null when empty).
    E* data() const noexcept { return this->begin_ptr(); }
    /// Iterator to the first element.
    E* begin() const noexcept { return data(); }
    /// Iterator past the last element.
    E* end() const noexcept { return data() + this->size_; }
    /// Element i, unchecked.
    E& operator[](size_type i) const noexcept { return data()[i]; }
    /// Element i; std::out_of_range past the end.
    E& at(size_type i) const {
        if (i >= this->size_) throw std::out_of_range("shared_vector::at");
        return data()[i];
    }

    /// Makes this vector the only owner of its elements (copies them when shared).
    void make_unique() {
        if (this->buffer_ && !this->unique()) {
            auto fresh = base::allocate(this->capacity_);
            std::copy(begin(), end(), fresh.get());
            this->buffer_ = std::move(fresh);
            this->offset_ = 0;
        }
    }

    /// Room for n elements in a buffer of its own.
    void reserve(size_type n) {
        if (n > this->capacity_ - this->offset_ || !this->unique()) reallocate(std::max(n, this->size_));
    }

    /// Resizes to n; keeps the buffer when it is owned alone and large enough.
    void resize(size_type n) {
        if (n == this->size_) return;
        if (!this->buffer_ || !this->unique() || this->capacity_ - this->offset_ < n)
            reallocate(std::max(this->capacity_, n));
        if (n > this->size_) std::fill(data() + this->size_, data() + n, E());
        this->size_ = n;
    }

    /// Appends v, moving to a buffer of its own when shared or full.
    void push_back(const E& v) {
        if (!this->buffer_ || !this->unique() || this->size_ == this->capacity_ - this->offset_)
            reallocate(std::max<size_type>(this->size_ ? this->size_ * 2 : 4, this->size_ + 1));
        data()[this->size_++] = v;
    }

    /// Lets go of the buffer: empty.
    void clear() noexcept { *this = shared_vector(); }
    /// Exchanges contents with o.
    void swap(shared_vector& o) noexcept { this->swap_base(o); }

    /// Adopts the fields of an existing buffer (no element is copied).
    shared_vector(std::shared_ptr<E> b, size_type off, size_type n, size_type cap) noexcept
        : base(std::move(b), off, n, cap) {}

private:
    void reallocate(size_type cap) {
        auto fresh = base::allocate(cap);
        if (this->size_) std::copy(begin(), end(), fresh.get());
        this->buffer_ = std::move(fresh);
        this->offset_ = 0;
        this->capacity_ = cap;
    }
};

/// The frozen, shareable form: copies share the buffer and nobody can change the elements.
template <class E>
class shared_vector<const E> : public detail::shared_vector_base<E> {
    using base = detail::shared_vector_base<E>;
    template <class>
    friend class shared_vector;

public:
    /// The element type.
    using value_type = E;
    /// Sizes and indexes.
    using size_type = std::size_t;
    /// An iterator over the elements.
    using iterator = const E*;
    /// A read-only iterator over the elements.
    using const_iterator = const E*;

    /// An empty vector without a buffer.
    shared_vector() = default;
    /// Builds a new buffer holding a copy of the given elements.
    shared_vector(std::initializer_list<E> init) : shared_vector(shared_vector<E>(init)) {}
    /// The elements of the range in a new buffer.
    template <class It, class = typename std::iterator_traits<It>::iterator_category>
    shared_vector(It first, It last) : shared_vector(shared_vector<E>(first, last)) {}
    /// Adopts the fields of an existing buffer (no element is copied).
    shared_vector(std::shared_ptr<E> buffer, size_type offset, size_type size, size_type capacity) noexcept
        : base(std::move(buffer), offset, size, capacity) {}
    /// Freezes a thawed vector; it must own its buffer alone.
    shared_vector(shared_vector<E>&& thawed) : base(unique_or_throw(std::move(thawed))) {}

    /// The first element (null when empty).
    const E* data() const noexcept { return this->begin_ptr(); }
    /// Iterator to the first element.
    const E* begin() const noexcept { return data(); }
    /// Iterator past the last element.
    const E* end() const noexcept { return data() + this->size_; }
    /// Element i, unchecked.
    const E& operator[](size_type i) const noexcept { return data()[i]; }
    /// Element i; std::out_of_range past the end.
    const E& at(size_type i) const {
        if (i >= this->size_) throw std::out_of_range("shared_vector::at");
        return data()[i];
    }
    /// The first element (the vector must not be empty).
    const E& front() const noexcept { return data()[0]; }
    /// The last element (the vector must not be empty).
    const E& back() const noexcept { return data()[this->size_ - 1]; }

    /// Lets go of the buffer: empty.
    void clear() noexcept { *this = shared_vector(); }
    /// Exchanges contents with o.
    void swap(shared_vector& o) noexcept { this->swap_base(o); }

private:
    static shared_vector<E>&& unique_or_throw(shared_vector<E>&& v) {
        if (v.buffer() && !v.unique()) throw std::runtime_error("Can't freeze non-unique vector");
        return std::move(v);
    }

public:
    /// Same size and equal elements.
    friend bool operator==(const shared_vector& a, const shared_vector& b) {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
    }
    /// Not equal.
    friend bool operator!=(const shared_vector& a, const shared_vector& b) { return !(a == b); }
};

/// Freezes a thawed vector (throws "Can't freeze non-unique vector" when it is shared).
template <class E>
shared_vector<const E> freeze(shared_vector<E>&& v) {
    return shared_vector<const E>(std::move(v));
}

/// Thaws a frozen vector: reuses its buffer when this was the last holder, copies otherwise.
template <class E>
shared_vector<E> thaw(shared_vector<const E>&& v) {
    shared_vector<E> out(v.buffer(), v.offset(), v.size(), v.capacity());
    v.clear();
    out.make_unique();
    return out;
}

} // namespace vesk::duvo
