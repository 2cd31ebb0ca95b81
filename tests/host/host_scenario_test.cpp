// A host as hosts are built: it loads the library and two extension modules
// with dlopen, sees only include/, creates the managers from the export table,
// adds the modules' extensions, and a client subscribes the consumer to the
// publisher's metrics while the publisher commits samples.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "modules/test_extensions.h"
#include "support/fakes.h"

namespace {

using namespace MetricsFramework;

// The export table of the module at `path`, opened into *module.
const ExtensionExportRow* Open(const char* path, void** module) {
  *module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(*module, nullptr) << dlerror();
  return static_cast<const ExtensionExportRow*>(dlsym(*module, "__extension_export_table__"));
}

TEST(HostScenarioTest, SamplesFlowFromAModulePublisherToAModuleConsumerUntilShutDown) {
  void *library = nullptr, *publisherModule = nullptr, *consumerModule = nullptr;
  const ExtensionExportRow* rows[] = {Open(KT_LIBRARY_PATH, &library),
                                      Open(KT_PUBLISHER_MODULE, &publisherModule),
                                      Open(KT_CONSUMER_MODULE, &consumerModule)};
  ASSERT_TRUE(rows[0] != nullptr && rows[1] != nullptr && rows[2] != nullptr);
  auto* manager = dynamic_cast<IExtensionManager*>(rows[0][0].factory());
  auto* client = dynamic_cast<IClientManager*>(rows[0][1].factory());
  IExtension* publisher = rows[1][0].factory();
  IExtension* consumer = rows[2][0].factory();
  ASSERT_TRUE(manager != nullptr && client != nullptr);
  testing_fakes::HostLoader loader(manager);
  const ExtensionBinaryDesc desc{};
  ASSERT_EQ(manager->Add(desc, "publisher", publisher, &loader), KT_STATUS_SUCCESS);
  ASSERT_EQ(manager->Add(desc, "consumer", consumer, &loader), KT_STATUS_SUCCESS);
  auto Handle = [&](const char* path) {
    unsigned long handle = 0;
    EXPECT_EQ(client->GetPath(0, path, &handle), KT_STATUS_SUCCESS) << path;
    return handle;
  };
  const unsigned long k = Handle("consumers/consumer"), cpu = Handle("publishers/publisher/cpu"),
                      user = Handle("publishers/publisher/user"),
                      system = Handle("publishers/publisher/system");
  auto* writer = static_cast<kt_test::ITestPublisher*>(publisher->CastTo("ITestPublisher"));
  auto* received = static_cast<kt_test::ITestConsumer*>(consumer->CastTo("ITestConsumer"));

  for (unsigned long metric : {cpu, user, system})
    ASSERT_EQ(client->SubscribeMetric(k, metric), KT_STATUS_SUCCESS);
  EXPECT_TRUE(writer->Write("cpu", "load 0.5"));
  EXPECT_TRUE(writer->Write("user", "u=1"));
  EXPECT_EQ(received->calls.size(), 1u) << "the group waits for its last member";
  EXPECT_TRUE(writer->Write("system", "s=2"));
  ASSERT_EQ(client->UnsubscribeMetric(k, cpu), KT_STATUS_SUCCESS);
  EXPECT_FALSE(writer->Write("cpu", "gone"));

  const std::string n = std::to_string(cpu), u = std::to_string(user), s = std::to_string(system);
  EXPECT_EQ(received->calls,
            (std::vector<std::string>{n + " 11 load 0.5;", u + " 21 u=1;" + s + " 22 s=2;"}));
  // The host's order: extensions removed, then the client manager, then the manager.
  EXPECT_EQ(manager->Remove(desc, "publisher", publisher, &loader), KT_STATUS_SUCCESS);
  unsigned long gone = 0;
  EXPECT_NE(client->GetPath(0, "publishers/publisher", &gone), KT_STATUS_SUCCESS);
  EXPECT_EQ(manager->Remove(desc, "consumer", consumer, &loader), KT_STATUS_SUCCESS);
  delete client;
  delete manager;
  delete consumer;
  delete publisher;
  for (void* module : {publisherModule, consumerModule, library}) dlclose(module);
}

}  // namespace
