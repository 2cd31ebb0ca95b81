// SPDX-License-Identifier: Apache-2.0
//
// The buffer interfaces through which samples and remote calls travel.
//
// A writer reserves space, fills it and commits it; committed blocks queue up
// in commit order. A reader takes the oldest committed block with GetData and
// releases it with MakeAvailable. A buffer belongs to the conduit that made it;
// its users borrow it. Which operations may run on which threads is the
// implementation's: the library's queue buffer takes one producer and a
// pushing side that may run on another thread.
//
// The slot numbers in the comments are a binary contract: never insert, remove
// or reorder.
#ifndef KT_BUFFER_H_
#define KT_BUFFER_H_

#include "kt/visibility.h"

namespace MetricsFramework {

class KT_EXPORT IReadBuffer {
 public:
  // Slot 0: the oldest committed block and its size; null and 0 when there is
  // none. The block stays queued until MakeAvailable. The library's buffers
  // accept a null `size` (no size is written) and a null `data` (only *size,
  // 0, is written).
  virtual void GetData(const void** data, unsigned long* size) const = 0;
  // Slot 1: releases a block obtained from GetData. The library's buffers
  // ignore an address they did not hand out, null included.
  virtual void MakeAvailable(const void* data) const = 0;
  virtual ~IReadBuffer() {}  // slots 2, 3
};

class KT_EXPORT IWriteBuffer {
 public:
  // Slot 0: delivers what has been committed.
  virtual void Flush() = 0;
  // Slot 1: writable memory of `size` bytes, to be committed. The library's
  // buffers never answer null; they take sizes in 32 bits (the upper half is
  // dropped) and report running out of memory as std::bad_alloc.
  virtual void* Reserve(unsigned long size) = 0;
  // Slot 2: queues a reserved block. The library's buffers ignore an address
  // they did not hand out (null included) and a block of size 0.
  virtual void Commit(void* data) = 0;
  // Slot 3: hands a time-based sample straight to the consumers, unqueued.
  // The library's buffers ignore a null sample.
  virtual void CommitTimeBasedMetric(void* data) = 0;
  virtual ~IWriteBuffer() {}  // slots 4, 5
};

// Both faces of one buffer; IReadBuffer is the first base.
class KT_EXPORT IReadWriteBuffer : public IReadBuffer, public IWriteBuffer {
 public:
  ~IReadWriteBuffer() override {}
};

}  // namespace MetricsFramework

#endif  // KT_BUFFER_H_
