// kt-host watch: live samples of the available metrics, as a table that
// redraws in place on a terminal, or as lines, JSON or CSV for a pipe.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "console_consumer/console_consumer.h"
#include "kt/metric.h"
#include "kt/value_convention.h"

namespace kt_host {

using namespace MetricsFramework;
using kt_examples::IConsoleConsumer;
using kt_examples::SampleFormat;

namespace {

struct Watched {
  unsigned long handle;
  std::string path;
  std::string unit;
  bool integer;  // printed without decimals, by the value convention
};

// The terminal's width in columns; 80 when it cannot be told.
int TerminalColumns() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* columns = std::getenv("COLUMNS");
  const int parsed = columns != nullptr ? std::atoi(columns) : 0;
  return parsed > 0 ? parsed : 80;
}

// `text` cut to `width` columns, its start given up first: the end of a
// metric's path names it.
std::string Fit(const std::string& text, size_t width) {
  if (text.size() <= width) return text;
  if (width <= 3) return text.substr(text.size() - width);
  return "..." + text.substr(text.size() - (width - 3));
}

// The live table. Each frame rewrites the lines of the one before in place
// (cursor up, clear line), so what the terminal showed above the table stays.
class Table {
 public:
  Table(const std::vector<Watched>& watched, bool live) : m_watched(watched), m_live(live) {}

  void Draw(IConsoleConsumer* console, const std::string& status) {
    // One column short of the width: a line that fills the last column wraps
    // on some terminals.
    const int columns = m_live ? TerminalColumns() : 80;
    const size_t nameWidth = static_cast<size_t>(std::max(12, columns - 1 - 35));
    std::map<unsigned long, kt_examples::LatestSample> latest;
    for (const auto& sample : console->Latest()) latest[sample.handle] = sample;

    std::vector<std::string> lines{Fit(status, static_cast<size_t>(columns - 1))};
    char line[512];
    std::snprintf(line, sizeof line, "%-*s %5s %12s %-6s %8s", static_cast<int>(nameWidth),
                  "metric", "tag", "value", "unit", "samples");
    lines.push_back(line);
    for (const Watched& metric : m_watched) {
      const std::string name = Fit(metric.path, nameWidth);
      const std::string unit = Fit(metric.unit.empty() ? "-" : metric.unit, 6);
      auto it = latest.find(metric.handle);
      if (it == latest.end()) {
        std::snprintf(line, sizeof line, "%-*s %5s %12s %-6s %8d", static_cast<int>(nameWidth),
                      name.c_str(), "-", "-", unit.c_str(), 0);
      } else {
        std::snprintf(line, sizeof line, "%-*s %5lu %12.*f %-6s %8lu", static_cast<int>(nameWidth),
                      name.c_str(), it->second.tag, metric.integer ? 0 : 2, it->second.value,
                      unit.c_str(), it->second.received);
      }
      lines.push_back(line);
    }
    std::string frame;
    if (m_live && m_drawn > 0) frame += "\r\x1b[" + std::to_string(m_drawn) + "A";
    for (const std::string& text : lines) frame += (m_live ? "\x1b[2K" : "") + text + "\n";
    m_drawn = lines.size();
    std::fputs(frame.c_str(), stdout);
    std::fflush(stdout);
  }

