// ProxyBuffer: the message carrier of the client-manager protocol between
// processes. A request or a reply part is one committed block (a record) of a
// queue buffer without a conduit; decoders read the oldest record in place and
// do not remove it. The byte layouts are described in docs/remote_records.md.
//
// The decoders and Write also work on any buffer (the static forms): a
// conduit, or a local client calling the well-known handle, may pass buffers
// of other classes. Decoders never read outside a record: field bytes beyond
// it read as zero, while each size test answers exactly as the protocol
// defines it (the tests count the fields after the op word against the whole
// record, so they are 4 bytes short of the true need; that is kept).
//
// A ProxyBuffer lives on its caller's stack for one call; it is not shared
// between threads.
#ifndef KT_REMOTE_PROXY_BUFFER_H_
#define KT_REMOTE_PROXY_BUFFER_H_

#include "kt/buffer.h"
#include "kt/status.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {

// The op codes of the client-manager protocol: the first word of a request.
enum : unsigned int {
  kOpGetPath = 1,
  kOpGetChildCount = 2,
  kOpGetChildren = 3,
  kOpGetResourceInfo = 4,
  kOpGetMetricDescriptor = 5,
  kOpSubscribeMetric = 6,
  kOpUnsubscribeMetric = 7,
  kOpFlushMetrics = 8,
  kOpCallRemoteMethod = 9,
};

class ProxyBuffer : public QueueBuffer {
 public:
  // Empty buffers, used for replies.
  ProxyBuffer();
  explicit ProxyBuffer(unsigned int capacity);
  // Request records: op and one, two or three 64-bit values.
  ProxyBuffer(unsigned int op, unsigned long a);
  ProxyBuffer(unsigned int op, unsigned long a, unsigned long b);
  ProxyBuffer(unsigned int op, unsigned long a, unsigned long b, unsigned long c);
  // Op, a, then the length and bytes of the oldest record of `payload` (none
  // when it is null).
  ProxyBuffer(unsigned int op, unsigned long a, const IReadBuffer* payload);
  // Op, a, then `text` cut at 4096 characters and a NUL. A null `text` is
  // sent as the empty text.
  ProxyBuffer(unsigned int op, unsigned long a, const char* text);
  ~ProxyBuffer() override;

  // Appends a reply record: `status`, then `size` bytes of `data` (zeroes when
  // it is null).
  void Write(unsigned int status, const void* data, unsigned int size);
  static void Write(IWriteBuffer* buffer, unsigned int status, const void* data,
                    unsigned int size);

  // The oldest record's first word; 0 when the record is shorter or missing.
  unsigned int GetOp() const;
  static unsigned int GetOp(const IReadBuffer* buffer);

  // Decoders of the oldest record: true when it passes its size test, and then
  // the outputs are written.
  bool Read(unsigned int& x) const;
  bool Read(unsigned long& a) const;
  bool Read(unsigned long& a, unsigned int& b) const;
  bool Read(unsigned long& a, unsigned long& b) const;
  bool Read(unsigned long& a, unsigned long& b, unsigned long& c) const;
  // a and n are written when the record holds them, even when the payload
  // does not fit (then false).
  bool Read(unsigned long& a, unsigned long& n, const void** payload) const;
  // Always true; a text with no NUL inside the record reads as "".
  bool Read(unsigned long& a, const char** text) const;
  static bool Read(const IReadBuffer* buffer, unsigned int& x);
  static bool Read(const IReadBuffer* buffer, unsigned long& a);
  static bool Read(const IReadBuffer* buffer, unsigned long& a, unsigned int& b);
  static bool Read(const IReadBuffer* buffer, unsigned long& a, unsigned long& b);
  static bool Read(const IReadBuffer* buffer, unsigned long& a, unsigned long& b,
                   unsigned long& c);
  static bool Read(const IReadBuffer* buffer, unsigned long& a, unsigned long& n,
                   const void** payload);
  static bool Read(const IReadBuffer* buffer, unsigned long& a, const char** text);

  // Decodes the oldest reply record: its status, and its data copied into
  // `out` when it fits in `outSize` bytes (zero-filled when it does not).
  // KT_STATUS_INVALID_OPERATION when there is no reply record.
  unsigned int ReadBack(void* out, unsigned int outSize) const;
  // The bytes of every record queued here, status words included: a bound on
  // any size a reply claims for itself.
  unsigned long QueuedBytes() const;
};

}  // namespace MetricsFramework

#endif  // KT_REMOTE_PROXY_BUFFER_H_
