// SPDX-License-Identifier: Apache-2.0
//
// SampleStore: the latest sample of every metric the exporter receives, and a
// short ring of the changes, which the live streams of the page read.
//
// Update is called on the publishers' threads (inside the consumer callback):
// it copies at most 8 bytes per sample under one short lock and returns; it
// never waits for a reader longer than a reader's copy takes, and allocates
// only the first time a metric is seen. One call's samples (a whole group's
// cycle) are stored under one hold of the lock, so a reader sees all of them
// or none. Every other operation may be called from any thread at once.
#ifndef KT_EXPORTER_SAMPLE_STORE_H_
#define KT_EXPORTER_SAMPLE_STORE_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kt_exporter {

// One sample as it arrived: its bytes (the first 8), its size (kSizeNotGiven
// for a time-based sample) and when it arrived.
struct RawSample {
  unsigned long handle = 0;
  unsigned long size = 0;
  unsigned char bytes[8] = {};
  std::int64_t timeMs = 0;     // arrival, milliseconds since 1970 (UTC)
  unsigned long received = 0;  // samples of this metric so far, this one included
};

// One entry of the ring: a sample and its place in the sequence of changes.
struct Change {
  unsigned long sequence = 0;
  RawSample sample;
};

class SampleStore {
 public:
  // The ring keeps the last kRingSize changes; a reader further behind is
  // moved forward and misses the older ones.
  static constexpr unsigned long kRingSize = 4096;

  SampleStore();
  SampleStore(const SampleStore&) = delete;
  SampleStore& operator=(const SampleStore&) = delete;

  // Stores `count` samples as the consumer callback receives them; `sizes`
  // is null for a time-based sample.
  void Update(unsigned int count, const unsigned long* handles, const void** data,
              const unsigned long* sizes);
  // The latest sample of every metric, in the order their first samples came.
  std::vector<RawSample> Latest() const;
  // The changes after `after` (0: from the oldest kept), waiting up to
  // `waitMs` for one when there is none and the store is not closed. Returns
  // the sequence number to pass next time.
  unsigned long ChangesAfter(unsigned long after, long waitMs, std::vector<Change>* out);
  // The last change stored; 0 before the first.
  unsigned long Sequence() const;
  // Wakes every waiting reader for good: ChangesAfter no longer waits.
  void Close();
  bool Closed() const;

 private:
  mutable std::mutex m_mutex;  // guards every member below
  std::condition_variable m_changed;
  std::unordered_map<unsigned long, size_t> m_index;  // handle -> position in m_latest
  std::vector<RawSample> m_latest;
  std::vector<Change> m_ring;  // kRingSize entries, by sequence modulo the size
  unsigned long m_sequence = 0;  // the last change stored; 0 before the first
  bool m_closed = false;
};

}  // namespace kt_exporter

#endif  // KT_EXPORTER_SAMPLE_STORE_H_
