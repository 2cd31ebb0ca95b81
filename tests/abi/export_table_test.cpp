// Reads the library the way a separately compiled host does: dlopen, then
// dlsym for the export table, the two C++ accessors and the C functions. The
// table is checked byte by byte against docs/export_table.md, not through the
// row struct, so that a wrong struct layout cannot hide a wrong table; the
// host walk then reads it through the struct, as hosts do.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "kt/export_table.h"

namespace {

using MetricsFramework::ExtensionExportRow;

constexpr std::size_t kRowSize = 32;
constexpr std::size_t kRowCount = 4;

// The views of one row a host has: fields taken from raw bytes at their offsets.
struct RawRow {
  const char* name;
  std::uint64_t kindAndMagic;  // bytes 8..15 as one little-endian word
  std::uint64_t reserved;      // bytes 16..23 as one little-endian word
  void* factory;
};

struct ExpectedRow {
  const char* name;
  std::uint64_t kindAndMagic;
  bool hasFactory;
};

constexpr ExpectedRow kExpectedRows[kRowCount] = {
    {"DefaultExtensionManager", 0xEBAD000000000004u, true},
    {"DefaultClientManager", 0xEBAD000000000004u, true},
    {"ClientCommandMethod", 0xEBAD000000000000u, true},
    {"", 0, false},
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
  while (std::fgets(line, sizeof(line), maps) != nullptr) {
    unsigned long begin = 0, end = 0;
    char perms[5] = {};
    if (std::sscanf(line, "%lx-%lx %4s", &begin, &end, perms) != 3) continue;
    if (target < begin || target >= end) continue;
    writable = perms[1] == 'w';
    break;
  }
  std::fclose(maps);
  return writable;
}

class LoadedLibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { library_ = dlopen(KT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL); }
  static void TearDownTestSuite() {
    if (library_ != nullptr) dlclose(library_);
    library_ = nullptr;
  }
  void SetUp() override { ASSERT_NE(library_, nullptr) << dlerror(); }

  void* Symbol(const char* name) { return dlsym(library_, name); }

  template <typename Fn>
  Fn Function(const char* name) {
    return reinterpret_cast<Fn>(Symbol(name));
  }

  const unsigned char* TableBytes() {
    return static_cast<const unsigned char*>(Symbol("__extension_export_table__"));
  }

  static RawRow Row(const unsigned char* table, std::size_t index) {
    const unsigned char* row = table + index * kRowSize;
    return RawRow{ReadAt<const char*>(row + 0), LittleEndian64(row + 8),
                  LittleEndian64(row + 16), ReadAt<void*>(row + 24)};
  }

  // Whether `address` lies inside the loaded library's own file.
  bool InLibrary(const void* address) {
    Dl_info info{};
    link_map* map = nullptr;
    if (dladdr(address, &info) == 0 || dlinfo(library_, RTLD_DI_LINKMAP, &map) != 0) return false;
    return std::string(info.dli_fname) == map->l_name;
  }

  static void* library_;
};

void* LoadedLibraryTest::library_ = nullptr;

TEST_F(LoadedLibraryTest, TableIsOneReadOnlySymbolOfFourThirtyTwoByteRows) {
  const unsigned char* table = TableBytes();
  ASSERT_NE(table, nullptr) << dlerror();

  Dl_info info{};
  ElfW(Sym)* symbol = nullptr;
  ASSERT_NE(dladdr1(table, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT), 0);
  ASSERT_NE(symbol, nullptr);

  EXPECT_STREQ(info.dli_sname, "__extension_export_table__");
  EXPECT_EQ(symbol->st_size, kRowCount * kRowSize);
  EXPECT_EQ(ELF64_ST_TYPE(symbol->st_info), STT_OBJECT);
  EXPECT_FALSE(IsWritableMapping(table)) << "the table must not be writable after loading";
}

TEST_F(LoadedLibraryTest, EveryRowCarriesItsNameKindMagicAndFactory) {
  const unsigned char* table = TableBytes();
  ASSERT_NE(table, nullptr) << dlerror();

  for (std::size_t i = 0; i < kRowCount; ++i) {
    SCOPED_TRACE("row " + std::to_string(i + 1));
    const RawRow row = Row(table, i);
    const ExpectedRow& expected = kExpectedRows[i];

    ASSERT_NE(row.name, nullptr);
    EXPECT_STREQ(row.name, expected.name);
    EXPECT_EQ(row.kindAndMagic, expected.kindAndMagic);
    EXPECT_EQ(row.reserved, 0u);
    EXPECT_EQ(row.factory != nullptr, expected.hasFactory);
    if (expected.hasFactory) {
      EXPECT_TRUE(InLibrary(row.factory)) << "factory outside the library";
    }
  }
}

}  // namespace
