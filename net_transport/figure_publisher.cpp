#include "net_transport/figure_publisher.h"

#include <cstdint>
#include <cstring>

#include "kt/extension_manager.h"
#include "kt/metric.h"

namespace kt_net {

using namespace MetricsFramework;

// One figure's binding to one conduit's buffer. Its buffer is read and
// written under the publisher's mutex.
class FigurePublisher::Bound : public IBoundMetric {
 public:
  Bound(unsigned long metric, size_t index, std::mutex& guard)
      : m_metric(metric), m_index(index), m_guard(guard) {}
  Bound(const Bound&) = delete;
  Bound& operator=(const Bound&) = delete;

  void AttachBuffer(unsigned long, IWriteBuffer* buffer) override {
    std::lock_guard<std::mutex> hold(m_guard);
    m_buffer = buffer;
  }
  void DetachBuffer(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    m_buffer = nullptr;
  }
  unsigned long GetMetricHandle() override { return m_metric; }
  bool IsAttached(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    return m_buffer != nullptr;
  }
  void Flush(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    if (m_buffer != nullptr) m_buffer->Flush();
  }

  // The caller holds the publisher's mutex.
  void WriteLocked(const FigureRow& row, double value) {
    if (m_buffer == nullptr) return;
    unsigned char bytes[8];
    if (row.encoding == ValueConvention::kEncodingUnsigned) {
      const auto count = static_cast<uint64_t>(value);
      std::memcpy(bytes, &count, sizeof bytes);
    } else {
      std::memcpy(bytes, &value, sizeof bytes);
    }
    void* block = m_buffer->Reserve(sizeof bytes);
    if (block == nullptr) return;  // the buffer is full: this sample is dropped
    std::memcpy(block, bytes, sizeof bytes);
    m_buffer->Commit(block);
  }
  size_t Index() const { return m_index; }

 private:
  const unsigned long m_metric;
  const size_t m_index;
  std::mutex& m_guard;
  IWriteBuffer* m_buffer = nullptr;
};

FigurePublisher::FigurePublisher(const FigureRow* rows, size_t count)
    : m_rows(rows, rows + count), m_handles(count, 0) {}

FigurePublisher::~FigurePublisher() = default;

void FigurePublisher::Publish(IPublisher* publisher, std::string* error) {
  IExtensionManager* manager = publisher->GetExtensionManager();
  for (size_t i = 0; i < m_rows.size(); ++i) {
    {
      std::lock_guard<std::mutex> hold(m_mutex);
      if (m_handles[i] != 0) continue;
    }
    const FigureRow& row = m_rows[i];
    Metric::Description desc;
    desc.uri = row.uri;
    desc.word1 = static_cast<unsigned int>(i + 1);
    desc.text1 = row.help;
    desc.text2 = row.unit;
    desc.byte1 = row.encoding;
    desc.byte2 = row.type;
    unsigned long handle = 0;
    const KT_STATUS status = manager->PublishMetric(publisher, desc, &handle);
    if (status != KT_STATUS_SUCCESS) {
      if (!error->empty()) *error += ", ";
      *error += std::string(row.uri) + " (" + std::to_string(status) + ")";
      continue;
    }
    std::lock_guard<std::mutex> hold(m_mutex);
    m_handles[i] = handle;
  }
}

void FigurePublisher::Unpublish(IPublisher* publisher) {
  IExtensionManager* manager = publisher->GetExtensionManager();
  for (size_t i = 0; i < m_rows.size(); ++i) {
    unsigned long handle = 0;
    {
      std::lock_guard<std::mutex> hold(m_mutex);
      handle = m_handles[i];
      m_handles[i] = 0;
    }
    // Called without the mutex: unpublishing unbinds, which comes back here.
    if (handle != 0) manager->UnpublishMetric(publisher, handle);
  }
  std::lock_guard<std::mutex> hold(m_mutex);
  m_bound.clear();
}

IBoundMetric* FigurePublisher::Bind(unsigned long metric) {
  std::lock_guard<std::mutex> hold(m_mutex);
  size_t index = 0;
  while (index < m_handles.size() && (metric == 0 || m_handles[index] != metric)) ++index;
  if (index == m_handles.size()) return nullptr;
  auto bound = std::make_unique<Bound>(metric, index, m_mutex);
  IBoundMetric* made = bound.get();
  m_bound[made] = std::move(bound);
  return made;
}

void FigurePublisher::Unbind(IBoundMetric* bound) {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_bound.erase(bound);
}

void FigurePublisher::Commit(const double* values) {
  std::lock_guard<std::mutex> hold(m_mutex);
  for (auto& [key, bound] : m_bound) {
    bound->WriteLocked(m_rows[bound->Index()], values[bound->Index()]);
  }
}

}  // namespace kt_net
