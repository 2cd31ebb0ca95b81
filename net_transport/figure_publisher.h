// FigurePublisher: publishes a module's own figures as metrics of its
// publisher node through the library's ordinary publishing API, and writes a
// snapshot of their values into every buffer they are bound to.
//
// Each figure is described by a FigureRow, following the value convention
// (include/kt/value_convention.h): a counter or a gauge, an unsigned integer
// or a double, each sample 8 bytes. A figure's node is named after its row's
// uri; its tag (word1) is its index plus one. No group and no set: each figure
// is available and pushed on its own.
//
// The module's IPublisher hands its BindMetric and UnbindMetric here. Commit
// pushes samples on the calling thread (the library calls consumers from
// inside Commit), so it belongs on a thread that may wait for consumers.
//
// Threads: Publish and Unpublish from the host's loading thread (OnLoad,
// OnUnload); Bind, Unbind and Commit from any thread. Bound figures and their
// buffers are guarded by one mutex, held while Commit writes and taken by
// DetachBuffer and Unbind, so that no sample goes into a buffer after the
// library has taken it back. The owner keeps the object until the publisher
// is unloaded.
#ifndef KT_NET_TRANSPORT_FIGURE_PUBLISHER_H_
#define KT_NET_TRANSPORT_FIGURE_PUBLISHER_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kt/publisher.h"
#include "kt/value_convention.h"

namespace kt_net {

struct FigureRow {
  const char* uri;
  const char* help;  // text1: one line for people
  const char* unit;  // text2: "" for none
  MetricsFramework::ValueConvention::Encoding encoding;  // kEncodingUnsigned or kEncodingDouble
  MetricsFramework::ValueConvention::Type type;
};

class FigurePublisher {
 public:
  FigurePublisher(const FigureRow* rows, size_t count);
  ~FigurePublisher();
  FigurePublisher(const FigurePublisher&) = delete;
  FigurePublisher& operator=(const FigurePublisher&) = delete;

  // Publishes every figure not published yet as a metric of `publisher`;
  // a figure the manager refuses is left out and named in *error.
  void Publish(MetricsFramework::IPublisher* publisher, std::string* error);
  // Unpublishes every figure (the library unbinds them) and drops what is
  // still bound.
  void Unpublish(MetricsFramework::IPublisher* publisher);

  // The object through which the figure of `metric` is written; null when
  // `metric` is none of the figures.
  MetricsFramework::IBoundMetric* Bind(unsigned long metric);
  void Unbind(MetricsFramework::IBoundMetric* bound);

  // Writes values[i] (one per row) into every buffer figure i is bound to.
  void Commit(const double* values);

 private:
  class Bound;

  std::vector<FigureRow> m_rows;
  std::vector<unsigned long> m_handles;  // 0 while not published
  std::mutex m_mutex;  // guards m_bound and every bound figure's buffer
  std::map<MetricsFramework::IBoundMetric*, std::unique_ptr<Bound>> m_bound;
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_FIGURE_PUBLISHER_H_
