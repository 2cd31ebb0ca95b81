// ConsoleConsumer: prints every sample it receives (name or handle, tag and
// the value as a double) and keeps the latest value of each metric for the
// host, which reads them through IConsoleConsumer.
#include "console_consumer.h"

#include <cmath>
#include <cstring>
#include <map>
#include <mutex>

#include "kt/consumer.h"
#include "kt/export_table.h"

namespace {

using namespace MetricsFramework;
using kt_examples::LatestSample;

class ConsoleConsumer : public IConsumer, public kt_examples::IConsoleConsumer {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "IConsoleConsumer") == 0) return static_cast<IConsoleConsumer*>(this);
    return IConsumer::CastTo(name);
  }

  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long* tags,
                       const void** data, unsigned long* sizes) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    ++m_updates;
    for (unsigned int i = 0; i < count; ++i) {
      double value = std::nan("");
      // A time-based sample comes without sizes; the publisher's samples are
      // doubles either way.
      if (sizes == nullptr || sizes[i] == sizeof(double)) std::memcpy(&value, data[i], sizeof value);
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
    m_names[handle] = name;
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
    if (m_out == nullptr) return;
    auto name = m_names.find(handle);
    if (name != m_names.end()) {
      std::fprintf(m_out, "sample %-40s tag %3lu value %.3f\n", name->second.c_str(), tag, value);
    } else {
      std::fprintf(m_out, "sample 0x%016lx tag %3lu value %.3f\n", handle, tag, value);
    }
  }

  std::mutex m_mutex;  // guards every member below
  std::FILE* m_out = stdout;
  std::map<unsigned long, std::string> m_names;
  std::map<unsigned long, size_t> m_index;  // handle -> position in m_latest
  std::vector<LatestSample> m_latest;
  unsigned long m_updates = 0;
};

IExtension* CreateConsoleConsumer() { return static_cast<IConsumer*>(new ConsoleConsumer); }

}  // namespace

extern "C" __attribute__((visibility("default"))) const ExtensionExportRow
    __extension_export_table__[2] = {
        {"ConsoleConsumer", kExportKindExtension, kExportRowMagic, 0, &CreateConsoleConsumer},
        {"", 0, 0, 0, nullptr},
};
