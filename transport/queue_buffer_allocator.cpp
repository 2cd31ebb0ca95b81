#include "transport/queue_buffer_allocator.h"

#include "transport/queue_buffer.h"

namespace MetricsFramework {

IReadWriteBuffer* QueueBufferAllocator::Alloc(IConduit* conduit) {
  const unsigned long conduitHandle = conduit != nullptr ? conduit->GetHandle() : 0;
  return new QueueBuffer(1024, conduit, conduitHandle, 0, QueueBuffer::kPushOnCommit);
}

void QueueBufferAllocator::Reset(IReadWriteBuffer* buffer, unsigned long bindingHandle) {
  // The pool also takes back buffers it did not make; only queue buffers are
  // reset.
  if (auto* queueBuffer = dynamic_cast<QueueBuffer*>(buffer)) queueBuffer->Reset(bindingHandle);
}

}  // namespace MetricsFramework
