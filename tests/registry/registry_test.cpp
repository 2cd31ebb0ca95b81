#include "registry/registry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "registry/path_data.h"

namespace MetricsFramework {
namespace {

// Six bytes fold into four; b4 and b5 carry into the bytes above them. At most
// six fields are read, and junk reads as zero.
TEST(MacFoldTest, FoldsSixBytesIntoFour) {
  EXPECT_EQ(FoldMacAddress("00:11:22:33:44:55\n"), 0x33226644u);
  EXPECT_EQ(FoldMacAddress("ff:ff:ff:ff:ff:ff"), 0x0000fffeu);
  EXPECT_EQ(FoldMacAddress("00:11:22:33:44:55:66:77:88:99"), 0x33226644u);
  EXPECT_EQ(FoldMacAddress("zz:11"), 0x1100u);
  EXPECT_EQ(FoldMacAddress(""), 0u);
  EXPECT_EQ(FoldMacAddress(":::::::::"), 0u);
  EXPECT_EQ(FoldMacAddress(nullptr), 0u);
  EXPECT_EQ(FoldMacAddress(std::string(4000, ':').append("12").c_str()), 0x12u);
}

TEST(MacFoldTest, ReadsTheAddressFileOrGivesZero) {
  char name[] = "/tmp/kt_mac_XXXXXX";
  const int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  const char text[] = "00:11:22:33:44:55\n";
  ASSERT_EQ(write(fd, text, sizeof(text) - 1), static_cast<ssize_t>(sizeof(text) - 1));
  close(fd);

  EXPECT_EQ(ReadMacFold(name), 0x33226644u);
  unlink(name);
  EXPECT_EQ(ReadMacFold(name), 0u);
}

// Records every call of the state listeners below.
std::vector<std::pair<void*, unsigned int>> g_calls;
void FirstListener(void* context, unsigned int event, unsigned long, unsigned long) {
  g_calls.emplace_back(context, event);
}
void SecondListener(void* context, unsigned int event, unsigned long, unsigned long) {
  g_calls.emplace_back(context, event + 100);
}

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { g_calls.clear(); }
  Path* Handles() { return registry.GetChild("handles", 0); }

  Registry registry;
};

TEST_F(RegistryTest, GuidFoldsProcessMacAndAddress) {
  const unsigned int expected = static_cast<unsigned int>(getpid()) +
                                ReadMacFold("/sys/class/net/eth0/address") +
                                static_cast<unsigned int>(reinterpret_cast<uintptr_t>(&registry));

  EXPECT_EQ(registry.GetLocalGuid(), expected);
  EXPECT_EQ(registry.GetLocalGuid(), expected);
  EXPECT_EQ(Registry::GetGuid(kClientCommandHandle), 0x00ABBAFAu);
}

TEST_F(RegistryTest, RootIsNamedListedAndFiledInHandles) {
  const unsigned long root = static_cast<unsigned long>(registry.GetLocalGuid()) << 32;

  EXPECT_EQ(registry.GetHandle(), root);
  EXPECT_EQ(registry.GetName(), "root");
  EXPECT_TRUE(registry.IsListed());
  EXPECT_EQ(registry.ResolveHandle(root), &registry);
  ASSERT_NE(Handles(), nullptr);
  EXPECT_FALSE(Handles()->IsListed());
  EXPECT_EQ(registry.ResolveHandle(Handles()->GetHandle()), nullptr);
  EXPECT_EQ(registry.ChildCount(), 0u);
}

TEST_F(RegistryTest, EveryHandleCarriesTheRegistryGuid) {
  Path* a = registry.GetChild("a/b/c", kPathCreate);
  Path* b = registry.GetChild("x", kPathCreate | kPathUnlisted);

  EXPECT_EQ(Registry::GetGuid(a->GetHandle()), registry.GetLocalGuid());
  EXPECT_EQ(Registry::GetGuid(b->GetHandle()), registry.GetLocalGuid());
  EXPECT_EQ(Registry::GetGuid(registry.CreateHandle(&g_calls)), registry.GetLocalGuid());
}

TEST_F(RegistryTest, NodeReachableUnderAnAliasHandleLeavesNoLinkWhenDestroyed) {
  Path* method = registry.GetChild("methods/ClientCommandMethod", kPathCreate);
  const unsigned long own = method->GetHandle();
  ASSERT_EQ(Handles()->AddAliasSymlink(kClientCommandHandle, method), method);
  ASSERT_EQ(registry.ResolveHandle(kClientCommandHandle), method);

  delete method;

  EXPECT_EQ(registry.ResolveHandle(kClientCommandHandle), nullptr);
  EXPECT_EQ(registry.ResolveHandle(own), nullptr);
  EXPECT_EQ(Handles()->GetChild("ClientCommandMethod", 0), nullptr);
}

TEST_F(RegistryTest, ListenersAreCalledInAddressOrderWhileNotificationsAreOn) {
  int first = 0;
  int second = 0;
  registry.AddStateListener(&SecondListener, &second);
  registry.AddStateListener(&FirstListener, &first);

  registry.NotifyStateListeners(3, 1, 2);

  ASSERT_EQ(g_calls.size(), 2u);
  const bool firstIsLower = std::less<Registry::StateListener>()(&FirstListener, &SecondListener);
  EXPECT_EQ(g_calls[firstIsLower ? 0 : 1], std::make_pair<void*>(&first, 3u));
  EXPECT_EQ(g_calls[firstIsLower ? 1 : 0], std::make_pair<void*>(&second, 103u));

  registry.RemoveStateListener(&SecondListener);
  registry.NotifyStateListeners(4, 0, 0);
  EXPECT_EQ(g_calls.size(), 3u);
}

TEST(RegistryTeardownTest, DestroysEveryPayloadAndTellsNoListener) {
  static int destroyed;
  static int notified;
  destroyed = notified = 0;
  struct Noisy : PathData {
    Noisy(Path* path, Registry* registry) : PathData(path), registry(registry) {}
    ~Noisy() override {
      ++destroyed;
      registry->NotifyStateListeners(2, 0, 0);
    }
    Registry* registry;
  };
  auto* registry = new Registry;
  registry->AddStateListener([](void*, unsigned int, unsigned long, unsigned long) { ++notified; },
                             nullptr);
  new Noisy(registry->GetChild("publishers/p", kPathCreate), registry);
  new Noisy(registry->GetChild("consumers/c", kPathCreate | kPathUnlisted), registry);
  Path* linked = registry->GetChild("consumers/c", 0);
  registry->GetChild("publishers/p", 0)->AddSymlink(linked);

  delete registry;

  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(notified, 0);
}

}  // namespace
}  // namespace MetricsFramework
