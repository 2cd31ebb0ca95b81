#include "net_transport/link_figures.h"

namespace kt_net {

namespace {

using MetricsFramework::ValueConvention::kEncodingDouble;
using MetricsFramework::ValueConvention::kEncodingUnsigned;
using MetricsFramework::ValueConvention::kTypeCounter;
using MetricsFramework::ValueConvention::kTypeGauge;

}  // namespace

const FigureRow kLinkFigures[kFigureCount] = {
    {"links_up", "links to peers that are up", "", kEncodingUnsigned, kTypeGauge},
    {"links_down", "times a link to a peer went down", "", kEncodingUnsigned, kTypeCounter},
    {"calls", "calls made over links to peers", "", kEncodingUnsigned, kTypeCounter},
    {"calls_failed", "calls over links that got no reply: link down or deadline passed", "",
     kEncodingUnsigned, kTypeCounter},
    {"late_replies", "replies that came after their call had given up", "", kEncodingUnsigned,
     kTypeCounter},
    {"sent_frames", "frames sent to peers", "", kEncodingUnsigned, kTypeCounter},
    {"received_frames", "frames received from peers", "", kEncodingUnsigned, kTypeCounter},
    {"sent_bytes", "bytes of the frames sent to peers", "B", kEncodingUnsigned, kTypeCounter},
    {"received_bytes", "bytes of the frames received from peers", "B", kEncodingUnsigned,
     kTypeCounter},
    {"frame_errors", "frames from peers refused as malformed or out of place", "",
     kEncodingUnsigned, kTypeCounter},
    {"refused_requests", "requests from peers refused by the serve policy", "", kEncodingUnsigned,
     kTypeCounter},
    {"round_trip", "mean round trip of the calls answered in the last second that had any",
     "ms", kEncodingDouble, kTypeGauge},
    {"conduits_alive", "link conduits allocated, those of links gone not yet freed included", "",
     kEncodingUnsigned, kTypeGauge},
};

}  // namespace kt_net
