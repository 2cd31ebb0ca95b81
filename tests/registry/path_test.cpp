#include "registry/path.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "registry/registry.h"

namespace MetricsFramework {
namespace {

class PathTest : public ::testing::Test {
 protected:
  Path* Make(const char* path) { return registry.GetChild(path, kPathCreate); }
  Path* Find(const char* path) { return registry.GetChild(path, 0); }
  Registry registry;
};

TEST_F(PathTest, SeparatorsAreEquivalentButALeadingRunStaysInTheNameAndEmptyNamesNothing) {
  Path* b = Make("a/b");
  Path* slashed = Make("/a");
  Path* unnamed = Make("");  // an unnamed child, found by its handle only
  ASSERT_TRUE(b && slashed && unnamed);

  for (const char* same : {"a//b", "a\\b", "a/b/"}) EXPECT_EQ(Find(same), b) << same;
  EXPECT_EQ(Find("/a/b"), nullptr);
  EXPECT_EQ(slashed->GetName(), "/a");
  EXPECT_NE(slashed, Find("a"));
  EXPECT_TRUE(unnamed->GetName().empty());
  EXPECT_EQ(registry.GetChild(unnamed->GetHandle(), 0), unnamed);
  EXPECT_EQ(Find(""), nullptr);
}

// A taken alias handle answers the node already there; a link never shadows
// an owned child of its name, RemoveSymlink removes links only, and a node
// that goes takes every link to it along.
TEST_F(PathTest, LinksNeverDisplaceWhatIsThereAndGoWithTheirTarget) {
  Path *dir = Make("dir"), *a = Make("pubs/a"), *b = Make("b");
  const unsigned long handle = a->GetHandle();
  dir->AddAliasSymlink(7, a);
  EXPECT_EQ(dir->AddAliasSymlink(7, b), a);
  EXPECT_EQ(dir->GetChild(7, 0), a);
  EXPECT_EQ(dir->GetChild("b", 0), nullptr);
  EXPECT_FALSE(registry.RemoveSymlink(handle));
  EXPECT_EQ(Find("pubs/a"), a);
  EXPECT_FALSE(registry.RemoveSymlink(0x4242));

  Path* metric = Make("metric");
  Path* bindings = metric->GetChild("bindings", kPathCreate);
  Path* impostor = Make("elsewhere/bindings");
  metric->AddSymlink(impostor);
  EXPECT_EQ(metric->GetChild("bindings", 0), bindings);
  EXPECT_EQ(metric->GetChild(impostor->GetHandle(), 0), impostor);
  EXPECT_TRUE(metric->RemoveSymlink(impostor->GetHandle()));
  EXPECT_EQ(metric->GetChild("bindings", 0), bindings);

  dir->AddSymlink(a), metric->AddSymlink(a);
  delete Find("pubs");
  for (unsigned long h : {handle, 7ul}) EXPECT_EQ(dir->GetChild(h, 0), nullptr);
  EXPECT_EQ(dir->GetChild("a", 0), nullptr);
  EXPECT_EQ(metric->GetChild(handle, 0), nullptr);
  EXPECT_EQ(registry.ResolveHandle(handle), nullptr);
  EXPECT_EQ(dir->ChildCount(), 0u);
}

// Six bytes fold into four; b4 and b5 carry into the bytes above them. At most
// six fields are read, and junk reads as zero.
TEST(MacFoldTest, FoldsSixBytesIntoFour) {
  const std::string longRun = std::string(4000, ':') + "12";
  const std::pair<const char*, unsigned int> rows[] = {
      {"00:11:22:33:44:55\n", 0x33226644u}, {"ff:ff:ff:ff:ff:ff", 0x0000fffeu},
      {"00:11:22:33:44:55:66:77:88:99", 0x33226644u}, {"zz:11", 0x1100u}, {"", 0},
      {":::::::::", 0}, {nullptr, 0}, {longRun.c_str(), 0x12u}};
  for (const auto& [text, folded] : rows) EXPECT_EQ(FoldMacAddress(text), folded) << text;
}

}  // namespace
}  // namespace MetricsFramework
