// LocalConduit: the in-process conduit. Its buffers are QueueBuffers that push
// straight into the local extension manager; its transactions are direct,
// synchronous calls into the manager's remote-method dispatcher.
//
// Buffers are pooled: DestroyBuffer returns a buffer to the back of the pool,
// CreateBuffer takes the front one, resets it and binds it; an empty pool is
// refilled with a batch of 8. The conduit owns every buffer it ever made and
// frees them all when it goes; the pool never shrinks before that.
//
// Threads: CreateBuffer and DestroyBuffer may run concurrently (subscriptions
// and unsubscriptions of one conduit do); the pool carries its own leaf mutex.
// Transact runs on the caller's thread.
#ifndef KT_TRANSPORT_LOCAL_CONDUIT_H_
#define KT_TRANSPORT_LOCAL_CONDUIT_H_

#include <deque>
#include <mutex>
#include <set>

#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/status.h"
#include "transport/queue_buffer_allocator.h"

namespace MetricsFramework {

class LocalConduit : public IConduit {
 public:
  LocalConduit();
  LocalConduit(const LocalConduit&) = delete;
  LocalConduit& operator=(const LocalConduit&) = delete;
  // Frees every buffer, handed out or pooled.
  ~LocalConduit() override;

  // Nothing to do: an in-process conduit keeps no per-subscription state.
  void OnSubscribed(unsigned long handle) override;
  void OnUnsubscribed(unsigned long handle) override;
  // Lends a pooled buffer, reset and bound to `bindingHandle`, through
  // *outBuffer; refills the pool first when it is empty. Always returns
  // KT_STATUS_SUCCESS (allocation failure throws std::bad_alloc).
  KT_STATUS CreateBuffer(unsigned long bindingHandle, IReadWriteBuffer** outBuffer) override;
  // Returns `buffer` to the back of the pool. It keeps its data and binding
  // until it is handed out again. A duplicate of a pooled buffer is not
  // detected: it joins the pool again. A buffer this conduit did not make (or
  // null) is ignored.
  void DestroyBuffer(IReadWriteBuffer* buffer) override;
  // Runs the method `methodHandle` through the manager's dispatcher and
  // returns its status; KT_STATUS_INVALID_OPERATION while the conduit has not
  // been loaded by a manager.
  KT_STATUS Transact(unsigned long methodHandle, const IReadBuffer* request,
                     IWriteBuffer* reply) override;
  // The conduit's own handle: the far side is this process.
  unsigned long GetRemoteHandle() override;

 private:
  friend class LocalConduitInspector;  // tests read the pool

  QueueBufferAllocator allocator;
  IConduit* self;                               // passed to the allocator
  std::deque<IReadWriteBuffer*> freeBuffers;    // pooled, taken from the front
  std::set<IReadWriteBuffer*> liveBuffers;      // handed out, not yet returned
  int refillCount;                              // buffers made per refill
  std::mutex poolMutex;                         // guards the two containers
};

}  // namespace MetricsFramework

#endif  // KT_TRANSPORT_LOCAL_CONDUIT_H_
