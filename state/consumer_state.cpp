#include "state/consumer_state.h"

#include "host/logger.h"

namespace MetricsFramework {

namespace {

bool TakesBatches(IConsumer* consumer) {
  if (consumer == nullptr) return false;
  return dynamic_cast<IConsumer2*>(consumer) != nullptr ||
         consumer->CastTo("IConsumer2") != nullptr;
}

}  // namespace

ConsumerState::ConsumerState(IConsumer* consumer, Path* path)
    : PathData(path), consumer(consumer), isConsumer2(TakesBatches(consumer)) {
  m_type = RESOURCE_TYPE_CONSUMER;
  GetLogger().RegisterLogTag("RegistryState", LOG_LEVEL_ERROR);
}

}  // namespace MetricsFramework
