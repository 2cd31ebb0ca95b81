#include "support/harness.h"

#include <gtest/gtest.h>

#include "foundation/diagnostics.h"

namespace MetricsFramework {
namespace testing_fakes {

KT_STATUS FakeManager::PushDataToConsumers(unsigned long conduit, unsigned long binding,
                                           const IReadBuffer* data) {
  const void* sample = nullptr;
  unsigned long size = 0;
  data->GetData(&sample, &size);
  const char* bytes = static_cast<const char*>(sample);
  pushes.push_back({conduit, binding, bytes != nullptr ? std::string(bytes, size) : ""});
  if (drain && sample != nullptr) data->MakeAvailable(sample);
  return KT_STATUS_SUCCESS;
}

LiveManager::LiveManager()
    : loader(&manager), client(new DefaultClientManager(manager.GetRegistry())) {
  client->m_loader = &loader;
  command.client = client.get();
}

unsigned long LiveManager::UnknownHandle() {
  return (static_cast<unsigned long>(registry().GetLocalGuid()) << 32) | 0x5eed1234;
}

unsigned long LiveManager::Publish(IPublisher* publisher, const Metric::Description& d) {
  unsigned long handle = 0;
  EXPECT_EQ(manager.PublishMetric(publisher, d, &handle), KT_STATUS_SUCCESS) << d.uri;
  return handle;
}

std::string Refusal() {
  const char* argument = TakeLastFailureArgument();
  return argument != nullptr ? argument : kNone;
}

void ExpectRefusals(const std::vector<RefusalCase>& cases) {
  for (const RefusalCase& c : cases) {
    Refusal();  // forget what came before
    EXPECT_EQ(c.call(), c.status) << c.entry;
    if (c.argument != nullptr) {
      EXPECT_EQ(Refusal(), c.argument) << c.entry;
    }
  }
}

}  // namespace testing_fakes
}  // namespace MetricsFramework
