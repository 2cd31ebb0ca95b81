// Tests of the exported C thread and process helpers and sdl_sscanf.
#include "kt/platform.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace {

TEST(PlatformTest, PresentPriorityIsAcceptedAndOneOutsideTheRangeRefused) {
  const int before = KTGetCurrentThreadPriority();

  EXPECT_TRUE(KTSetCurrentThreadPriority(before));
  EXPECT_FALSE(KTSetCurrentThreadPriority(KTGetCurrentThreadPriorityMax() + 1));
  EXPECT_FALSE(KTSetCurrentThreadPriority(KTGetCurrentThreadPriorityMin() - 1));
  EXPECT_EQ(KTGetCurrentThreadPriority(), before);
}

TEST(PlatformTest, ScanForwardsEveryArgumentAndReturnsTheScanResult) {
  unsigned int hex = 0;
  int a = 0, b = 0, c = 0, d = 0, port = 0;

  EXPECT_EQ(sdl_sscanf("1f", "%x", &hex), 1);
  EXPECT_EQ(sdl_sscanf("10.0.0.7:8080", "%d.%d.%d.%d:%d", &a, &b, &c, &d, &port), 5);
  EXPECT_EQ(sdl_sscanf("", "%x", &hex), EOF);

  EXPECT_EQ(hex, 0x1fu);
  EXPECT_EQ(a, 10);
  EXPECT_EQ(b + c, 0);
  EXPECT_EQ(d, 7);
  EXPECT_EQ(port, 8080);
}

}  // namespace
