#include "foundation/logger.h"

#include <gtest/gtest.h>

#include <string>

#include "host/default_logger.h"
#include "foundation/diagnostics.h"

namespace MetricsFramework {
namespace {

TEST(LoggerTest, OneSilentLoggerForTheWholeProcess) {
  Logger& logger = GetLogger();

  EXPECT_EQ(&GetLogger(), &logger);
  EXPECT_EQ(logger.rdbuf(), nullptr);
  EXPECT_TRUE(logger.StreamOutputSupressed());
  EXPECT_TRUE(logger.StreamOutputDisabled());
}

TEST(LoggerTest, MessageChainsReturnTheLoggerAndKeepNothing) {
  Logger& logger = GetLogger();
  logger.RegisterLogTag("Default", LOG_LEVEL_ERROR);
  logger.DisableStreamOutput(false);

  Logger& end = logger.LogError("Default") << KTString("a") << LOG_LEVEL_ERROR << "b"
                                           << std::string("c") << 42ul << OPCODE_END_OF_MESSAGE;
  logger.LogWarning(L"wide") << OPCODE_END_OF_MESSAGE;
  logger.LogInfo("info") << OPCODE_END_OF_MESSAGE;
  Fail(KT_STATUS_NON_UNIQUE, "instance_name", "pub");

  EXPECT_EQ(&end, &logger);
  EXPECT_STREQ(logger.GetLastMessage().Char(), "");
  EXPECT_TRUE(logger.StreamOutputDisabled());
}

// Objects destroyed at exit may still report failures: the Logger outlives
// every static object (run under AddressSanitizer to see a use after free).
struct ReportsAtExit {
  ~ReportsAtExit() { Fail(KT_STATUS_INVALID_OBJECT, "atexit", std::string(64, 'x')); }
} g_reportsAtExit;

TEST(DefaultLoggerTest, IsNeverMadeAndDropsLines) {
  EXPECT_EQ(DefaultLogger::Create(), nullptr);
  DefaultLogger logger;
  logger.Log(1, "dropped\n");
  EXPECT_EQ(logger.CastTo("DefaultLogger"), nullptr);
}

}  // namespace
}  // namespace MetricsFramework
