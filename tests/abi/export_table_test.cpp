// Reads the library the way a separately compiled host does: dlopen, then
// dlsym for the export table. The table is checked byte by byte against
// docs/export_table.md, not through the row struct, so that a wrong struct
// layout cannot hide a wrong table.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr std::size_t kRowSize = 32;
constexpr std::size_t kRowCount = 4;

struct ExpectedRow {
  const char* name;
  std::uint64_t kindAndMagic;  // bytes 8..15 as one little-endian word
};

constexpr ExpectedRow kExpectedRows[kRowCount] = {
    {"DefaultExtensionManager", 0xEBAD000000000004u},
    {"DefaultClientManager", 0xEBAD000000000004u},
    {"ClientCommandMethod", 0xEBAD000000000000u},
    {"", 0},
};

std::uint64_t LittleEndian64(const unsigned char* bytes) {
  std::uint64_t word = 0;
  for (int i = 7; i >= 0; --i) word = (word << 8) | bytes[i];
  return word;
}

template <typename T>
T ReadAt(const unsigned char* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof(value));
  return value;
}

// Answers whether the mapping that holds `address` is writable.
bool IsWritableMapping(const void* address) {
  const auto target = reinterpret_cast<std::uintptr_t>(address);
  FILE* maps = std::fopen("/proc/self/maps", "r");
  if (maps == nullptr) return true;
  char line[512];
  bool writable = true;
  unsigned long begin = 0, end = 0;
  char perms[5] = {};
  while (std::fgets(line, sizeof(line), maps) != nullptr) {
    if (std::sscanf(line, "%lx-%lx %4s", &begin, &end, perms) != 3) continue;
    if (target < begin || target >= end) continue;
    writable = perms[1] == 'w';
    break;
  }
  std::fclose(maps);
  return writable;
}

// Whether `address` lies inside the file of the loaded `library`.
bool InLibrary(void* library, const void* address) {
  Dl_info info{};
  link_map* map = nullptr;
  if (dladdr(address, &info) == 0 || dlinfo(library, RTLD_DI_LINKMAP, &map) != 0) return false;
  return std::string(info.dli_fname) == map->l_name;
}

TEST(ExportTableTest, OneReadOnlySymbolOfFourRowsWithNameKindMagicAndFactory) {
  void* library = dlopen(KT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto* table =
      static_cast<const unsigned char*>(dlsym(library, "__extension_export_table__"));
  ASSERT_NE(table, nullptr) << dlerror();

  Dl_info info{};
  ElfW(Sym)* symbol = nullptr;
  ASSERT_NE(dladdr1(table, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT), 0);
  ASSERT_NE(symbol, nullptr);
  EXPECT_STREQ(info.dli_sname, "__extension_export_table__");
  EXPECT_EQ(symbol->st_size, kRowCount * kRowSize);
  EXPECT_EQ(ELF64_ST_TYPE(symbol->st_info), STT_OBJECT);
  EXPECT_FALSE(IsWritableMapping(table)) << "the table must not be writable after loading";

  for (std::size_t i = 0; i < kRowCount; ++i) {
    SCOPED_TRACE("row " + std::to_string(i + 1));
    const unsigned char* row = table + i * kRowSize;
    const auto* name = ReadAt<const char*>(row);
    const auto* factory = ReadAt<void*>(row + 24);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, kExpectedRows[i].name);
    EXPECT_EQ(LittleEndian64(row + 8), kExpectedRows[i].kindAndMagic);
    EXPECT_EQ(LittleEndian64(row + 16), 0u) << "reserved word";
    const bool last = i + 1 == kRowCount;
    EXPECT_EQ(factory != nullptr, !last);
    EXPECT_TRUE(last || InLibrary(library, factory)) << "factory outside the library";
  }
  dlclose(library);
}

}  // namespace
