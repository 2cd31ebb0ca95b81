// SPDX-License-Identifier: Apache-2.0
//
// ConsoleConsumer: prints every sample it receives (time, name or handle, tag,
// the value read by the value convention and its unit) as a line of text,
// JSON or CSV, and
// keeps the latest value of each metric for the host, which reads them
// through IConsoleConsumer.
#include "console_consumer.h"

#include <sys/time.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

#include "kt/consumer.h"
#include "kt/export_table.h"
#include "kt/value_convention.h"
#include "kt/visibility.h"

namespace {

using namespace MetricsFramework;
using kt_examples::LatestSample;
using kt_examples::SampleFormat;

// Now, in UTC: 2026-01-31T23:59:59.123Z.
std::string TimeStamp() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03ldZ", static_cast<long>(now.tv_usec / 1000));
  return text;
}

// `text` between double quotes, with what JSON and CSV both need escaped:
// a quote is doubled for CSV, backslash-escaped for JSON.
std::string Quoted(const std::string& text, bool json) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += json ? "\\\"" : "\"\"";
    else if (json && c == '\\') out += "\\\\";
    else if (json && static_cast<unsigned char>(c) < 0x20) out += ' ';
    else out += c;
  }
  return out + "\"";
}

class ConsoleConsumer : public IConsumer, public kt_examples::IConsoleConsumer {
 public:
  void* CastTo(const char* name) override {
    if (name != nullptr && std::strcmp(name, "IConsoleConsumer") == 0) {
      return static_cast<IConsoleConsumer*>(this);
    }
    return IConsumer::CastTo(name);
  }

  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long* tags,
                       const void** data, unsigned long* sizes) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    ++m_updates;
    for (unsigned int i = 0; i < count; ++i) {
      double value = std::nan("");
      // A time-based sample comes without sizes.
      const unsigned long size = sizes != nullptr ? sizes[i] : ValueConvention::kSizeNotGiven;
      ValueConvention::Decode(m_labels[handles[i]].encoding, data[i], size, &value);
      Record(handles[i], tags[i], value);
    }
    if (m_out != nullptr) std::fflush(m_out);
  }

  void SetOutput(std::FILE* out) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_out = out;
  }
  void SetName(unsigned long handle, const std::string& name) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_labels[handle].name = name;
  }
  void SetUnit(unsigned long handle, const std::string& unit) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_labels[handle].unit = unit;
  }
  void SetFormat(SampleFormat format) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_format = format;
  }
  void SetEncoding(unsigned long handle, unsigned char encoding) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_labels[handle].encoding = static_cast<ValueConvention::Encoding>(encoding);
  }
  std::vector<LatestSample> Latest() override {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_latest;
  }
  unsigned long Updates() override {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_updates;
  }

 private:
  struct Label {
    std::string name;
    std::string unit;
    ValueConvention::Encoding encoding = ValueConvention::kEncodingDouble;
  };

  // The caller holds m_mutex.
  void Record(unsigned long handle, unsigned long tag, double value) {
    auto at = m_index.find(handle);
    if (at == m_index.end()) {
      at = m_index.emplace(handle, m_latest.size()).first;
      m_latest.push_back(LatestSample{handle, tag, 0, 0});
    }
    LatestSample& latest = m_latest[at->second];
    latest.tag = tag;
    latest.value = value;
    ++latest.received;
    if (m_out != nullptr) Print(handle, tag, value);
  }

  // The caller holds m_mutex.
  void Print(unsigned long handle, unsigned long tag, double value) {
    Label label = m_labels[handle];
    if (label.name.empty()) {
      char text[24];
      std::snprintf(text, sizeof text, "0x%016lx", handle);
      label.name = text;
    }
    const std::string time = TimeStamp();
    char number[32] = "null";
    if (!std::isnan(value)) {
      std::snprintf(number, sizeof number, ValueConvention::IsInteger(label.encoding) ? "%.0f" : "%.3f",
                    value);
    }
    switch (m_format) {
      case SampleFormat::kJson:
        std::fprintf(m_out, "{\"time\":\"%s\",\"metric\":%s,\"handle\":\"0x%016lx\",\"tag\":%lu,"
                     "\"value\":%s,\"unit\":%s}\n", time.c_str(), Quoted(label.name, true).c_str(),
                     handle, tag, number, Quoted(label.unit, true).c_str());
        return;
      case SampleFormat::kCsv:
        std::fprintf(m_out, "%s,%s,%lu,%s,%s\n", time.c_str(), Quoted(label.name, false).c_str(),
                     tag, std::isnan(value) ? "" : number, Quoted(label.unit, false).c_str());
        return;
      case SampleFormat::kLines:
        std::fprintf(m_out, "%s sample %-40s tag %3lu value %s %s\n", time.c_str(),
                     label.name.c_str(), tag, std::isnan(value) ? "-" : number,
                     label.unit.empty() ? "-" : label.unit.c_str());
        return;
    }
  }

  std::mutex m_mutex;  // guards every member below
  std::FILE* m_out = stdout;
  SampleFormat m_format = SampleFormat::kLines;
  std::map<unsigned long, Label> m_labels;
  std::map<unsigned long, size_t> m_index;  // handle -> position in m_latest
  std::vector<LatestSample> m_latest;
  unsigned long m_updates = 0;
};

IExtension* CreateConsoleConsumer() { return static_cast<IConsumer*>(new ConsoleConsumer); }

}  // namespace

extern "C" KT_EXPORT const ExtensionExportRow __extension_export_table__[2] = {
    {"ConsoleConsumer", kExportKindExtension, kExportRowMagic, 0, &CreateConsoleConsumer},
    {"", 0, 0, 0, nullptr},
};
