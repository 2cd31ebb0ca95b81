// The entry functions of the network transport's fuzz targets, shaped as
// those of fuzz/entries.h: one input of arbitrary bytes each, checks that
// abort when broken, 0 returned. The libFuzzer targets (net_fuzz_target.cpp)
// and the frame tests, over every committed seed (tests/net_transport/frame_test.cpp), call
// them. Threads: one at a time.
#ifndef KT_FUZZ_NET_ENTRIES_H_
#define KT_FUZZ_NET_ENTRIES_H_

#include <cstddef>
#include <cstdint>

namespace kt_net {
namespace fuzz {

// The input as one message from a peer, through the frame decoders
// (net_transport/frame.h). A frame that decodes re-encodes to its own bytes,
// the fields the encoders fix (version, flags, and the correlation and
// deadline of frames that carry none) aside.
int FuzzNetFrame(const uint8_t* data, size_t size);

// The input as one message from a linked peer, served as the transport serves
// it: decoded, checked against the serve policy "full" (the command method,
// ops 1 to 9), its record dispatched to the command method of a freshly
// populated process (fuzz/served_process.h) through the transport's record
// buffers, and the reply records encoded as a reply frame. The reply frame
// decodes to the records the method committed.
int FuzzNetServe(const uint8_t* data, size_t size);

}  // namespace fuzz
}  // namespace kt_net

#endif  // KT_FUZZ_NET_ENTRIES_H_
