// Tests of KTString: each form made from the other, the length limit, copies,
// and the forms left by sources that are null or cannot be converted.
#include "foundation/kt_string.h"

#include <gtest/gtest.h>

#include <clocale>
#include <memory>
#include <string>
#include <thread>

namespace MetricsFramework {
namespace {

class KTStringTest : public ::testing::Test {
 protected:
  // Conversions follow the process's locale: every test starts in "C".
  void SetUp() override { saved_ = std::setlocale(LC_CTYPE, nullptr), UseLocale("C"); }
  void TearDown() override { std::setlocale(LC_CTYPE, saved_.c_str()); }
  static bool UseLocale(const char* name) { return std::setlocale(LC_CTYPE, name) != nullptr; }

 private:
  std::string saved_;
};

TEST_F(KTStringTest, EachFormIsMadeFromTheOther) {
  const KTString fromNarrow("abc");
  const KTString fromWide(L"abc");

  EXPECT_STREQ(fromNarrow.WideChar(), L"abc");
  EXPECT_STREQ(fromWide.Char(), "abc");
}

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

TEST_F(KTStringTest, UnconvertibleOrOverlongNarrowFormIsCutAndTerminated) {
  const KTString accented(L"caf\u00e9");  // no narrow form in the "C" locale
  EXPECT_STREQ(accented.Char(), "");
  if (!UseLocale("C.UTF-8")) GTEST_SKIP() << "no UTF-8 locale here";

  const KTString twoBytesEach(L"\u00e9\u00e9");  // four bytes in UTF-8; room is sized for three

  EXPECT_STREQ(twoBytesEach.Char(), "\xc3\xa9");
  EXPECT_STREQ(KTString("\xc3\xa9").WideChar(), L"\u00e9");
}

}  // namespace
}  // namespace MetricsFramework
