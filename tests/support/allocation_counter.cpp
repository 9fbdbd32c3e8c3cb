#include "support/allocation_counter.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> watching{false};
std::atomic<pthread_t> watched{};
std::atomic<uint64_t> allocations{0};

void note_allocation() {
  if (watching.load(std::memory_order_acquire) &&
      pthread_equal(pthread_self(), watched.load(std::memory_order_relaxed)) != 0) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
}

void* allocate_or_null(std::size_t size) noexcept {
  note_allocation();
  return std::malloc(size == 0 ? 1 : size);
}

void* allocate(std::size_t size) {
  if (void* p = allocate_or_null(size)) {
    return p;
  }
  throw std::bad_alloc();
}

void* allocate_aligned(std::size_t size, std::align_val_t alignment) {
  note_allocation();
  const auto a = static_cast<std::size_t>(alignment);
  // aligned_alloc wants a size that is a multiple of the alignment.
  if (void* p = std::aligned_alloc(a, (size + a - 1) / a * a)) {
    return p;
  }
  throw std::bad_alloc();
}

}  // namespace

namespace kestrel::testing {

void AllocationCounter::watch(pthread_t thread) {
  watching.store(false, std::memory_order_release);
  watched.store(thread, std::memory_order_relaxed);
  allocations.store(0, std::memory_order_relaxed);
  watching.store(true, std::memory_order_release);
}

uint64_t AllocationCounter::stop() {
  watching.store(false, std::memory_order_release);
  return allocations.load(std::memory_order_relaxed);
}

uint64_t AllocationCounter::count() {
  return allocations.load(std::memory_order_relaxed);
}

}  // namespace kestrel::testing

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate_or_null(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate_or_null(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate_aligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return allocate_aligned(size, alignment);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
