// Tests of KTString: the length limit and copies.
#include "foundation/kt_string.h"

#include <gtest/gtest.h>

#include <clocale>
#include <memory>
#include <string>

namespace MetricsFramework {
namespace {

class KTStringTest : public ::testing::Test {
 protected:
  // Conversions follow the process's locale: every test runs in "C".
  void SetUp() override { saved_ = std::setlocale(LC_CTYPE, nullptr), std::setlocale(LC_CTYPE, "C"); }
  void TearDown() override { std::setlocale(LC_CTYPE, saved_.c_str()); }

 private:
  std::string saved_;
};

TEST_F(KTStringTest, LongSourcesAreCutAt4096CharactersAndTerminated) {
  std::string narrow(5000, ' ');
  for (size_t i = 0; i < narrow.size(); ++i) narrow[i] = static_cast<char>('a' + i % 26);
  const std::wstring wide(narrow.begin(), narrow.end());

  const KTString fromNarrow(narrow.c_str());
  const KTString fromWide(wide.c_str());

  EXPECT_EQ(fromNarrow.Char(), narrow.substr(0, 4096));
  EXPECT_EQ(fromNarrow.WideChar(), wide.substr(0, 4096));
  EXPECT_EQ(fromWide.WideChar(), wide.substr(0, 4096));
  EXPECT_EQ(fromWide.Char(), narrow.substr(0, 4096));
}

TEST_F(KTStringTest, CopiesOwnBothFormsAndSelfAssignmentKeepsThem) {
  auto original = std::make_unique<KTString>("abc");
  KTString copy(*original);
  KTString assigned(L"other");
  assigned = *original;
  const KTString& same = assigned;

  assigned = same;

  EXPECT_NE(copy.Char(), original->Char());
  EXPECT_NE(assigned.WideChar(), original->WideChar());
  original.reset();
  EXPECT_STREQ(copy.Char(), "abc");
  EXPECT_STREQ(copy.WideChar(), L"abc");
  EXPECT_STREQ(assigned.Char(), "abc");
  EXPECT_STREQ(assigned.WideChar(), L"abc");
}

}  // namespace
}  // namespace MetricsFramework
