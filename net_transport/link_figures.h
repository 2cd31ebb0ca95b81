// The transport's link figures: what it counts about its links, calls and
// frames, and how each figure is described when it is published as a metric
// of the transport's own publisher node (FigurePublisher, the value
// convention of include/kt/value_convention.h). The README's network section
// lists them.
//
// A figure is one row of kLinkFigures and one value in the snapshot the
// transport commits; counted figures also have a slot in a LinkTally. To add a
// figure, add its enumerator before kFigureCount, its row, and where its value
// comes from.
//
// Threads: LinkTally may be counted into from any thread (relaxed atomics:
// the figures are read once a period, never to order anything).
#ifndef KT_NET_TRANSPORT_LINK_FIGURES_H_
#define KT_NET_TRANSPORT_LINK_FIGURES_H_

#include <atomic>
#include <cstdint>

#include "net_transport/figure_publisher.h"

namespace kt_net {

enum Figure : unsigned {
  kLinksUp,          // gauge: links up now
  kLinksDown,        // counted: a link went down
  kCalls,            // counted: calls made over links
  kCallsFailed,      // counted: calls that got no reply (link down, deadline passed)
  kLateReplies,      // counted: replies that came after their call had given up
  kSentFrames,       // counted
  kReceivedFrames,   // counted: messages that reached the frame decoder
  kSentBytes,        // counted
  kReceivedBytes,    // counted
  kFrameErrors,      // counted: frames refused as malformed or out of place
  kRefusedRequests,  // counted: requests outside the serve policy
  kRoundTrip,        // gauge: mean round trip of the calls answered in the last period
  kConduitsAlive,    // gauge: link conduits allocated, retired ones not yet freed included
  kFigureCount,
  // Counted only, never published: what kRoundTrip is made of.
  kAnsweredCalls = kFigureCount,
  kRoundTripMicroseconds,
  kTallyCount,
};

// The descriptions, in the order of Figure.
extern const FigureRow kLinkFigures[kFigureCount];

// The counted figures, by Figure.
class LinkTally {
 public:
  LinkTally() = default;
  LinkTally(const LinkTally&) = delete;
  LinkTally& operator=(const LinkTally&) = delete;

  void Add(Figure figure, uint64_t n = 1) {
    m_counts[figure].fetch_add(n, std::memory_order_relaxed);
  }
  uint64_t Get(Figure figure) const { return m_counts[figure].load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> m_counts[kTallyCount] = {};
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_LINK_FIGURES_H_
