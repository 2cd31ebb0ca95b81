// Tests of the name tree: lookups, links, readers beside a writer, and the
// fold of the machine address into the GUID.
#include "registry/path.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "registry/registry.h"

namespace MetricsFramework {
namespace {

class PathTest : public ::testing::Test {
 protected:
  Path* Make(const char* path, unsigned char flags = kPathCreate) {
    return registry.GetChild(path, flags);
  }
  Path* Find(const char* path) { return registry.GetChild(path, 0); }

  Registry registry;
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

}  // namespace
}  // namespace MetricsFramework
