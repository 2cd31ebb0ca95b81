#include "registry/path.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "registry/path_data.h"
#include "registry/registry.h"

namespace MetricsFramework {
namespace {

// A registry whose test may take nodes out of the root's maps.
class TestRegistry : public Registry {
 public:
  using Path::DetachChild;
};

class PathTest : public ::testing::Test {
 protected:
  Path* Make(const char* path, unsigned char flags = kPathCreate) {
    return registry.GetChild(path, flags);
  }
  Path* Find(const char* path) { return registry.GetChild(path, 0); }
  Path* Handles() { return Find("handles"); }
  std::vector<unsigned long> ChildHandles(Path* node, unsigned int count) {
    std::vector<unsigned long> out(count + 1, 0xDEAD);
    node->GetChildHandles(count, out.data());
    return out;
  }

  TestRegistry registry;
};

TEST_F(PathTest, SeparatorsAreEquivalentButALeadingRunStaysInTheNameAndEmptyNamesNothing) {
  Path* b = Make("a/b");
  ASSERT_NE(b, nullptr);

  EXPECT_EQ(Find("a//b"), b);
  EXPECT_EQ(Find("a\\b"), b);
  EXPECT_EQ(Find("a/b/"), b);
  EXPECT_EQ(Find("/a/b"), nullptr);
  Path* slashed = Make("/a");
  ASSERT_NE(slashed, nullptr);
  EXPECT_EQ(slashed->GetName(), "/a");
  EXPECT_NE(slashed, Find("a"));

  // The empty path names nothing, and creates an unnamed child.
  EXPECT_EQ(Find(""), nullptr);
  Path* unnamed = Make("");

  ASSERT_NE(unnamed, nullptr);
  EXPECT_TRUE(unnamed->GetName().empty());
  EXPECT_EQ(registry.GetChild(unnamed->GetHandle(), 0), unnamed);
  EXPECT_EQ(Find(""), nullptr);
}

// A taken alias handle answers the node already there; a link never shadows
// an owned child of its name, and RemoveSymlink removes links only.
TEST_F(PathTest, LinksNeverDisplaceWhatIsAlreadyThere) {
  Path* dir = Make("dir");
  Path* a = Make("a");
  Path* b = Make("b");
  dir->AddAliasSymlink(7, a);
  EXPECT_EQ(dir->AddAliasSymlink(7, b), a);
  EXPECT_EQ(dir->GetChild(7, 0), a);
  EXPECT_EQ(dir->GetChild("b", 0), nullptr);

  EXPECT_FALSE(registry.RemoveSymlink(a->GetHandle()));
  EXPECT_EQ(Find("a"), a);
  EXPECT_FALSE(registry.RemoveSymlink(0x4242));

  Path* metric = Make("metric");
  Path* bindings = metric->GetChild("bindings", kPathCreate);
  Path* impostor = Make("elsewhere/bindings");

  metric->AddSymlink(impostor);
  EXPECT_EQ(metric->GetChild("bindings", 0), bindings);
  EXPECT_EQ(metric->GetChild(impostor->GetHandle(), 0), impostor);

  EXPECT_TRUE(metric->RemoveSymlink(impostor->GetHandle()));
  EXPECT_EQ(metric->GetChild("bindings", 0), bindings);
}

TEST_F(PathTest, DestroyingANodeRemovesEveryLinkToIt) {
  Path* node = Make("pubs/p1");
  Path* left = Make("left");
  Path* right = Make("right");
  left->AddSymlink(node);
  right->AddSymlink(node);
  right->AddAliasSymlink(99, node);
  const unsigned long handle = node->GetHandle();

  delete Find("pubs");

  EXPECT_EQ(left->GetChild(handle, 0), nullptr);
  EXPECT_EQ(left->GetChild("p1", 0), nullptr);
  EXPECT_EQ(right->GetChild(handle, 0), nullptr);
  EXPECT_EQ(right->GetChild(99, 0), nullptr);
  EXPECT_EQ(registry.ResolveHandle(handle), nullptr);
  EXPECT_EQ(right->ChildCount(), 0u);
}

TEST_F(PathTest, SetNameRefilesTheNodeUnderItsNewName) {
  Path* node = Make("old");

  node->SetName("new/with/separators");

  EXPECT_EQ(Find("old"), nullptr);
  EXPECT_EQ(registry.GetChild("new/with/separators", 0, nullptr), nullptr);  // split on lookup
  EXPECT_EQ(node->GetName(), "new/with/separators");
  EXPECT_EQ(registry.GetChild(node->GetHandle(), 0), node);

  // Renamed to the empty name, it is found by handle only and leaves no entry behind.
  const unsigned long handle = node->GetHandle();
  node->SetName("");
  EXPECT_EQ(registry.GetChildNamed("", 0), nullptr);
  EXPECT_EQ(registry.GetChild(handle, 0), node);
  node->SetName("again");
  delete node;

  EXPECT_EQ(registry.GetChildNamed("", 0), nullptr) << "no entry outlives its node";
}

TEST_F(PathTest, ConstructingAPayloadReplacesAndDestroysThePreviousOne) {
  static int destroyed;
  destroyed = 0;
  struct Counted : PathData {
    explicit Counted(Path* path) : PathData(path) {}
    ~Counted() override { ++destroyed; }
  };
  Path* node = Make("n");
  new Counted(node);

  PathData* replacement = new PathData(node);

  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(node->GetPayload(), replacement);
  new Counted(node);
  delete Find("n");
  EXPECT_EQ(destroyed, 2);
}

TEST_F(PathTest, ThreadsCreatingTheSameMissingNodeGetTheSameNode) {
  for (int round = 0; round < 50; ++round) {
    Path* parent = Make(("round" + std::to_string(round)).c_str());
    std::atomic<int> ready{0};
    Path* seen[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        ready.fetch_add(1);
        while (ready.load() < 4) std::this_thread::yield();
        seen[t] = parent->GetChild("bindings", kPathCreate | kPathUnlisted);
      });
    }
    for (auto& thread : threads) thread.join();

    for (Path* node : seen) EXPECT_EQ(node, seen[0]);
    EXPECT_EQ(seen[0]->GetParent(), parent);
  }
}

TEST_F(PathTest, ReadersFindCompleteNodesWhileAnotherThreadCreates) {
  Path* parent = Make("busy");
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done.load()) {
      parent->ForEachChild([&](Path* child) {
        EXPECT_EQ(child->GetParent(), parent);
        EXPECT_NE(child->GetHandle(), 0u);
      });
    }
  });

  for (int i = 0; i < 200; ++i) parent->GetChild(std::to_string(i).c_str(), kPathCreate);
  done.store(true);
  reader.join();

  EXPECT_EQ(parent->ChildCount(), 200u);
}

}  // namespace
}  // namespace MetricsFramework
