// Counts heap allocations made by one chosen thread. Link allocation_counter.cpp into a test
// binary (it replaces the global operator new and delete of that binary) and watch a thread:
//
//   kestrel::testing::AllocationCounter::watch(pthread_self());   // or another thread's handle
//   ... work ...
//   EXPECT_EQ(kestrel::testing::AllocationCounter::stop(), 0u);
//
// Only operator new (every form) is counted; malloc called directly by C code is not.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace kestrel::testing {

class AllocationCounter {
 public:
  // Starts counting the allocations of `thread` from zero.
  static void watch(pthread_t thread);
  // Stops counting and returns the allocations seen since watch().
  static uint64_t stop();
  // Allocations seen so far, still counting.
  static uint64_t count();
};

// Counts the calling thread's allocations while it lives.
class ScopedAllocationCount {
 public:
  ScopedAllocationCount() { AllocationCounter::watch(pthread_self()); }
  ~ScopedAllocationCount() { AllocationCounter::stop(); }
  ScopedAllocationCount(const ScopedAllocationCount&) = delete;
  ScopedAllocationCount& operator=(const ScopedAllocationCount&) = delete;
  uint64_t count() const { return AllocationCounter::count(); }
};

}  // namespace kestrel::testing
