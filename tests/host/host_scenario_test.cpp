// A host as hosts are built: it loads the library and two extension modules
// with dlopen, sees only include/, creates the managers from the export table,
// adds the modules' extensions, and a client subscribes the consumer to the
// publisher's metrics while the publisher commits samples.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "modules/test_extensions.h"
#include "support/fakes.h"

namespace {

using namespace MetricsFramework;

const ExtensionExportRow* TableOf(void* module) {
  return static_cast<const ExtensionExportRow*>(dlsym(module, "__extension_export_table__"));
}

class HostScenarioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library = dlopen(KT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const ExtensionExportRow* rows = TableOf(library);
    ASSERT_NE(rows, nullptr);
    manager = dynamic_cast<IExtensionManager*>(rows[0].factory());
    client = dynamic_cast<IClientManager*>(rows[1].factory());
    ASSERT_NE(manager, nullptr);
    ASSERT_NE(client, nullptr);
    loader.manager = manager;
    publisher = AddModule(KT_PUBLISHER_MODULE, "publisher", &publisherModule);
    consumer = AddModule(KT_CONSUMER_MODULE, "consumer", &consumerModule);
    ASSERT_NE(publisher, nullptr);
    ASSERT_NE(consumer, nullptr);
  }
  void TearDown() override {
    for (void* module : {publisherModule, consumerModule}) {
      if (module != nullptr) dlclose(module);
    }
    if (library != nullptr) dlclose(library);
  }

  IExtension* AddModule(const char* path, const char* name, void** module) {
    *module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (*module == nullptr) return nullptr;
    IExtension* extension = TableOf(*module)[0].factory();
    ExtensionBinaryDesc desc{};
    desc.m_descriptor = 0xD0D0;
    EXPECT_EQ(manager->Add(desc, name, extension, &loader), KT_STATUS_SUCCESS);
    return extension;
  }
  unsigned long Handle(const char* path) {
    unsigned long handle = 0;
    EXPECT_EQ(client->GetPath(0, path, &handle), KT_STATUS_SUCCESS) << path;
    return handle;
  }
  kt_test::ITestPublisher* Publisher() {
    return static_cast<kt_test::ITestPublisher*>(publisher->CastTo("ITestPublisher"));
  }
  std::vector<std::vector<kt_test::TestSample>> Received() {
    return static_cast<kt_test::ITestConsumer*>(consumer->CastTo("ITestConsumer"))->Calls();
  }
  // The host's order: extensions removed, then the client manager destroyed,
  // then the manager.
  void ShutDown() {
    const ExtensionBinaryDesc desc{};
    EXPECT_EQ(manager->Remove(desc, "consumer", consumer, &loader), KT_STATUS_SUCCESS);
    EXPECT_EQ(manager->Remove(desc, "publisher", publisher, &loader), KT_STATUS_SUCCESS);
    unsigned int left = 99;
    EXPECT_EQ(client->GetChildCount(Handle("publishers"), &left), KT_STATUS_SUCCESS);
    EXPECT_EQ(left, 0u);
    delete client;
    delete manager;
    delete consumer;
    delete publisher;
  }

  void* library = nullptr;
  void* publisherModule = nullptr;
  void* consumerModule = nullptr;
  IExtensionManager* manager = nullptr;
  IClientManager* client = nullptr;
  testing_fakes::HostLoader loader;
  IExtension* publisher = nullptr;
  IExtension* consumer = nullptr;
};

TEST_F(HostScenarioTest, SamplesFlowFromAModulePublisherToAModuleConsumer) {
  const unsigned long consumerHandle = Handle("consumers/consumer");
  const unsigned long cpu = Handle("publishers/publisher/cpu");
  const unsigned long user = Handle("publishers/publisher/user");
  const unsigned long system = Handle("publishers/publisher/system");

  ASSERT_EQ(client->SubscribeMetric(consumerHandle, cpu), KT_STATUS_SUCCESS);
  ASSERT_EQ(client->SubscribeMetric(consumerHandle, user), KT_STATUS_SUCCESS);
  ASSERT_EQ(client->SubscribeMetric(consumerHandle, system), KT_STATUS_SUCCESS);
  EXPECT_EQ(Publisher()->BoundCount(), 3);
  ASSERT_TRUE(Publisher()->Write("cpu", "load 0.5"));
  ASSERT_TRUE(Publisher()->Write("user", "u=1"));
  const size_t callsBeforeGroupCompletes = Received().size();
  ASSERT_TRUE(Publisher()->Write("system", "s=2"));

  const auto calls = Received();
  EXPECT_EQ(callsBeforeGroupCompletes, 1u);
  ASSERT_EQ(calls.size(), 2u);
  ASSERT_EQ(calls[0].size(), 1u);
  EXPECT_EQ(calls[0][0].handle, cpu);
  EXPECT_EQ(calls[0][0].tag, 11u);
  EXPECT_EQ(calls[0][0].bytes, "load 0.5");
  ASSERT_EQ(calls[1].size(), 2u) << "the group arrives together";
  EXPECT_EQ(calls[1][0].bytes, "u=1");
  EXPECT_EQ(calls[1][1].tag, 22u);

  ASSERT_EQ(client->UnsubscribeMetric(consumerHandle, cpu), KT_STATUS_SUCCESS);
  EXPECT_EQ(Publisher()->BoundCount(), 2);
  EXPECT_FALSE(Publisher()->Write("cpu", "gone"));
  ShutDown();
}

TEST_F(HostScenarioTest, RemovingThePublisherTellsItAndForgetsItsMetrics) {
  const unsigned long consumerHandle = Handle("consumers/consumer");
  ASSERT_EQ(client->SubscribeMetric(consumerHandle, Handle("publishers/publisher/cpu")),
            KT_STATUS_SUCCESS);
  kt_test::ITestPublisher* face = Publisher();

  EXPECT_EQ(manager->Remove(ExtensionBinaryDesc{}, "publisher", publisher, &loader),
            KT_STATUS_SUCCESS);

  EXPECT_TRUE(face->Unloaded());
  EXPECT_EQ(face->BoundCount(), 0);
  unsigned long gone = 0;
  EXPECT_NE(client->GetPath(0, "publishers/publisher", &gone), KT_STATUS_SUCCESS);
  ShutDown();
}

}  // namespace