 private:
  const std::vector<Watched>& m_watched;
  const bool m_live;
  size_t m_drawn = 0;  // lines of the frame on screen
};

bool Matches(const std::string& path, const std::vector<std::string>& match) {
  if (match.empty()) return true;
  return std::any_of(match.begin(), match.end(),
                     [&](const std::string& text) { return path.find(text) != std::string::npos; });
}

std::vector<Watched> Subscribe(IClientManager* client, IConsoleConsumer* console,
                               unsigned long consumer, const std::vector<std::string>& match) {
  std::vector<Watched> watched;
  for (const Node& node : AllMetrics(client)) {
    Metric::Description desc;
    if (client->GetMetricDescriptor(node.handle, &desc) != KT_STATUS_SUCCESS) continue;
    if ((desc.flags & Metric::kFlagAvailable) == 0 || !Matches(node.path, match)) continue;
    console->SetName(node.handle, node.path);
    console->SetUnit(node.handle, desc.text2);
    console->SetEncoding(node.handle, desc.byte1);
    const KT_STATUS status = client->SubscribeMetric(consumer, node.handle);
    if (status != KT_STATUS_SUCCESS) {
      std::fprintf(stderr, "kt-host: subscribing to %s: %s\n", node.path.c_str(), StatusName(status));
      continue;
    }
    watched.push_back({node.handle, node.path, desc.text2,
                       ValueConvention::IsInteger(ValueConvention::EncodingOf(desc))});
  }
  return watched;
}

std::string Duration(long seconds) {
  return seconds == 0 ? "until interrupted" : "for " + std::to_string(seconds) + " s";
}

// What arrived, in words that agree with the sample lines: samples counted
// one by one, and the metrics that sent none named.
void PrintSummary(std::FILE* out, IConsoleConsumer* console, const std::vector<Watched>& watched) {
  std::map<unsigned long, unsigned long> received;
  unsigned long samples = 0;
  for (const auto& sample : console->Latest()) {
    received[sample.handle] = sample.received;
    samples += sample.received;
  }
  std::string silent;
  for (const Watched& metric : watched) {
    if (received.count(metric.handle) == 0) silent += (silent.empty() ? "" : ", ") + metric.path;
  }
  std::fprintf(out, "%lu samples received from %zu of %zu metrics (%lu updates)\n", samples,
               received.size(), watched.size(), console->Updates());
  if (!silent.empty()) std::fprintf(out, "no samples from: %s\n", silent.c_str());
}

}  // namespace

int WatchCommand(HostLoader& host, const WatchOptions& options) {
  IClientManager* client = host.Client();
  IExtension* extension = host.FindExtension("ConsoleConsumer");
  auto* console = extension != nullptr
                      ? static_cast<IConsoleConsumer*>(extension->CastTo("IConsoleConsumer"))
                      : nullptr;
  if (console == nullptr) {
    std::fprintf(stderr, "kt-host: watch needs the console consumer module\n");
    return kCommandFailed;
  }
  const unsigned long consumer =
      static_cast<IKTExtensionBase*>(extension->CastTo("IKTExtensionBase"))->GetHandle();

  const bool terminal = isatty(STDOUT_FILENO) != 0;
  const std::string format = options.format.empty() ? (terminal ? "table" : "lines") : options.format;
  const bool table = format == "table";
  // Data formats keep standard output for the data alone.
  std::FILE* notes = format == "json" || format == "csv" ? stderr : stdout;
  console->SetFormat(format == "json" ? SampleFormat::kJson
                     : format == "csv" ? SampleFormat::kCsv
                                       : SampleFormat::kLines);
  console->SetOutput(nullptr);
  const std::vector<Watched> watched = Subscribe(client, console, consumer, options.match);
  if (watched.empty()) {
    std::fprintf(stderr, "kt-host: no available metric matches\n");
    return kCommandFailed;
  }
  std::fprintf(notes, "Watching %zu metrics %s\n", watched.size(), Duration(options.seconds).c_str());
  if (format == "csv") std::printf("time,metric,tag,value,unit\n");
  std::fflush(notes);
  std::fflush(stdout);
  if (!table) console->SetOutput(stdout);

  Table view(watched, terminal);
  const auto start = std::chrono::steady_clock::now();
  double elapsed = 0;
  // The elapsed time is compared, not a deadline computed: a deadline of many
  // seconds from now would overflow the clock.
  while (!g_stopSignal && (options.seconds == 0 || elapsed < static_cast<double>(options.seconds))) {
    std::this_thread::sleep_for(std::chrono::milliseconds(table ? 250 : 50));
    elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (table && terminal) {
      char status[128];
      std::snprintf(status, sizeof status, "kt-host watch  %.1f s%s  (Ctrl-C to stop)", elapsed,
                    options.seconds > 0 ? (" of " + std::to_string(options.seconds) + " s").c_str()
                                        : "");
      view.Draw(console, status);
    }
  }
  // Unsubscribed first, so that every sample counted in the summary was also
  // printed: a sample that arrived between the two would be counted unseen.
  for (const Watched& metric : watched) client->UnsubscribeMetric(consumer, metric.handle);
  console->SetOutput(nullptr);
  if (table) {
    char status[128];
    std::snprintf(status, sizeof status, "kt-host watch  stopped after %.1f s%s", elapsed,
                  g_stopSignal ? " (signal)" : "");
    view.Draw(console, status);
  }
  PrintSummary(notes, console, watched);
  return 0;
}

}  // namespace kt_host
