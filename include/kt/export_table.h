// SPDX-License-Identifier: Apache-2.0
//
// The export table: how a host finds what an extension module offers.
//
// A module exports one read-only array named __extension_export_table__ of
// 32-byte little-endian rows, ended by a row whose name is "" and whose other
// fields are zero. The host calls a row's factory to create that extension.
// The byte layout is described in docs/export_table.md.
#ifndef KT_EXPORT_TABLE_H_
#define KT_EXPORT_TABLE_H_

#include <cstddef>

namespace MetricsFramework {

class IExtension;

// Creates one extension and returns it; the host owns the result.
typedef IExtension* (*ExtensionFactory)();

// The upper half of `magic` marks a valid row.
constexpr unsigned int kExportRowMagic = 0xEBAD0000u;
// Kind of the two manager objects, and of an ordinary extension.
constexpr unsigned int kExportKindManager = 4;
constexpr unsigned int kExportKindExtension = 0;

struct ExtensionExportRow {
  const char* name;          // offset 0: NUL-terminated; "" ends the table
  unsigned int kind;         // offset 8
  unsigned int magic;        // offset 12: always kExportRowMagic
  unsigned long reserved;    // offset 16: always 0
  ExtensionFactory factory;  // offset 24: null in the last row
};

static_assert(sizeof(ExtensionExportRow) == 32, "an export row is 32 bytes");
static_assert(offsetof(ExtensionExportRow, kind) == 8, "kind at byte 8");
static_assert(offsetof(ExtensionExportRow, magic) == 12, "magic at byte 12");
static_assert(offsetof(ExtensionExportRow, reserved) == 16, "reserved at byte 16");
static_assert(offsetof(ExtensionExportRow, factory) == 24, "factory at byte 24");

}  // namespace MetricsFramework

#endif  // KT_EXPORT_TABLE_H_
