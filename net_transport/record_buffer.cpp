#include "net_transport/record_buffer.h"

#include <cstring>

namespace kt_net {

void RecordBuffer::GetData(const void** data, unsigned long* size) const {
  const bool any = !m_records.empty();
  if (data != nullptr) *data = any ? m_records.front().data() : nullptr;
  if (size != nullptr) *size = any && data != nullptr ? m_records.front().size() : 0;
}

void RecordBuffer::MakeAvailable(const void* data) const {
  if (!m_records.empty() && data == m_records.front().data()) m_records.pop_front();
}

void* RecordBuffer::Reserve(unsigned long size) {
  // Sizes are 32-bit, as in the library's buffers; one spare byte keeps the
  // block's address distinct even for size 0.
  m_reserved.emplace_back(static_cast<unsigned int>(size) + 1, '\0');
  return m_reserved.back().data();
}

void RecordBuffer::Commit(void* data) {
  for (auto it = m_reserved.begin(); it != m_reserved.end(); ++it) {
    if (it->data() != data) continue;
    it->pop_back();
    m_records.push_back(std::move(*it));
    m_reserved.erase(it);
    return;
  }
}

void CommitRecord(MetricsFramework::IWriteBuffer* buffer, const void* data, unsigned long size) {
  void* block = buffer->Reserve(size);
  if (block == nullptr) return;
  if (size != 0) std::memcpy(block, data, size);
  buffer->Commit(block);
}

}  // namespace kt_net
