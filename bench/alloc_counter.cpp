#include "bench/alloc_counter.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace kt_bench {
namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_liveBytes{0};
std::atomic<long> g_allocations{0};

void* Allocate(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  if (g_counting.load(std::memory_order_relaxed)) {
    g_liveBytes.fetch_add(static_cast<long>(malloc_usable_size(block)), std::memory_order_relaxed);
    g_allocations.fetch_add(1, std::memory_order_relaxed);
  }
  return block;
}

void Release(void* block) {
  if (block == nullptr) return;
  // A block allocated before Start() and freed after it counts as freed: that
  // is intended, LiveBytes() is a net figure over the counted interval.
  if (g_counting.load(std::memory_order_relaxed)) {
    g_liveBytes.fetch_sub(static_cast<long>(malloc_usable_size(block)), std::memory_order_relaxed);
  }
  std::free(block);
}

}  // namespace

void AllocCounter::Start() {
  g_liveBytes.store(0);
  g_allocations.store(0);
  g_counting.store(true);
}

void AllocCounter::Stop() { g_counting.store(false); }
long AllocCounter::LiveBytes() { return g_liveBytes.load(); }
long AllocCounter::Allocations() { return g_allocations.load(); }

}  // namespace kt_bench

// Aligned forms are left to the runtime: nothing measured here over-aligns.
void* operator new(std::size_t size) { return kt_bench::Allocate(size); }
void* operator new[](std::size_t size) { return kt_bench::Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return kt_bench::Allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* block) noexcept { kt_bench::Release(block); }
void operator delete[](void* block) noexcept { kt_bench::Release(block); }
void operator delete(void* block, std::size_t) noexcept { kt_bench::Release(block); }
void operator delete[](void* block, std::size_t) noexcept { kt_bench::Release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { kt_bench::Release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { kt_bench::Release(block); }
