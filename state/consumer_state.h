// ConsumerState: the payload of a consumer's node under "consumers".
//
// It remembers the consumer extension (not owned), whether it takes batched
// samples (IConsumer2, found by a run-time cast or by CastTo), which conduits it
// is subscribed to (linked under its node, by the conduit node's handle), and a
// private LocalConduit that is registered as an extension the first time the
// consumer needs a conduit on this machine, under "LocalConduit_" plus the
// consumer node's name.
//
// Threads: GetConduitHandle checks its map under the state lock's read side
// and registers the local conduit under its write side, re-checking there, so
// that two threads asking at once register it once. Subscribe and Unsubscribe
// are called by conduit states, never directly by clients.
#ifndef KT_STATE_CONSUMER_STATE_H_
#define KT_STATE_CONSUMER_STATE_H_

#include <unordered_map>

#include "foundation/read_write_lock.h"
#include "kt/consumer.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"
#include "transport/local_conduit.h"

namespace MetricsFramework {

class ConsumerState : public PathData {
 public:
  ConsumerState(IConsumer* consumer, Path* path);
  // Unsubscribes from every conduit (on the conduit's side first, which waits
  // for pushes in flight), then removes the local conduit's node and, while
  // the registry is not being torn down, hands the local conduit back to its
  // loader.
  ~ConsumerState() override;

  // Links `conduitPath` under the consumer's node. KT_STATUS_INVALID_OBJECT
  // when it is already linked.
  KT_STATUS Subscribe(Path* conduitPath);
  // Removes the link; KT_STATUS_INVALID_OBJECT when there is none.
  KT_STATUS Unsubscribe(Path* conduitPath);

  // The handle of the conduit that carries data to this consumer from the
  // machine `guid`; 0 when there is none. For this machine the local conduit is
  // registered through the consumer's loader on first use.
  unsigned long GetConduitHandle(unsigned int guid);
  // Records `conduitHandle` as the conduit that carries data to this consumer
  // from the machine `guid`, replacing any earlier entry. Another machine's
  // conduit is set up by whoever connects to it; nothing here fills it.
  void SetConduitHandle(unsigned int guid, unsigned long conduitHandle);
  // Flushes the bindings of the local conduit; success when it has none.
  KT_STATUS FlushConduits();

  IConsumer* GetConsumer() const { return consumer; }
  bool IsConsumer2() const { return isConsumer2; }
  // The consumer's batched face, as BatchedFaceOf finds it. The run-time cast
  // is made once; a consumer that offers the face only through CastTo is
  // still asked on every call.
  IConsumer2* GetBatchedFace() const;

 private:
  IConsumer* consumer;
  LocalConduit localConduit;
  std::unordered_map<unsigned int, unsigned long> conduitHandles;
  ReadWriteLock stateLock;
  bool isConsumer2;
  IConsumer2* castFace;  // the run-time cast of `consumer`, or null
};

// The consumer's batched face, by a run-time cast or else CastTo; null when it
// has none.
IConsumer2* BatchedFaceOf(IConsumer* consumer);

}  // namespace MetricsFramework

#endif  // KT_STATE_CONSUMER_STATE_H_
