#include "host/diagnostics.h"

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
  const std::vector<std::pair<KT_STATUS, const char*>> table = {
      {0, "KT_STATUS_SUCCESS"},
      {2, "KT_STATUS_INVALID_OBJECT"},
      {4, "KT_STATUS_INVALID_OPERATION"},
      {5, "KT_STATUS_DOES_NOT_EXIST"},
      {6, "KT_STATUS_ALREADY_EXISTS"},
      {7, "KT_STATUS_INVALID_ARGUMENT"},
      {8, "KT_STATUS_NON_UNIQUE"},
      {9, "KT_STATUS_LOOKUP_FAILED"},
      {10, "KT_STATUS_INVALID_SIZE"},
      {11, "KT_STATUS_OUT_OF_RESOURCES"},
      {14, "KT_STATUS_UNSUPPORTED_EXTENSION"},
      {18, "KT_STATUS_NOT_AVAILABLE"},
      {20, "KT_STATUS_PARTIAL_FAILURE"},
  };
  for (const auto& row : table) EXPECT_STREQ(StatusName(row.first), row.second) << row.first;
  EXPECT_EQ(KT_STATUS_INVALID_ARGUMENT, 7u);
  EXPECT_EQ(KT_STATUS_PARTIAL_FAILURE, 20u);
  for (KT_STATUS gap : {1u, 3u, 12u, 13u, 15u, 16u, 17u, 19u, 21u}) {
    EXPECT_EQ(StatusName(gap), nullptr) << gap;
  }
}

TEST(ComposedMessageTest, PiecesComeInTheFixedOrder) {
  Recorder sink;
  ComposeMessage(sink, StatusName(KT_STATUS_NON_UNIQUE), "instance_name", std::string("pub1"));

  EXPECT_EQ(sink.pieces, (Pieces{"tag=Default", "KT_STATUS_NON_UNIQUE", ": ", "instance_name",
                                 " = ", "pub1", "end=0"}));
}

TEST(ComposedMessageTest, ValueIsOptionalAndMayBeAHandle) {
  Recorder sink;
  ComposeMessage(sink, "status", "m_conduit");
  ComposeMessage(sink, "KT_STATUS_INVALID_OBJECT", "handle", 0x10002ul);

  EXPECT_EQ(sink.pieces,
            (Pieces{"tag=Default", "status", ": ", "m_conduit", " = ", "end=0", "tag=Default",
                    "KT_STATUS_INVALID_OBJECT", ": ", "handle", " = ", "65538", "end=0"}));
}

TEST(ComposedMessageTest, FailReturnsItsStatusWhateverTheValue) {
  EXPECT_EQ(Fail(KT_STATUS_INVALID_ARGUMENT, "owner"), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Fail(KT_STATUS_NON_UNIQUE, "instance_name", "x"), KT_STATUS_NON_UNIQUE);
  EXPECT_EQ(Fail(KT_STATUS_INVALID_OBJECT, "metric", 0ul), KT_STATUS_INVALID_OBJECT);
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
