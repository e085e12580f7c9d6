// The process's heap in use, for the bytes-per-route figures of the tool and the benchmarks.
#pragma once

#include <malloc.h>

#include <cstddef>

#include "platform/ObjectPool.h"

namespace XpLib {
namespace Agent {

// What malloc has handed out, large vectors' mmapped chunks included, less what the pools keep
// for reuse: those are free for the model, as freed heap chunks are.
inline std::size_t heapInUse() {
  const auto mi = mallinfo2();
  return mi.uordblks + mi.hblkhd - pooledFreeBytes();
}

}  // namespace Agent
}  // namespace XpLib
