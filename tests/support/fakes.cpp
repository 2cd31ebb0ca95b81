#include "support/fakes.h"

#include <sanitizer/asan_interface.h>  // its macros do nothing without the address sanitizer

#include <cstring>
#include <new>

namespace MetricsFramework {
namespace testing_fakes {

std::vector<IWriteBuffer*> CountingPublisher::WritersOf(unsigned long metric) const {
  std::vector<IWriteBuffer*> writers;
  for (const auto& b : bound) {
    if (b->metric == metric && b->attached != nullptr) writers.push_back(b->attached);
  }
  return writers;
}

void RecordingConsumer::OnMetricUpdated(unsigned int count, unsigned long* handles,
                                        const unsigned long* tags, const void** data,
                                        unsigned long* sizes) {
  received += count;
  if (!keep) {
    for (unsigned int i = 0; i < count; ++i) checksum += *static_cast<const unsigned char*>(data[i]);
    return;
  }
  calls.emplace_back();
  for (unsigned int i = 0; i < count; ++i) {
    Sample sample{handles[i], tags[i], sizes == nullptr, ""};
    if (sizes != nullptr) sample.bytes.assign(static_cast<const char*>(data[i]), sizes[i]);
    samples.push_back(sample);
    calls.back().push_back(sample);
  }
}

void BatchedConsumer::OnBatchMetricUpdated(unsigned long handle, unsigned long tag,
                                           const void* data) {
  ++received;
  if (data != nullptr) checksum += *static_cast<const unsigned char*>(data);
  if (keep) batches.push_back({handle, tag, data != nullptr ? static_cast<const char*>(data) : ""});
}

namespace {

constexpr std::size_t kGuard = 8;

void Guard(std::vector<char>& record, bool on) {
  char* guard = record.data() + record.size() - kGuard;
  on ? ASAN_POISON_MEMORY_REGION(guard, kGuard) : ASAN_UNPOISON_MEMORY_REGION(guard, kGuard);
}

}  // namespace

HostBuffer::HostBuffer(const std::string& record) {
  if (record.empty()) return;
  void* block = Reserve(record.size());
  std::memcpy(block, record.data(), record.size());
  Commit(block);
}

HostBuffer::~HostBuffer() {
  for (auto& record : records) Guard(record, false);
}

void HostBuffer::GetData(const void** data, unsigned long* size) const {
  *data = records.empty() ? nullptr : records.front().data();
  if (size != nullptr) *size = records.empty() ? 0 : records.front().size() - kGuard;
}

void HostBuffer::MakeAvailable(const void*) const {
  ++releases;
  if (records.empty()) return;
  Guard(records.front(), false);
  records.pop_front();
}

void* HostBuffer::Reserve(unsigned long size) {
  if (failReserve) throw std::bad_alloc();
  pending.emplace_back(size + kGuard, static_cast<char>(0xEE));
  return pending.back().data();
}

void HostBuffer::Commit(void*) {
  if (pending.empty()) return;
  records.push_back(std::move(pending.front()));
  pending.pop_front();
  Guard(records.back(), true);
}

std::vector<std::string> HostBuffer::Records() const {
  std::vector<std::string> texts;
  for (const auto& r : records) texts.emplace_back(r.begin(), r.end() - kGuard);
  return texts;
}

bool RecordingMethod::Run(const IReadBuffer* args, IWriteBuffer* returns) {
  ++runs;
  const void* data = nullptr;
  unsigned long size = 0;
  args->GetData(&data, &size);
  std::string text = reply;
  if (data != nullptr) text.append(static_cast<const char*>(data), size);
  void* block = returns->Reserve(text.size());
  if (block == nullptr && !text.empty()) return false;
  if (!text.empty()) std::memcpy(block, text.data(), text.size());
  returns->Commit(block);
  return true;
}

void RecordingMethod::GetRemoteMethodDesc(RemoteMethodDesc& desc) {
  std::strncpy(desc.m_name, name.c_str(), sizeof(desc.m_name) - 1);
}

}  // namespace testing_fakes
}  // namespace MetricsFramework
