// The descriptor blob: a Metric::Description packed for the reply of the
// client-manager protocol's op 5, every field in its order, little-endian,
// strings as bytes and a NUL. Its layout is described in
// docs/remote_records.md. Encoder and decoder are one pair: a description
// survives the round trip whole.
#ifndef KT_REMOTE_DESCRIPTOR_BLOB_H_
#define KT_REMOTE_DESCRIPTOR_BLOB_H_

#include <string>

#include "kt/metric.h"

namespace MetricsFramework {

// The blob of `desc`: 62 bytes plus the seven string lengths plus 4 bytes per
// element of list1 and setIds.
std::string EncodeDescription(const Metric::Description& desc);

// Decodes `size` bytes of `blob` into `desc`: the two lists are appended to
// the vectors `desc` already holds, the strings assigned, the scalar fields
// overwritten. Reads nothing beyond `size`; false (with `desc` partly
// written) when the blob ends early.
bool DecodeDescription(const void* blob, unsigned long size, Metric::Description* desc);

}  // namespace MetricsFramework

#endif  // KT_REMOTE_DESCRIPTOR_BLOB_H_
