// Counts heap bytes handed out by the global operator new of the benchmark
// binary (alloc_counter.cpp replaces it). Counting is off until Start(), so
// that the timed loops pay one relaxed load per allocation and nothing else.
//
//   kt_bench::AllocCounter::Start();
//   ... work ...
//   long live = kt_bench::AllocCounter::LiveBytes();  // allocated minus freed
//   kt_bench::AllocCounter::Stop();
//
// Bytes are the allocator's usable sizes (malloc_usable_size), which is what a
// block really costs, less the allocator's own header of 8 bytes per block.
#ifndef KT_BENCH_ALLOC_COUNTER_H_
#define KT_BENCH_ALLOC_COUNTER_H_

namespace kt_bench {

class AllocCounter {
 public:
  // Zeroes the counters and starts counting, on every thread.
  static void Start();
  static void Stop();
  // Bytes allocated minus bytes freed since Start().
  static long LiveBytes();
  // Allocations made since Start().
  static long Allocations();
};

}  // namespace kt_bench

#endif  // KT_BENCH_ALLOC_COUNTER_H_
