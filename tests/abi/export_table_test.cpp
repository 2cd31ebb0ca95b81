// Reads the library the way a separately compiled host does: dlopen, then
// dlsym for the export table. The table is checked byte by byte against
// docs/export_table.md, not through the row struct, so that a wrong struct
// layout cannot hide a wrong table.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace {

template <typename T>
T ReadAt(const unsigned char* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof(value));
  return value;
}

// Whether the mapping that holds `address` is writable.
bool IsWritableMapping(const void* address) {
  const auto target = reinterpret_cast<std::uintptr_t>(address);
  std::ifstream maps("/proc/self/maps");
  std::uintptr_t begin = 0, end = 0;
  std::string perms, rest;
  for (char dash; maps >> std::hex >> begin >> dash >> end >> perms && std::getline(maps, rest);) {
    if (target >= begin && target < end) return perms[1] == 'w';
  }
  return true;
}

TEST(ExportTableTest, OneReadOnlySymbolOfFourRowsWithNameKindMagicAndFactory) {
  const struct {
    const char* name;
    std::uint64_t kindAndMagic;  // bytes 8..15 as one little-endian word
  } rows[] = {{"DefaultExtensionManager", 0xEBAD000000000004u},
              {"DefaultClientManager", 0xEBAD000000000004u},
              {"ClientCommandMethod", 0xEBAD000000000000u},
              {"", 0}};
  void* library = dlopen(KT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto* table =
      static_cast<const unsigned char*>(dlsym(library, "__extension_export_table__"));
  ASSERT_NE(table, nullptr) << dlerror();
  link_map* map = nullptr;
  ASSERT_EQ(dlinfo(library, RTLD_DI_LINKMAP, &map), 0);

  Dl_info info{};
  ElfW(Sym)* symbol = nullptr;
  ASSERT_NE(dladdr1(table, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT), 0);
  ASSERT_NE(symbol, nullptr);
  EXPECT_STREQ(info.dli_sname, "__extension_export_table__");
  EXPECT_EQ(symbol->st_size, sizeof(rows) / sizeof(rows[0]) * 32);
  EXPECT_EQ(ELF64_ST_TYPE(symbol->st_info), STT_OBJECT);
  EXPECT_FALSE(IsWritableMapping(table)) << "the table must not be writable after loading";

  for (const auto& expected : rows) {
    const unsigned char* row = table + (&expected - rows) * 32;
    SCOPED_TRACE(expected.name);
    const auto* name = ReadAt<const char*>(row);
    const auto* factory = ReadAt<void*>(row + 24);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, expected.name);
    EXPECT_EQ(ReadAt<std::uint64_t>(row + 8), expected.kindAndMagic);
    EXPECT_EQ(ReadAt<std::uint64_t>(row + 16), 0u) << "reserved word";
    const bool last = *expected.name == '\0';
    EXPECT_EQ(factory != nullptr, !last);
    EXPECT_TRUE(last || (dladdr(factory, &info) && std::string(info.dli_fname) == map->l_name))
        << "factory outside the library";
  }
  dlclose(library);
}

}  // namespace
