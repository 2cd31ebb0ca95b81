// Runs the kt-host program as a user does, with its output not a terminal,
// and checks what it prints and how it exits.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string kHost = KT_HOST_PATH;
const std::string kNoTable = KT_NO_TABLE_MODULE;

struct Result {
  int status;
  std::string output;  // standard output, and standard error unless kept apart
  bool Has(const std::string& text) const { return output.find(text) != std::string::npos; }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
};

// Runs kt-host with `args` under the shell, in the directory of the module
// without a table; `errors` says where standard error goes.
Result RunHost(const std::string& args, const std::string& errors = "2>&1") {
  const std::string command = "cd " + kNoTable.substr(0, kNoTable.rfind('/')) +
                              " && KT_SYSTEM_PUBLISHER_PERIOD_MS=100 " + kHost + " " + args + " " +
                              errors;
  Result result{-1, ""};
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char chunk[4096];
  for (size_t read; (read = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
    result.output.append(chunk, read);
  const int raw = pclose(pipe);
  result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return result;
}

// Starts kt-host with `args`, sends `signal` once its first sample line has
// arrived, and collects the rest.
Result RunUntilSignal(const std::vector<std::string>& args, int signal) {
  int out[2];
  if (pipe(out) != 0) return {-1, ""};
  const pid_t child = fork();
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(out[1], STDERR_FILENO);
    close(out[0]);
    std::vector<char*> argv{const_cast<char*>(kHost.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    setenv("KT_SYSTEM_PUBLISHER_PERIOD_MS", "100", 1);
    execv(kHost.c_str(), argv.data());
    _exit(127);
  }
  close(out[1]);
  Result result{-1, ""};
  char chunk[4096];
  bool sent = false;
  for (ssize_t read; (read = ::read(out[0], chunk, sizeof chunk)) > 0;) {
    result.output.append(chunk, static_cast<size_t>(read));
    if (!sent && result.Has(" sample ")) sent = kill(child, signal) == 0;
  }
  close(out[0]);
  int raw = 0;
  waitpid(child, &raw, 0);
  result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return result;
}

TEST(KtHostTest, SampleLinesCarryATimeStampTheMetricAndTheUnit) {
  // Log lines go to stderr, which may land inside a buffered stdout line.
  const Result run = RunHost("watch --seconds 2", "2>/dev/null");

  EXPECT_EQ(run.status, 0) << run.output;
  size_t samples = 0;
  for (const std::string& line : run.Lines()) {
    if (line.find(" sample ") == std::string::npos) continue;  // a log line
    ++samples;
    EXPECT_EQ(line.find("Z sample publishers/SystemPublisher/"), 23u) << line;
    EXPECT_NE(line.find(" tag "), std::string::npos) << line;
  }
  EXPECT_GT(samples, 0u) << run.output;
  EXPECT_TRUE(run.Has("cpu_percent   tag 101 value ")) << run.output;
  EXPECT_TRUE(run.Has(" MiB\n")) << "memory samples end with their unit";
  EXPECT_FALSE(run.Has("\x1b[")) << "no live table when the output is not a terminal";
  // The summary counts what the lines show.
  EXPECT_TRUE(run.Has(std::to_string(samples) + " samples received from 6 of 7")) << run.output;
  EXPECT_TRUE(run.Has("no samples from: publishers/ProbePublisher/probe_events")) << run.output;
}

// JSON and CSV keep standard output for the data; every --match is watched.
TEST(KtHostTest, JsonAndCsvCarryEveryMatchedMetricAlone) {
  const Result json = RunHost("watch --seconds 1 --format json --match cpu_percent", "2>/dev/null");
  const Result csv = RunHost("watch --seconds 1 --format csv --match cpu_percent --match memory_used",
                         "2>/dev/null");

  ASSERT_EQ(json.status | csv.status, 0) << json.output << csv.output;
  const std::vector<std::string> objects = json.Lines();
  ASSERT_FALSE(objects.empty());
  for (const std::string& object : objects) {
    EXPECT_EQ(object.find("{\"time\":\"20"), 0u) << object;
    EXPECT_NE(object.find("Z\",\"metric\":\"publishers/SystemPublisher/cpu_percent\","),
              std::string::npos) << object;
    EXPECT_NE(object.find(",\"tag\":101,\"value\":"), std::string::npos) << object;
    EXPECT_EQ(object.substr(object.size() - 12), ",\"unit\":\"%\"}") << object;
  }
  const std::vector<std::string> rows = csv.Lines();
  ASSERT_GE(rows.size(), 2u);
  EXPECT_EQ(rows[0], "time,metric,tag,value,unit");
  EXPECT_TRUE(csv.Has("Z,\"publishers/SystemPublisher/memory_used\",")) << csv.output;
  for (size_t i = 1; i < rows.size(); ++i) {
    const std::string& row = rows[i];
    const bool cpu = row.find("Z,\"publishers/SystemPublisher/cpu_percent\",101,") != row.npos;
    const bool memory = row.find("Z,\"publishers/SystemPublisher/memory_used\",") != row.npos;
    EXPECT_TRUE(cpu != memory) << row;
    EXPECT_EQ(row.substr(row.size() - 4), cpu ? ",\"%\"" : "MiB\"") << row;
  }
}

// Each row: the watch arguments and what the first line says of its length.
TEST(KtHostTest, ASignalStopsWatchWithASummaryAndACleanUnload) {
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{"watch", "--seconds", "0"}, "Watching 7 metrics until interrupted"},
      {{"watch", "--seconds", "9223372036"}, "Watching 7 metrics for 9223372036 s"},
  };
  for (int signal : {SIGTERM, SIGINT}) {
    for (const auto& [args, first] : rows) {
      const Result run = RunUntilSignal(args, signal);

      EXPECT_EQ(run.status, 0) << run.output;
      EXPECT_TRUE(run.Has(first)) << run.output;
      EXPECT_TRUE(run.Has(" samples received from ")) << run.output;
      EXPECT_TRUE(run.Has("kt-host: stopped by a signal; 4 modules unloaded")) << run.output;
    }
  }
}

// Each row: the arguments and texts the output holds ("!" first: must not).
TEST(KtHostTest, CommandsAndHelpPrintWhatTheyShow) {
  const std::pair<std::string, std::vector<const char*>> rows[] = {
      {"tree", {"SystemPublisher", "ProbePublisher", "event_counter", "ConsoleConsumer",
                "StderrLogger", "ClientCommandMethod", "cpu_percent  [metric, kind 4]",
                "!conduits"}},
      {"tree --all", {"  conduits  (unlisted; none yet)",
                      "ConsoleConsumer  [consumer, kind 1]  handle ", " data 0x4 target 0x0"}},
      {"metrics", {"group order: system; set names: 1=system", "probe_events",
                   "unit MiB: resident size of this process"}},
      {"probes", {"event_counter: probe 0x", "destroyed: KT_STATUS_SUCCESS"}},
      {"--help", {"--library PATH ", "The manager library to load", "--load PATH ...",
                  "Add the extension module", "--no-examples ", "Do not add the example modules",
                  "--module-dir DIR ", "Where the example modules are", "--version", "watch "}},
      {"watch --help", {"--seconds INT", "--match TEXT", "--format TEXT:{table,lines,json,csv}"}},
      {"tree --help", {"--all   ", "Also print the unlisted branches"}},
      {"--version", {"kt-host 0.", "\n"}},
  };
  for (const auto& [args, texts] : rows) {
    const Result run = RunHost(args);
    EXPECT_EQ(run.status, 0) << args;
    for (const char* text : texts) {
      EXPECT_EQ(run.Has(text[0] == '!' ? text + 1 : text), text[0] != '!')
          << args << ": " << text << "\n" << run.output;
    }
  }
}

// Each row: the arguments and the text its usage error must hold.
TEST(KtHostTest, BadOptionsAndUnloadableModulesAreUsageErrors) {
  const std::string module =
      kHost.substr(0, kHost.rfind('/')) + "/../examples/libkt_console_consumer.so";
  const std::string copy = testing::TempDir() + "libkt_console_consumer_copy.so";
  ASSERT_EQ(std::system(("cp " + module + " " + copy).c_str()), 0);
  const std::pair<std::string, const char*> rows[] = {
      {"--frobnicate", "(try --help)"},
      {"watch --seconds soon", "--seconds"},
      {"watch --seconds=-1", "--seconds"},
      {"watch --format xml", "--format"},
      {"serve", "needs --listen, --connect or --http"},
      {"tree --match x", "--match"},
      {"--load", "--load"},
      {"--load /nonexistent.so tree", "kt-host: cannot load module"},
      {"--load=" + kNoTable + " tree", "no __extension_export_table__"},
      // A file name without a directory is a file of the current directory.
      {"--no-examples --load libkt_no_table_module.so tree", "no __extension_export_table__"},
      {"--load " + module + " tree", "is given twice"},
      {"--load " + copy + " tree", "an extension was refused"},
      {"--library /nonexistent/libkt_DefaultManager.so tree", "kt-host: cannot load library"},
  };
  for (const auto& [args, text] : rows) {
    const Result run = RunHost(args);
    EXPECT_EQ(run.status, 2) << args << ": " << run.output;
    EXPECT_TRUE(run.Has(text)) << args << ": " << run.output;
    EXPECT_FALSE(run.Has("Registry tree")) << args << ": the command must not run";
  }
}

}  // namespace
