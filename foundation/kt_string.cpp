#include "foundation/kt_string.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace MetricsFramework {

namespace {

char* CopyNarrow(const char* s) {
  if (s == nullptr) return nullptr;
  const size_t n = strnlen(s, KTString::kMaxLength);
  char* copy = new char[n + 1];
  std::memcpy(copy, s, n);
  copy[n] = '\0';
  return copy;
}

wchar_t* CopyWide(const wchar_t* w) {
  if (w == nullptr) return nullptr;
  const size_t n = wcsnlen(w, KTString::kMaxLength);
  wchar_t* copy = new wchar_t[n + 1];
  std::wmemcpy(copy, w, n);
  copy[n] = L'\0';
  return copy;
}

}  // namespace

KTString::KTString() : wide(nullptr), narrow(nullptr) {
  init("");
  convert_to_wchar();
}

KTString::KTString(const char* s) : wide(nullptr), narrow(nullptr) {
  // A null source gives "" in both forms, both made here: a form left missing
  // would be made later by a const reader, racing with readers on other threads.
  init(s != nullptr ? s : "");
  convert_to_wchar();
}

KTString::KTString(const wchar_t* w) : wide(nullptr), narrow(nullptr) {
  init(w != nullptr ? w : L"");
  convert_to_char();
}

KTString::KTString(const KTString& other)
    : wide(CopyWide(other.wide)), narrow(CopyNarrow(other.narrow)) {}

KTString& KTString::operator=(const KTString& other) {
  if (this == &other) return *this;
  delete[] narrow;
  delete[] wide;
  wide = CopyWide(other.wide);
  narrow = CopyNarrow(other.narrow);
  return *this;
}

KTString::~KTString() {
  delete[] narrow;
  delete[] wide;
}

const char* KTString::Char() const {
  if (narrow == nullptr) convert_to_char();
  return narrow;
}

const wchar_t* KTString::WideChar() const {
  if (wide == nullptr) convert_to_wchar();
  return wide;
}

void KTString::init(const char* s) {
  if (s == nullptr) return;
  delete[] narrow;
  narrow = CopyNarrow(s);
}

void KTString::init(const wchar_t* w) {
  if (w == nullptr) return;
  delete[] wide;
  wide = CopyWide(w);
}

void KTString::convert_to_wchar() const {
  const size_t len = (narrow == nullptr ? 0 : strnlen(narrow, kMaxLength)) + 1;
  wchar_t* converted = new wchar_t[len];
  converted[0] = L'\0';
  if (narrow != nullptr && std::mbstowcs(converted, narrow, len) == static_cast<size_t>(-1)) {
    converted[0] = L'\0';
  }
  converted[len - 1] = L'\0';
  delete[] wide;
  wide = converted;
}

void KTString::convert_to_char() const {
  // The narrow buffer is sized by the number of wide characters, so a string
  // whose multibyte form is longer is cut; it is terminated all the same.
  const size_t len = (wide == nullptr ? 0 : wcsnlen(wide, kMaxLength)) + 1;
  char* converted = new char[len];
  converted[0] = '\0';
  if (wide != nullptr && std::wcstombs(converted, wide, len) == static_cast<size_t>(-1)) {
    converted[0] = '\0';
  }
  converted[len - 1] = '\0';
  delete[] narrow;
  narrow = converted;
}

}  // namespace MetricsFramework
