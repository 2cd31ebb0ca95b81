// RecordBuffer: a read-write buffer of whole records, used on the serving side
// to hand a request record to the dispatcher and to collect the records the
// called method commits as its reply.
//
// Reserve hands out a block of its own; Commit queues it as a record, in
// commit order; GetData shows the oldest and MakeAvailable drops it. Blocks
// reserved and never committed are freed with the buffer. One thread at a
// time; the buffer owns every block.
#ifndef KT_NET_TRANSPORT_RECORD_BUFFER_H_
#define KT_NET_TRANSPORT_RECORD_BUFFER_H_

#include <deque>
#include <list>
#include <string>

#include "kt/buffer.h"

namespace kt_net {

class RecordBuffer : public MetricsFramework::IReadWriteBuffer {
 public:
  RecordBuffer() = default;
  // A buffer holding `record` as its one record.
  explicit RecordBuffer(std::string record) { m_records.push_back(std::move(record)); }
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;

  void GetData(const void** data, unsigned long* size) const override;
  void MakeAvailable(const void* data) const override;
  void Flush() override {}
  void* Reserve(unsigned long size) override;
  void Commit(void* data) override;
  void CommitTimeBasedMetric(void* data) override { Commit(data); }

  // The committed records, oldest first.
  const std::deque<std::string>& Records() const { return m_records; }

 private:
  std::list<std::string> m_reserved;
  mutable std::deque<std::string> m_records;
};

// Copies `size` bytes into a block of `buffer` and commits it: how a record
// crosses into a caller's buffer of any class.
void CommitRecord(MetricsFramework::IWriteBuffer* buffer, const void* data, unsigned long size);

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_RECORD_BUFFER_H_
