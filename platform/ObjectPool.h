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

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

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
template <std::size_t kSize>
class ObjectPool {
  static_assert(kSize >= sizeof(void*) && kSize % alignof(void*) == 0, "a free object holds the list's link");

 public:
  static void* allocate() {
#ifdef XPLPM_POOL_OFF
    return ::operator new(kSize);
#else
    ObjectPool& p = instance();
    if (!p.free_) p.refill();
    Free* f = p.free_;
    p.free_ = f->next;
    detail::pooledFreeBytes -= kSize;
    return f;
#endif
  }
  static void release(void* object) {
#ifdef XPLPM_POOL_OFF
    ::operator delete(object);
#else
    ObjectPool& p = instance();
    p.free_ = new (object) Free{p.free_};
    detail::pooledFreeBytes += kSize;
#endif
  }

 private:
  struct Free {
    Free* next;
  };
  static constexpr std::size_t kChunkBytes = 64 * 1024;

  static ObjectPool& instance() {
    // Never destroyed: objects may be released while other statics go away at exit.
    static ObjectPool* pool = new ObjectPool;
    return *pool;
  }

  // Chained in address order, so that objects made one after another sit side by side.
  void refill() {
    chunks_.push_back(std::make_unique<std::byte[]>(kChunkBytes));
    std::byte* base = chunks_.back().get();
    for (std::size_t i = kChunkBytes / kSize; i-- > 0;) free_ = new (base + i * kSize) Free{free_};
    detail::pooledFreeBytes += kChunkBytes / kSize * kSize;
  }

  Free* free_ = nullptr;
  std::vector<std::unique_ptr<std::byte[]>> chunks_;
};

// The pool for objects of type T: types of one size share it.
template <class T>
  requires(alignof(T) <= alignof(std::max_align_t))
using PoolOf = ObjectPool<sizeof(T)>;

}  // namespace XpLib
