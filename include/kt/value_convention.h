// SPDX-License-Identifier: Apache-2.0
//
// The value convention: how the bytes of a sample and the fields of its
// metric's description give a number, a unit, a help text and a type. The
// library itself never reads these fields; publishers that follow the
// convention can be shown by any consumer that reads it (kt-host, the
// exporter). docs/value_convention.md has the table.
//
//   byte1  how the bytes are read: kEncodingDouble (0, the default: an 8-byte
//          IEEE-754 double, or a 4-byte float), kEncodingSigned (1) or
//          kEncodingUnsigned (2): a little-endian integer of 1, 2, 4 or 8 bytes
//   byte2  kTypeGauge (0, the default) or kTypeCounter (1)
//   text1  the help text, one line for people
//   text2  the unit ("%", "MiB", "s"; "" for none)
//
// Header-only and stateless: every function may be called from any thread,
// on the sample path included (no allocation, no lock).
#ifndef KT_VALUE_CONVENTION_H_
#define KT_VALUE_CONVENTION_H_

#include <cstdint>
#include <cstring>
#include <string>

#include "kt/metric.h"

namespace MetricsFramework {
namespace ValueConvention {

enum Encoding : unsigned char { kEncodingDouble = 0, kEncodingSigned = 1, kEncodingUnsigned = 2 };
enum Type : unsigned char { kTypeGauge = 0, kTypeCounter = 1 };

// The size a time-based sample stands for: it arrives without one and is
// read as 8 bytes.
constexpr unsigned long kSizeNotGiven = ~0ul;

inline Encoding EncodingOf(const Metric::Description& desc) {
  return static_cast<Encoding>(desc.byte1);
}
inline Type TypeOf(const Metric::Description& desc) {
  return desc.byte2 == kTypeCounter ? kTypeCounter : kTypeGauge;
}
inline bool IsInteger(Encoding encoding) {
  return encoding == kEncodingSigned || encoding == kEncodingUnsigned;
}
inline const char* EncodingName(Encoding encoding) {
  switch (encoding) {
    case kEncodingDouble: return "double";
    case kEncodingSigned: return "signed";
    case kEncodingUnsigned: return "unsigned";
  }
  return "unknown";
}

// Reads the `size` bytes at `data` as `encoding` says into *out. False, with
// *out unchanged, for a null `data`, an unknown encoding or a size the
// encoding has no reading for (a double is 8 or 4 bytes, an integer 1, 2, 4
// or 8). kSizeNotGiven reads 8 bytes.
inline bool Decode(Encoding encoding, const void* data, unsigned long size, double* out) {
  if (data == nullptr) return false;
  if (size == kSizeNotGiven) size = 8;
  unsigned char bytes[8] = {};
  if (size != 1 && size != 2 && size != 4 && size != 8) return false;
  std::memcpy(bytes, data, size);
  if (encoding == kEncodingDouble) {
    if (size == 8) {
      double value;
      std::memcpy(&value, bytes, 8);
      return *out = value, true;
    }
    if (size != 4) return false;
    float value;
    std::memcpy(&value, bytes, 4);
    return *out = value, true;
  }
  if (!IsInteger(encoding)) return false;
  std::uint64_t raw = 0;
  for (unsigned long i = 0; i < size; ++i) raw |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
  if (encoding == kEncodingUnsigned) return *out = static_cast<double>(raw), true;
  const unsigned int unused = static_cast<unsigned int>(64 - 8 * size);
  // Sign-extends the top byte read.
  const std::int64_t value = static_cast<std::int64_t>(raw << unused) >> unused;
  return *out = static_cast<double>(value), true;
}

// The base unit a metric's unit is shown in where names carry units (the
// exporter's metric names): its name suffix, and the factor that turns a
// value in `unit` into that base unit. False for a unit the convention has no
// suffix for: the name then carries none and the value is left as it is.
inline bool BaseUnit(const std::string& unit, const char** suffix, double* factor) {
  struct Row {
    const char* unit;
    const char* suffix;
    double factor;
  };
  static const Row kRows[] = {
      {"s", "seconds", 1},         {"ms", "seconds", 1e-3},          {"us", "seconds", 1e-6},
      {"ns", "seconds", 1e-9},     {"B", "bytes", 1},                {"KiB", "bytes", 1024.0},
      {"MiB", "bytes", 1048576.0}, {"GiB", "bytes", 1073741824.0},   {"%", "percent", 1},
      {"1/s", "per_second", 1},    {"Hz", "hertz", 1},               {"V", "volts", 1},
      {"J", "joules", 1},          {"W", "watts", 1},                {"C", "celsius", 1},
  };
  for (const Row& row : kRows) {
    if (unit != row.unit) continue;
    *suffix = row.suffix;
    *factor = row.factor;
    return true;
  }
  return false;
}

}  // namespace ValueConvention
}  // namespace MetricsFramework

#endif  // KT_VALUE_CONVENTION_H_
