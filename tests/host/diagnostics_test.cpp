#include "foundation/diagnostics.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace MetricsFramework {
namespace {

// A sink that keeps the pieces of each message, where the Logger drops them.
struct Recorder {
  Recorder& LogError(const KTString& tag) {
    pieces.push_back(std::string("tag=") + tag.Char());
    return *this;
  }
  std::vector<std::string> pieces;
};
Recorder& operator<<(Recorder& r, const char* text) {
  r.pieces.push_back(text);
  return r;
}
Recorder& operator<<(Recorder& r, const std::string& text) {
  r.pieces.push_back(text);
  return r;
}
Recorder& operator<<(Recorder& r, unsigned long value) {
  r.pieces.push_back(std::to_string(value));
  return r;
}
Recorder& operator<<(Recorder& r, OpCode code) {
  r.pieces.push_back("end=" + std::to_string(static_cast<unsigned int>(code)));
  return r;
}

using Pieces = std::vector<std::string>;

TEST(StatusTest, EveryValueHasItsFixedNumberAndName) {
  const struct {
    KT_STATUS value;
    KT_STATUS number;
    const char* name;
  } table[] = {
      {KT_STATUS_SUCCESS, 0, "KT_STATUS_SUCCESS"},
      {KT_STATUS_INVALID_OBJECT, 2, "KT_STATUS_INVALID_OBJECT"},
      {KT_STATUS_INVALID_OPERATION, 4, "KT_STATUS_INVALID_OPERATION"},
      {KT_STATUS_DOES_NOT_EXIST, 5, "KT_STATUS_DOES_NOT_EXIST"},
      {KT_STATUS_ALREADY_EXISTS, 6, "KT_STATUS_ALREADY_EXISTS"},
      {KT_STATUS_INVALID_ARGUMENT, 7, "KT_STATUS_INVALID_ARGUMENT"},
      {KT_STATUS_NON_UNIQUE, 8, "KT_STATUS_NON_UNIQUE"},
      {KT_STATUS_LOOKUP_FAILED, 9, "KT_STATUS_LOOKUP_FAILED"},
      {KT_STATUS_INVALID_SIZE, 10, "KT_STATUS_INVALID_SIZE"},
      {KT_STATUS_OUT_OF_RESOURCES, 11, "KT_STATUS_OUT_OF_RESOURCES"},
      {KT_STATUS_UNSUPPORTED_EXTENSION, 14, "KT_STATUS_UNSUPPORTED_EXTENSION"},
      {KT_STATUS_NOT_AVAILABLE, 18, "KT_STATUS_NOT_AVAILABLE"},
      {KT_STATUS_PARTIAL_FAILURE, 20, "KT_STATUS_PARTIAL_FAILURE"},
  };
  for (const auto& row : table) {
    EXPECT_EQ(row.value, row.number) << row.name;
    EXPECT_STREQ(StatusName(row.number), row.name) << row.number;
  }
  for (KT_STATUS gap : {1u, 3u, 12u, 13u, 15u, 16u, 17u, 19u, 21u}) {
    EXPECT_EQ(StatusName(gap), nullptr) << gap;
  }
}

// The value is optional and may be a text or a handle.
TEST(ComposedMessageTest, PiecesComeInTheFixedOrder) {
  Recorder sink;
  ComposeMessage(sink, StatusName(KT_STATUS_NON_UNIQUE), "instance_name", std::string("pub1"));
  ComposeMessage(sink, "status", "m_conduit");
  ComposeMessage(sink, "KT_STATUS_INVALID_OBJECT", "handle", 0x10002ul);

  EXPECT_EQ(sink.pieces,
            (Pieces{"tag=Default", "KT_STATUS_NON_UNIQUE", ": ", "instance_name", " = ", "pub1",
                    "end=0", "tag=Default", "status", ": ", "m_conduit", " = ", "end=0",
                    "tag=Default", "KT_STATUS_INVALID_OBJECT", ": ", "handle", " = ", "65538",
                    "end=0"}));
}

TEST(ConsoleTraceTest, OnExactlyWhenTheVariableStartsWithOne) {
  const char* name = "KT_LOG_ONLOAD_CALLS_TO_CONSOLE";
  unsetenv(name);
  EXPECT_FALSE(ConsoleTraceRequested());
  for (const char* on : {"1", "1yes"}) {
    setenv(name, on, 1);
    EXPECT_TRUE(ConsoleTraceRequested()) << on;
  }
  for (const char* off : {"0", "", "true", " 1"}) {
    setenv(name, off, 1);
    EXPECT_FALSE(ConsoleTraceRequested()) << '"' << off << '"';
  }
  unsetenv(name);
}

}  // namespace
}  // namespace MetricsFramework
