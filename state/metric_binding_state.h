// MetricBindingState: the payload of <conduit>/"bindings"/<metric handle>. It
// links one metric to the buffer its conduit made for it and to the bound
// metric its publisher made. The buffer belongs to the conduit, the bound
// metric to the publisher; the binding only holds them.
#ifndef KT_STATE_METRIC_BINDING_STATE_H_
#define KT_STATE_METRIC_BINDING_STATE_H_

#include <atomic>

#include "kt/buffer.h"
#include "kt/publisher.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class ConduitState;
class PublisherState;

class MetricBindingState : public PathData {
 public:
  explicit MetricBindingState(Path* path);

  // Has `publisher` bind the metric to `buffer` of `conduit`. On failure the
  // publisher's status is returned and nothing is recorded.
  KT_STATUS Bind(unsigned long metricHandle, ConduitState* conduit, PublisherState* publisher,
                 IReadWriteBuffer* buffer);
  // Has the publisher drop the bound metric; a second call, also one made
  // from inside the publisher or from another thread meanwhile, does nothing.
  void Unbind();
  // Asks the publisher to write out what it holds, then flushes the buffer.
  KT_STATUS Flush();
  IReadWriteBuffer* GetBuffer() { return m_buffer; }
  // Hands the buffer back once: after this the binding holds none, so that
  // the buffer can never be returned to its conduit twice.
  IReadWriteBuffer* TakeBuffer() {
    IReadWriteBuffer* buffer = m_buffer;
    m_buffer = nullptr;
    return buffer;
  }

 private:
  unsigned long publisherHandle;
  std::atomic<unsigned long> conduitHandle;  // 0 once unbound
  IReadWriteBuffer* m_buffer;
  IBoundMetric* boundMetric;
  unsigned long metricHandle;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_METRIC_BINDING_STATE_H_
