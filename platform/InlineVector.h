// InlineVector: a vector whose first N elements live inside the object.
//
// A write command carries a short list (a few slots or next-hop pairs), is
// built, read once by the writer and dropped; with the list inside the command
// it costs no allocation. Past N elements the vector moves to the heap and
// behaves as std::vector does.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace XpLib {

template <class T, std::size_t N>
class InlineVector {
  static_assert(N > 0);

 public:
  using value_type = T;
  using iterator = T*;
  using const_iterator = const T*;

  InlineVector() = default;
  InlineVector(const InlineVector& o) {
    reserve(o.size_);
    std::uninitialized_copy(o.begin(), o.end(), data_);
    size_ = o.size_;
  }
  InlineVector(InlineVector&& o) noexcept { take(o); }
  InlineVector& operator=(const InlineVector& o) {
    if (this != &o) {
      InlineVector copy(o);
      *this = std::move(copy);
    }
    return *this;
  }
  InlineVector& operator=(InlineVector&& o) noexcept {
    if (this != &o) {
      release();
      take(o);
    }
    return *this;
  }
  ~InlineVector() { release(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  iterator begin() { return data_; }
  iterator end() { return data_ + size_; }
  const_iterator begin() const { return data_; }
  const_iterator end() const { return data_ + size_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  T& back() { return data_[size_ - 1]; }
  const T& back() const { return data_[size_ - 1]; }

  template <class... A>
  T& emplace_back(A&&... a) {
    if (size_ == capacity_) reserve(capacity_ * 2);
    T* t = new (data_ + size_) T(std::forward<A>(a)...);
    ++size_;
    return *t;
  }

  iterator insert(const_iterator pos, T v) {
    const std::size_t at = static_cast<std::size_t>(pos - data_);
    if (size_ == capacity_) reserve(capacity_ * 2);
    T* p = data_ + at;
    if (at == size_) {
      new (p) T(std::move(v));
      ++size_;
      return p;
    }
    new (data_ + size_) T(std::move(data_[size_ - 1]));
    ++size_;
    std::move_backward(p, data_ + size_ - 2, data_ + size_ - 1);
    *p = std::move(v);
    return p;
  }

  iterator erase(const_iterator pos) { return erase(pos, pos + 1); }
  iterator erase(const_iterator first, const_iterator last) {
    T* f = data_ + (first - data_);
    T* newEnd = std::move(data_ + (last - data_), end(), f);
    std::destroy(newEnd, end());
    size_ = static_cast<std::size_t>(newEnd - data_);
    return f;
  }

  void clear() {
    std::destroy(begin(), end());
    size_ = 0;
  }

  void reserve(std::size_t n) {
    if (n <= capacity_) return;
    T* grown = static_cast<T*>(::operator new(n * sizeof(T)));
    std::uninitialized_move(begin(), end(), grown);
    std::destroy(begin(), end());
    if (!isInline()) ::operator delete(data_);
    data_ = grown;
    capacity_ = n;
  }

 private:
  T* inlineData() { return reinterpret_cast<T*>(inline_); }
  bool isInline() const { return data_ == reinterpret_cast<const T*>(inline_); }

  void release() {
    clear();
    if (!isInline()) ::operator delete(data_);
    data_ = inlineData();
    capacity_ = N;
  }

  // Leaves `o` empty and inline: a heap buffer changes hands, inline elements are moved one by one.
  void take(InlineVector& o) {
    if (o.isInline()) {
      std::uninitialized_move(o.begin(), o.end(), data_);
      size_ = o.size_;
      o.clear();
      return;
    }
    data_ = o.data_;
    size_ = o.size_;
    capacity_ = o.capacity_;
    o.data_ = o.inlineData();
    o.size_ = 0;
    o.capacity_ = N;
  }

  alignas(T) std::byte inline_[N * sizeof(T)];
  T* data_ = inlineData();
  std::size_t size_ = 0;
  std::size_t capacity_ = N;
};

}  // namespace XpLib
