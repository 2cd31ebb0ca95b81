// SPDX-License-Identifier: Apache-2.0
#include "sample_store.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "kt/value_convention.h"

namespace kt_exporter {

namespace {

std::int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

SampleStore::SampleStore() : m_ring(kRingSize) {}

void SampleStore::Update(unsigned int count, const unsigned long* handles, const void** data,
                         const unsigned long* sizes) {
  const std::int64_t now = NowMs();
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    for (unsigned int i = 0; i < count; ++i) {
      auto at = m_index.find(handles[i]);
      if (at == m_index.end()) {
        at = m_index.emplace(handles[i], m_latest.size()).first;
        m_latest.emplace_back();
        m_latest.back().handle = handles[i];
      }
      RawSample& latest = m_latest[at->second];
      latest.size = sizes != nullptr ? sizes[i] : MetricsFramework::ValueConvention::kSizeNotGiven;
      const unsigned long copied = std::min<unsigned long>(latest.size, sizeof latest.bytes);
      std::memset(latest.bytes, 0, sizeof latest.bytes);
      if (data[i] != nullptr) std::memcpy(latest.bytes, data[i], copied);
      latest.timeMs = now;
      ++latest.received;
      Change& change = m_ring[++m_sequence % kRingSize];
      change.sequence = m_sequence;
      change.sample = latest;
    }
  }
  m_changed.notify_all();
}

std::vector<RawSample> SampleStore::Latest() const {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_latest;
}

unsigned long SampleStore::ChangesAfter(unsigned long after, long waitMs,
                                        std::vector<Change>* out) {
  std::unique_lock<std::mutex> hold(m_mutex);
  m_changed.wait_for(hold, std::chrono::milliseconds(waitMs),
                     [&] { return m_closed || m_sequence > after; });
  const unsigned long oldest = m_sequence >= kRingSize ? m_sequence - kRingSize + 1 : 1;
  for (unsigned long sequence = std::max(after + 1, oldest); sequence <= m_sequence; ++sequence) {
    out->push_back(m_ring[sequence % kRingSize]);
  }
  return m_sequence;
}

unsigned long SampleStore::Sequence() const {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_sequence;
}

void SampleStore::Close() {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_closed = true;
  }
  m_changed.notify_all();
}

bool SampleStore::Closed() const {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_closed;
}

}  // namespace kt_exporter
