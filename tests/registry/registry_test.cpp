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

TEST(RegistryTest, GuidFoldsProcessMacAndAddress) {
  Registry registry;
  const unsigned int expected = static_cast<unsigned int>(getpid()) +
                                ReadMacFold("/sys/class/net/eth0/address") +
                                static_cast<unsigned int>(reinterpret_cast<uintptr_t>(&registry));

  EXPECT_EQ(registry.GetLocalGuid(), expected);
  EXPECT_EQ(registry.GetLocalGuid(), expected);
  EXPECT_EQ(Registry::GetGuid(kClientCommandHandle), 0x00ABBAFAu);
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
