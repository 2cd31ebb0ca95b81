#include "state/peer_state.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "registry/registry.h"
#include "state/peer_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using testing_fakes::FakePeer;
TEST(PeerStateTest, ReleasesItsPeerExactlyOnceThroughTheThirdEntry) {
  FakePeer replaced;
  FakePeer destroyed;
  {
    Path node;
    Path other;
    Path bare;
    new PeerState(nullptr, &bare);  // nothing to release
    EXPECT_EQ((new PeerState(&replaced, &node))->m_type, RESOURCE_TYPE_PEER);
    new PeerState(&destroyed, &other);

    new PathData(&node);  // destroys the peer's state

    EXPECT_EQ(replaced.releases, 1);
    EXPECT_EQ(destroyed.releases, 0);
  }
  EXPECT_EQ(replaced.releases, 1);
  EXPECT_EQ(destroyed.releases, 1);
  // Peers come from other modules: Release must stay the third table entry.
  IPeer* face = &replaced;
  reinterpret_cast<void (*)(IPeer*)>((*reinterpret_cast<void***>(face))[2])(face);
  EXPECT_EQ(replaced.releases, 2);
}

}  // namespace
}  // namespace MetricsFramework
