// Runs the kt-host program as a user does, with its output not a terminal,
// and checks what it prints and how it exits.
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

class KtHostTest : public ::testing::Test {
 protected:
  struct Result {
    int status;
    std::string output;  // standard output and standard error together
    bool Has(const std::string& text) const { return output.find(text) != std::string::npos; }
  };

  static Result Run(const std::string& args) {
    const std::string command =
        std::string("KT_SYSTEM_PUBLISHER_PERIOD_MS=100 ") + KT_HOST_PATH + " " + args + " 2>&1";
    Result result{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char chunk[4096];
    size_t read = 0;
    while ((read = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) result.output.append(chunk, read);
    const int raw = pclose(pipe);
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return result;
  }
};

TEST_F(KtHostTest, WatchPrintsSamplesAsPlainLinesAndExitsCleanly) {
  const Result run = Run("watch --seconds 2");

  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(run.Has("sample publishers/SystemPublisher/cpu_percent")) << run.output;
  EXPECT_TRUE(run.Has("sample publishers/SystemPublisher/resident_size")) << run.output;
  EXPECT_FALSE(run.Has("\x1b[H")) << "no live table when the output is not a terminal";
  EXPECT_FALSE(run.Has(" 0 updates received")) << run.output;
}

TEST_F(KtHostTest, WatchSubscribesOnlyToMatchingMetrics) {
  const Result run = Run("watch --seconds 1 --match cpu_percent");

  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(run.Has("Watching 1 metrics")) << run.output;
  EXPECT_TRUE(run.Has("sample publishers/SystemPublisher/cpu_percent")) << run.output;
  EXPECT_FALSE(run.Has("sample publishers/SystemPublisher/memory_used")) << run.output;
}

TEST_F(KtHostTest, TreeShowsEveryExampleExtensionAndTheLibrarysMethod) {
  const Result run = Run("tree");

  EXPECT_EQ(run.status, 0) << run.output;
  for (const char* name : {"SystemPublisher", "ProbePublisher", "event_counter", "ConsoleConsumer",
                           "StderrLogger", "ClientCommandMethod", "cpu_percent  [metric, kind 4]"}) {
    EXPECT_TRUE(run.Has(name)) << name << " missing from\n" << run.output;
  }
}

TEST_F(KtHostTest, MetricsShowDescriptionsAndThePublishersLists) {
  const Result run = Run("metrics");

  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(run.Has("group order: system; set names: 1=system")) << run.output;
  EXPECT_TRUE(run.Has("probe_events")) << "kind 8 metrics are listed too";
  EXPECT_TRUE(run.Has("unit MiB: resident size of this process")) << run.output;
}

TEST_F(KtHostTest, ProbeOfTheProbeTypeIsCreatedAndDestroyed) {
  const Result run = Run("probes");

  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(run.Has("event_counter: probe 0x")) << run.output;
  EXPECT_TRUE(run.Has("destroyed: KT_STATUS_SUCCESS")) << run.output;
}

// Each row: the arguments and the text its one-line usage error must hold.
TEST_F(KtHostTest, BadOptionsAndUnloadableModulesAreUsageErrorsOfOneLine) {
  const std::pair<std::string, const char*> rows[] = {
      {"--frobnicate", ""},
      {"watch --seconds soon", ""},
      {"tree --match x", ""},
      {"--load", ""},
      {"--load /nonexistent.so tree", "kt-host: cannot load module"},
      {std::string("--load ") + KT_NO_TABLE_MODULE + " tree", "no __extension_export_table__"},
      {"--library /nonexistent/libkt_DefaultManager.so tree", "kt-host: cannot load library"},
  };
  for (const auto& [args, text] : rows) {
    const Result run = Run(args);
    EXPECT_EQ(run.status, 2) << args;
    EXPECT_EQ(run.output.find('\n'), run.output.size() - 1) << args << ": " << run.output;
    EXPECT_TRUE(run.Has(text)) << args << ": " << run.output;
  }
}

}  // namespace
