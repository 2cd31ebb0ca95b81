#include "exporter/exporter_host.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "exporter_config.h"
#include "kt/export_table.h"

namespace kt_exporter_test {

using namespace MetricsFramework;

class ConventionPublisher::Bound : public IBoundMetric {
 public:
  Bound(unsigned long metric, std::mutex& guard) : metric(metric), m_guard(guard) {}
  void AttachBuffer(unsigned long, IWriteBuffer* writer) override {
    std::lock_guard<std::mutex> hold(m_guard);
    buffer = writer;
  }
  void DetachBuffer(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    buffer = nullptr;
  }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return buffer != nullptr; }
  void Flush(unsigned long) override {}
  const unsigned long metric;
  IWriteBuffer* buffer = nullptr;  // guarded by the publisher's mutex

 private:
  std::mutex& m_guard;
};

ConventionPublisher::ConventionPublisher(std::vector<Metric::Description> metrics)
    : m_metrics(std::move(metrics)) {}
ConventionPublisher::~ConventionPublisher() = default;

IBoundMetric* ConventionPublisher::BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                                              IBoundMetric**) {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_bound.push_back(std::make_unique<Bound>(metric, m_mutex));
  return m_bound.back().get();
}

void ConventionPublisher::UnbindMetric(unsigned long, IBoundMetric* bound) {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_bound.erase(std::remove_if(m_bound.begin(), m_bound.end(),
                               [bound](const auto& b) { return b.get() == bound; }),
                m_bound.end());
}

void ConventionPublisher::OnLoad() {
  m_handles.resize(m_metrics.size());
  for (size_t i = 0; i < m_metrics.size(); ++i) {
    GetExtensionManager()->PublishMetric(this, m_metrics[i], &m_handles[i]);
  }
}

void ConventionPublisher::OnUnload() {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_bound.clear();
}

bool ConventionPublisher::Write(size_t index, const std::string& bytes) {
  std::lock_guard<std::mutex> hold(m_mutex);
  bool written = false;
  for (auto& bound : m_bound) {
    if (bound->metric != m_handles[index] || bound->buffer == nullptr) continue;
    void* block = bound->buffer->Reserve(bytes.size());
    std::memcpy(block, bytes.data(), bytes.size());
    bound->buffer->Commit(block);
    written = true;
  }
  return written;
}

Metric::Description Described(const std::string& uri, const std::string& help,
                              const std::string& unit, unsigned char encoding, unsigned char type,
                              unsigned int group) {
  Metric::Description desc;
  desc.uri = uri;
  desc.text1 = help;
  desc.text2 = unit;
  desc.byte1 = encoding;
  desc.byte2 = type;
  desc.word1 = 7;
  desc.word4 = group;
  return desc;
}

std::string DoubleBytes(double value) { return std::string(reinterpret_cast<char*>(&value), 8); }

Response Get(int port, const std::string& path, const std::string& extraHeaders, int timeoutMs) {
  return Send(port, "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" +
                        extraHeaders + "\r\n", timeoutMs);
}

Response Send(int port, const std::string& request, int timeoutMs) {
  Response response;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return response;
  }
  send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string all;
  char chunk[65536];
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd wait{fd, POLLIN, 0};
    if (poll(&wait, 1, 50) <= 0) continue;
    const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
    if (got <= 0) break;
    all.append(chunk, static_cast<size_t>(got));
  }
  close(fd);
  const size_t end = all.find("\r\n\r\n");
  if (all.compare(0, 5, "HTTP/") != 0 || end == std::string::npos) return response;
  response.status = std::atoi(all.c_str() + all.find(' ') + 1);
  response.headers = all.substr(0, end);
  response.body = all.substr(end + 4);
  return response;
}

