// ConsumerState: the payload of a consumer's node under "consumers".
//
// It remembers the consumer extension (not owned) and whether it takes batched
// samples (IConsumer2, found by a run-time cast or by CastTo). The conduits the
// consumer is subscribed to are linked under its node.
#ifndef KT_STATE_CONSUMER_STATE_H_
#define KT_STATE_CONSUMER_STATE_H_

#include "kt/consumer.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class ConsumerState : public PathData {
 public:
  ConsumerState(IConsumer* consumer, Path* path);

  IConsumer* GetConsumer() const { return consumer; }
  bool IsConsumer2() const { return isConsumer2; }

 private:
  IConsumer* consumer;
  bool isConsumer2;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_CONSUMER_STATE_H_
