// KTString: a string that holds a narrow and a wide form side by side.
//
// Both forms are made at construction, so that reading either later does not
// allocate; each is cut at 4096 characters and always NUL-terminated. The wide
// form is converted from the narrow one (and back) under the process's current
// locale. A form that cannot be converted is stored as "". The object owns both
// forms; it is not safe to use one KTString from several threads while a form
// is still missing (only a copy of a half-built string lacks one).
#ifndef KT_FOUNDATION_KT_STRING_H_
#define KT_FOUNDATION_KT_STRING_H_

#include <cstddef>

namespace MetricsFramework {

class KTString {
 public:
  // The longest form kept, in characters (not counting the NUL).
  static constexpr size_t kMaxLength = 4096;

  KTString();
  KTString(const char* s);      // NOLINT: implicit by design, like a string literal
  KTString(const wchar_t* w);   // NOLINT
  KTString(const KTString& other);
  KTString& operator=(const KTString& other);
  ~KTString();

  // The narrow form, converted from the wide one first if it is missing.
  const char* Char() const;
  // The wide form, converted from the narrow one first if it is missing.
  const wchar_t* WideChar() const;

  // Building blocks: copy a source into the matching form (a null source does
  // nothing), and make the other form by conversion.
  void init(const char* s);
  void init(const wchar_t* w);
  void convert_to_wchar() const;
  void convert_to_char() const;

 private:
  mutable wchar_t* wide;
  mutable char* narrow;
};

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_KT_STRING_H_