void ExporterHost::Start(ConventionPublisher* publisher, std::map<std::string, std::string> settings) {
  m_library = dlopen(KT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  m_module = dlopen(KT_EXPORTER_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(m_library, nullptr) << dlerror();
  ASSERT_NE(m_module, nullptr) << dlerror();
  auto table = [](void* module) {
    return static_cast<const ExtensionExportRow*>(dlsym(module, "__extension_export_table__"));
  };
  m_manager = dynamic_cast<IExtensionManager*>(table(m_library)[0].factory());
  client = dynamic_cast<IClientManager*>(table(m_library)[1].factory());
  m_loader.manager = m_manager;
  auto configure = reinterpret_cast<KTExporterConfigureFunction>(dlsym(m_module, "KTExporterConfigure"));
  settings.emplace("address", "127.0.0.1:0");
  for (const auto& setting : settings) {
    ASSERT_EQ(configure(setting.first.c_str(), setting.second.c_str()), KT_STATUS_SUCCESS);
  }
  m_publisher = publisher;
  ASSERT_EQ(m_manager->Add(ExtensionBinaryDesc{}, "Publisher", publisher, &m_loader), KT_STATUS_SUCCESS);
  m_exporter = table(m_module)[0].factory();
  ASSERT_EQ(m_manager->Add(ExtensionBinaryDesc{}, "Exporter", m_exporter, &m_loader), KT_STATUS_SUCCESS);
  char where[128] = "";
  auto address = reinterpret_cast<KTExporterGetAddressFunction>(dlsym(m_module, "KTExporterGetAddress"));
  ASSERT_EQ(address(where, sizeof where), KT_STATUS_SUCCESS) << where;
  m_port = std::atoi(std::strchr(where, ':') + 1);
  const unsigned long consumer =
      static_cast<IKTExtensionBase*>(m_exporter->CastTo("IKTExtensionBase"))->GetHandle();
  for (unsigned long metric : publisher->Handles()) {
    ASSERT_EQ(client->SubscribeMetric(consumer, metric), KT_STATUS_SUCCESS);
  }
}

void ExporterHost::RemoveExporter() {
  if (m_exporter == nullptr || m_removed) return;
  EXPECT_EQ(m_manager->Remove(ExtensionBinaryDesc{}, "Exporter", m_exporter, &m_loader), KT_STATUS_SUCCESS);
  m_removed = true;
}

void ExporterHost::Stop() {
  RemoveExporter();
  delete m_exporter;
  m_exporter = nullptr;
  if (m_publisher != nullptr) m_manager->Remove(ExtensionBinaryDesc{}, "Publisher", m_publisher, &m_loader);
  m_publisher = nullptr;
  delete client;
  delete m_manager;
  client = nullptr;
  m_manager = nullptr;
  if (m_module != nullptr) dlclose(m_module);
  if (m_library != nullptr) dlclose(m_library);
  m_module = m_library = nullptr;
}

std::string FindProgram(const std::string& name) {
  std::string output;
  if (RunProgram({"/bin/sh", "-c", "command -v " + name}, "", &output) != 0) return "";
  return output.substr(0, output.find('\n'));
}

std::string OutputDir() { return KT_TEST_OUTPUT_DIR; }

namespace {

pid_t Spawn(const std::vector<std::string>& argv, int in, int out,
            const std::vector<std::pair<int, int>>& fds = {}) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  dup2(in, 0);
  dup2(out, 1);
  dup2(out, 2);
  for (const auto& fd : fds) dup2(fd.first, fd.second);
  setpgid(0, 0);  // its own group, so that its children go with it
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execv(args[0], args.data());
  _exit(127);
}

}  // namespace

Child::Child(const std::vector<std::string>& argv, const std::string& log,
             const std::vector<std::pair<int, int>>& fds) {
  const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int in = open("/dev/null", O_RDONLY);
  pid = Spawn(argv, in, out, fds);
  close(in);
  close(out);
}

Child::~Child() {
  if (pid <= 0) return;
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

int RunProgram(const std::vector<std::string>& argv, const std::string& input, std::string* output,
        int timeoutSeconds) {
  char inName[] = "/tmp/kt_exporter_in_XXXXXX";
  char outName[] = "/tmp/kt_exporter_out_XXXXXX";
  const int in = mkstemp(inName);
  const int out = mkstemp(outName);
  if (write(in, input.data(), input.size()) != static_cast<ssize_t>(input.size())) return -1;
  lseek(in, 0, SEEK_SET);
  const pid_t pid = Spawn(argv, in, out);
  int status = -1;
  for (int waited = 0; waited < timeoutSeconds * 20; ++waited) {
    if (waitpid(pid, &status, WNOHANG) == pid) break;
    status = -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (status == -1) {
    kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  std::ifstream file(outName);
  std::stringstream text;
  text << file.rdbuf();
  *output = text.str();
  close(in);
  close(out);
  unlink(inName);
  unlink(outName);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<int> ListeningPorts(pid_t pid) {
  std::set<std::string> inodes;
  const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
  if (DIR* dir = opendir(fds.c_str())) {
    while (dirent* entry = readdir(dir)) {
      char target[64] = "";
      const std::string link = fds + "/" + entry->d_name;
      if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::strncmp(target, "socket:[", 8) == 0) {
        inodes.insert(std::string(target + 8, std::strlen(target) - 9));
      }
    }
    closedir(dir);
  }
  std::vector<int> ports;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream file(table);
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
      fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode;
      if (state == "0A" && inodes.count(inode) > 0) {
        ports.push_back(std::stoi(local.substr(local.find(':') + 1), nullptr, 16));
      }
    }
  }
  return ports;
}

}  // namespace kt_exporter_test
