// QueueBufferAllocator: makes and rebinds the buffers of the in-process
// conduit. Stateless; may be used from any thread.
#ifndef KT_TRANSPORT_QUEUE_BUFFER_ALLOCATOR_H_
#define KT_TRANSPORT_QUEUE_BUFFER_ALLOCATOR_H_

#include "kt/buffer.h"
#include "kt/conduit.h"

namespace MetricsFramework {

class QueueBufferAllocator {
 public:
  // A new QueueBuffer for `conduit`: a 1024-byte first arena, the conduit's
  // own handle, no binding yet, push on every commit. The caller owns it.
  IReadWriteBuffer* Alloc(IConduit* conduit);
  // Drops the arenas and queue of `buffer` and binds it to `bindingHandle`.
  // Does nothing for null or for a buffer that is not a QueueBuffer.
  void Reset(IReadWriteBuffer* buffer, unsigned long bindingHandle);
};

}  // namespace MetricsFramework

#endif  // KT_TRANSPORT_QUEUE_BUFFER_ALLOCATOR_H_
