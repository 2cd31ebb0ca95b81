#include "foundation/kt_string.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace MetricsFramework {
namespace {

TEST(KTStringTest, LongSourcesAreCutAt4096CharactersAndTerminated) {
  std::string narrow(5000, ' ');
  for (size_t i = 0; i < narrow.size(); ++i) narrow[i] = static_cast<char>('a' + i % 26);
  const std::wstring wide(narrow.begin(), narrow.end());

  const KTString forms[] = {narrow.c_str(), wide.c_str()};
  for (const KTString& s : forms) {
    EXPECT_EQ(s.Char(), narrow.substr(0, 4096));
    EXPECT_EQ(s.WideChar(), wide.substr(0, 4096));
  }
}

TEST(KTStringTest, CopiesOwnBothFormsAndSelfAssignmentKeepsThem) {
  auto original = std::make_unique<KTString>("abc");
  KTString copy(*original), assigned(L"other");
  assigned = *original;
  const KTString& same = assigned;
  assigned = same;

  EXPECT_NE(copy.Char(), original->Char());
  EXPECT_NE(assigned.WideChar(), original->WideChar());
  original.reset();
  for (const KTString* s : {&copy, &assigned}) {
    EXPECT_STREQ(s->Char(), "abc");
    EXPECT_STREQ(s->WideChar(), L"abc");
  }
}

}  // namespace
}  // namespace MetricsFramework
