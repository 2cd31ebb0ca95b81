// The exporter tests' host: loads the manager library and the exporter
// module with dlopen as a host does, adds a publisher whose metrics follow the
// value convention, and reads the exporter over loopback HTTP. Also starts the
// real programs (prometheus, promtool, chromium) and kills them.
#ifndef KT_TESTS_EXPORTER_EXPORTER_HOST_H_
#define KT_TESTS_EXPORTER_EXPORTER_HOST_H_

#include <sys/types.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/extension_manager.h"
#include "kt/metric.h"
#include "kt/publisher.h"
#include "kt/value_convention.h"
#include "support/fakes.h"

namespace kt_exporter_test {

// A publisher of the metrics it is given; Write commits one sample of each
// metric named, in one group cycle when they share a group. Thread-safe.
class ConventionPublisher : public MetricsFramework::IPublisher {
 public:
  explicit ConventionPublisher(std::vector<MetricsFramework::Metric::Description> metrics);
  ~ConventionPublisher() override;
  MetricsFramework::IBoundMetric* BindMetric(unsigned long metric, MetricsFramework::Path*,
                                             MetricsFramework::IReadWriteBuffer*,
                                             MetricsFramework::IBoundMetric**) override;
  void UnbindMetric(unsigned long, MetricsFramework::IBoundMetric* bound) override;
  void OnLoad() override;
  void OnUnload() override;
  // Commits `bytes` as the next sample of metric `index`; false when unbound.
  bool Write(size_t index, const std::string& bytes);
  std::vector<unsigned long> Handles() const { return m_handles; }

 private:
  std::vector<MetricsFramework::Metric::Description> m_metrics;
  std::vector<unsigned long> m_handles;
  class Bound;
  std::mutex m_mutex;  // guards m_bound and every bound metric's buffer
  std::vector<std::unique_ptr<Bound>> m_bound;
};

// A description by the value convention.
MetricsFramework::Metric::Description Described(const std::string& uri, const std::string& help,
                                                const std::string& unit, unsigned char encoding = 0,
                                                unsigned char type = 0,
                                                unsigned int group = 0xFFFFFFFF);
std::string DoubleBytes(double value);

struct Response {
  int status = 0;  // 0: no answer (connection refused or closed)
  std::string headers;
  std::string body;
};

// Sends `request` as it is over a fresh connection to 127.0.0.1:`port` and
// reads until the server closes it or `timeoutMs` passes.
Response Send(int port, const std::string& request, int timeoutMs = 5000);
// A GET of `path` through Send.
Response Get(int port, const std::string& path, const std::string& extraHeaders = "",
             int timeoutMs = 5000);

class ExporterHost {
 public:
  // Loads the library and the exporter, sets the exporter's `settings`
  // (address 127.0.0.1:0 unless given), adds `publisher` and then the
  // exporter, and subscribes it to every metric of the publisher.
  void Start(ConventionPublisher* publisher, std::map<std::string, std::string> settings = {});
  // Removes the exporter from the manager (it stops serving); Stop deletes it.
  void RemoveExporter();
  void Stop();
  ~ExporterHost() { Stop(); }
  int Port() const { return m_port; }

  MetricsFramework::IClientManager* client = nullptr;

 private:
  void* m_library = nullptr;
  void* m_module = nullptr;
  MetricsFramework::IExtensionManager* m_manager = nullptr;
  MetricsFramework::IExtension* m_exporter = nullptr;
  bool m_removed = false;
  ConventionPublisher* m_publisher = nullptr;
  MetricsFramework::testing_fakes::HostLoader m_loader;
  int m_port = 0;
};

// The path of program `name`; "" when it is not installed.
std::string FindProgram(const std::string& name);
// Sets `var` to the path of `name`, or fails the test naming the Debian
// package to install (skips it instead when KT_TESTS_ALLOW_MISSING_PROGRAMS is
// set, for developers without the program).
#define KT_REQUIRE_PROGRAM(var, name, package)                                              \
  const std::string var = kt_exporter_test::FindProgram(name);                              \
  if (var.empty()) {                                                                        \
    if (std::getenv("KT_TESTS_ALLOW_MISSING_PROGRAMS") != nullptr) GTEST_SKIP() << name;    \
    FAIL() << name << " is missing: install the Debian package " << package                 \
           << " (or set KT_TESTS_ALLOW_MISSING_PROGRAMS=1 to skip this test)";              \
  }
// Where a test keeps files for people to look at (screenshots): the build's
// test output directory.
std::string OutputDir();

// A child process with its output in `log`, and each descriptor `first` of
// `fds` as its descriptor `second`; killed (and waited for) by the destructor.
class Child {
 public:
  Child(const std::vector<std::string>& argv, const std::string& log,
        const std::vector<std::pair<int, int>>& fds = {});
  ~Child();
  pid_t pid = -1;
};
// Runs argv to its end (at most `timeoutSeconds`, then killed) with `input` on
// its standard input; returns its exit status and its output in *output.
int RunProgram(const std::vector<std::string>& argv, const std::string& input, std::string* output,
        int timeoutSeconds = 60);
// The TCP ports process `pid` listens on, read from /proc.
std::vector<int> ListeningPorts(pid_t pid);

}  // namespace kt_exporter_test

#endif  // KT_TESTS_EXPORTER_EXPORTER_HOST_H_
