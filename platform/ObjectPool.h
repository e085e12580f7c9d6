// ObjectPool: storage for the objects a model holds one of per route, sub-trie
// or NHI block, or makes and drops by the million (write commands).
//
// A million small objects from the general heap cost a header and rounding each
// (96 bytes take a 112-byte chunk) and a trip through the allocator per route.
// The pool carves them out of 64 KiB chunks and keeps freed ones on a list for
// the next: a route table grows and shrinks around a steady size, so the chunks
// are kept, not returned. Single-threaded like the rest of the model: a build
// with thread-safe pointers takes every object from the heap, and so do the
// sanitizer builds, so that they still see each object's lifetime.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "platform/Types.h"

#if defined(__SANITIZE_ADDRESS__) || defined(XPLPM_THREADSAFE_PTR)
#define XPLPM_POOL_OFF 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define XPLPM_POOL_OFF 1
#endif
#endif

namespace XpLib {

namespace detail {
inline std::size_t pooledFreeBytes = 0;
}  // namespace detail

// Bytes the pools hold for objects not in use. The heap counts all of a pool's chunks as in use,
// so a measure of memory in use takes these off: else a table built where an earlier one was
// dropped would seem to cost nothing.
inline std::size_t pooledFreeBytes() { return detail::pooledFreeBytes; }

// Objects sit kSize bytes apart from a chunk start aligned as the heap's are, so an object whose
// size is kSize is aligned as its type needs.
//
// Each object also has a handle, a 32-bit number the pool gives it for as long as it is allocated:
// a collection of a million objects can hold handles instead of pointers, at half the room. A
// free object keeps its handle beside the list's link, so handing it out costs nothing.
template <std::size_t kSize>
class ObjectPool {
  static_assert(kSize >= 2 * sizeof(void*) && kSize % alignof(void*) == 0, "a free object holds a link and a handle");

 public:
  static void* allocate() {
    U32 unused;
    return allocate(unused);
  }
  static void* allocate(U32& handle) {
#ifdef XPLPM_POOL_OFF
    // Each object from the heap, so that a sanitizer sees its lifetime; its handle sits in front.
    // The thread-safe build may make objects in several threads: the handles are shared.
    ObjectPool& p = instance();
    const std::lock_guard<std::mutex> lock(p.mutex_);
    if (p.freeHandles_.empty()) {
      p.freeHandles_.push_back(static_cast<U32>(p.byHandle_.size()));
      p.byHandle_.push_back(nullptr);
    }
    handle = p.freeHandles_.back();
    p.freeHandles_.pop_back();
    auto* base = static_cast<std::byte*>(::operator new(kSize + kHeader));
    *reinterpret_cast<U32*>(base) = handle;
    return p.byHandle_[handle] = base + kHeader;
#else
    ObjectPool& p = instance();
    if (!p.free_) p.refill();
    Free* f = p.free_;
    p.free_ = f->next;
    handle = f->handle;
    detail::pooledFreeBytes -= kSize;
    return f;
#endif
  }
  static void release(void* object) {
#ifdef XPLPM_POOL_OFF
    ObjectPool& p = instance();
    const std::lock_guard<std::mutex> lock(p.mutex_);
    auto* base = static_cast<std::byte*>(object) - kHeader;
    const U32 handle = *reinterpret_cast<U32*>(base);
    p.byHandle_[handle] = nullptr;
    p.freeHandles_.push_back(handle);
    ::operator delete(base);
#else
    ObjectPool& p = instance();
    p.free_ = new (object) Free{p.free_, p.handleOf(static_cast<std::byte*>(object))};
    detail::pooledFreeBytes += kSize;
#endif
  }
  // The object allocated under `handle`.
  static void* fromHandle(U32 handle) {
#ifdef XPLPM_POOL_OFF
    ObjectPool& p = instance();
    const std::lock_guard<std::mutex> lock(p.mutex_);
    return p.byHandle_[handle];
#else
    return instance().chunks_[handle / kPerChunk].get() + (handle % kPerChunk) * kSize;
#endif
  }

 private:
  struct Free {
    Free* next;
    U32 handle;
  };
  static constexpr std::size_t kChunkBytes = 64 * 1024;
  static constexpr U32 kPerChunk = kChunkBytes / kSize;
  static constexpr std::size_t kHeader = alignof(std::max_align_t);

  static ObjectPool& instance() {
    // Never destroyed: objects may be released while other statics go away at exit.
    static ObjectPool* pool = new ObjectPool;
    return *pool;
  }

  // The handle of an object going back to the list: its chunk is found by address, a search of a
  // few comparisons, on a removal only.
  U32 handleOf(const std::byte* object) const {
    const auto after = std::upper_bound(byAddress_.begin(), byAddress_.end(), object,
                                        [](const std::byte* o, const auto& c) { return std::less<>()(o, c.first); });
    const auto& [base, chunk] = *(after - 1);
    return chunk * kPerChunk + static_cast<U32>((object - base) / kSize);
  }

  // Chained in address order, so that objects made one after another sit side by side.
  void refill() {
    const U32 chunk = static_cast<U32>(chunks_.size());
    const U32 first = chunk * kPerChunk;
    chunks_.push_back(std::make_unique<std::byte[]>(kChunkBytes));
    std::byte* base = chunks_.back().get();
    const std::pair<const std::byte*, U32> entry(base, chunk);
    byAddress_.insert(std::upper_bound(byAddress_.begin(), byAddress_.end(), entry,
                                       [](const auto& a, const auto& b) { return std::less<>()(a.first, b.first); }),
                      entry);
    for (U32 i = kPerChunk; i-- > 0;) free_ = new (base + i * kSize) Free{free_, first + i};
    detail::pooledFreeBytes += kPerChunk * kSize;
  }

  Free* free_ = nullptr;
  std::vector<std::unique_ptr<std::byte[]>> chunks_;
  // The chunks by address: (start, number).
  std::vector<std::pair<const std::byte*, U32>> byAddress_;
#ifdef XPLPM_POOL_OFF
  std::mutex mutex_;
  std::vector<void*> byHandle_;
  std::vector<U32> freeHandles_;
#endif
};

// The pool for objects of type T: types of one size share it.
template <class T>
  requires(alignof(T) <= alignof(std::max_align_t))
using PoolOf = ObjectPool<sizeof(T)>;

}  // namespace XpLib
