// What the network tests and benchmarks meet the transport with: libzmq
// sockets and frames built by hand from docs/net_frames.md, nothing of the
// project's, and processes that serve their registry.
#ifndef KT_TESTS_NET_HOST_NET_KIT_H_
#define KT_TESTS_NET_HOST_NET_KIT_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace kt_net_test {

// A directory removed, with what it holds, when its owner goes.
class TempDir {
 public:
  TempDir() { m_path.resize(mkdtemp(m_path.data()) != nullptr ? m_path.size() : 0); }
  ~TempDir() { std::error_code ignored; std::filesystem::remove_all(m_path, ignored); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path = (std::filesystem::temp_directory_path() / "kt-net-XXXXXX").string();
};

// A socket of its own context, linger 0, closed with its owner.
class Socket {
 public:
  explicit Socket(int type) : m_socket(zmq_socket(m_context, type)) {
    const int linger = 0;
    zmq_setsockopt(m_socket, ZMQ_LINGER, &linger, sizeof linger);
  }
  ~Socket() {
    zmq_close(m_socket);
    zmq_ctx_term(m_context);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  void* Get() const { return m_socket; }

  // The endpoint bound, with the port the system chose; "" on failure.
  std::string Bind(const std::string& endpoint) {
    char bound[256];
    size_t size = sizeof bound;
    const bool ok = zmq_bind(m_socket, endpoint.c_str()) == 0;
    return ok && zmq_getsockopt(m_socket, ZMQ_LAST_ENDPOINT, bound, &size) == 0 ? bound : "";
  }
  bool Connect(const std::string& endpoint) { return zmq_connect(m_socket, endpoint.c_str()) == 0; }
  bool Send(const std::vector<std::string>& parts) {
    bool sent = true;
    for (size_t i = 0; sent && i < parts.size(); ++i) {
      sent = zmq_send(m_socket, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0) >= 0;
    }
    return sent;
  }
  // The parts of the next message, none when nothing arrives within `ms`.
  std::vector<std::string> Receive(int ms) {
    std::vector<std::string> parts;
    zmq_pollitem_t item{m_socket, 0, ZMQ_POLLIN, 0};
    for (int more = zmq_poll(&item, 1, ms) > 0; more;) {
      zmq_msg_t msg;
      zmq_msg_init(&msg);
      if (zmq_msg_recv(&msg, m_socket, 0) < 0) break;
      parts.emplace_back(static_cast<const char*>(zmq_msg_data(&msg)), zmq_msg_size(&msg));
      more = zmq_msg_more(&msg);
      zmq_msg_close(&msg);
    }
    return parts;
  }

 private:
  void* m_context = zmq_ctx_new();
  void* m_socket;
};

constexpr uint64_t kCommand = 0x00ABBAFABBAABBAFull;
constexpr uint8_t kHello = 1, kWelcome = 2, kRequest = 3, kReply = 4, kHeartbeat = 5;

template <typename T>
std::string Bytes(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}
template <typename T>
T Get(const std::string& in, size_t at) {
  T value{};
  if (at + sizeof value <= in.size()) std::memcpy(&value, in.data() + at, sizeof value);
  return value;
}

inline std::string Frame(uint8_t type, const std::string& body, uint64_t correlation = 0,
                         uint32_t remaining = 0, uint8_t version = 1, uint32_t magic = 0x464E544Bu) {
  return Bytes(magic) + Bytes(version) + Bytes(type) + Bytes(uint16_t{0}) + Bytes(correlation) +
         Bytes(remaining) + Bytes(static_cast<uint32_t>(body.size())) + body;
}

// A request for the command method; its record is the op, the words, `tail`.
inline std::string Request(uint64_t correlation, uint32_t op, const std::vector<uint64_t>& words = {},
                           const std::string& tail = "") {
  std::string record = Bytes(op);
  for (uint64_t word : words) record += Bytes(word);
  record += tail;
  return Frame(kRequest, Bytes(kCommand) + Bytes(static_cast<uint32_t>(record.size())) + record,
               correlation, 2000);
}

// Says hello (link protocol 1, no name) as registry `guid`; true when the
// welcome comes within `ms`.
inline bool Handshake(Socket& peer, uint32_t guid, int ms = 5000) {
  const std::string hello = Bytes(guid) + Bytes(1u) + Bytes(uint64_t{0}) + Bytes(uint16_t{0});
  if (!peer.Send({Frame(kHello, hello)})) return false;
  for (int waited = 0; waited < ms; waited += 100) {
    const std::vector<std::string> got = peer.Receive(100);
    if (got.size() == 1 && got[0].size() >= 24 && got[0][5] == kWelcome) return true;
  }
  return false;
}

// A process that serves its registry (`kt-host serve`, or the link tests'
// peers), started with fork and exec, its standard output and error read
// through a pipe. Start returns once it printed "serving registry GUID 0x";
// Stop sends SIGTERM and reads the rest. It is killed when its owner goes and,
// by the kernel, when the test process dies.
class ServedHost {
 public:
  ServedHost() = default;
  ~ServedHost() { Kill(); }
  ServedHost(const ServedHost&) = delete;
  ServedHost& operator=(const ServedHost&) = delete;

  // Runs `path` with `args`; false when it does not say it serves within 20 s.
  bool Start(const char* path, std::vector<std::string> args) {
    std::vector<char*> argv{const_cast<char*>(path)};
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    if ((m_pid = fork()) == 0) {  // only async-signal-safe calls until exec
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(out[1], STDOUT_FILENO);
      dup2(out[1], STDERR_FILENO);
      execv(path, argv.data());
      _exit(127);
    }
    close(out[1]);
    m_out = out[0];
    return ReadUntil("serving registry GUID 0x");
  }
  // Its exit status after SIGTERM, -1 unless it exited.
  int Stop() {
    int status = 0;
    if (m_pid <= 0 || kill(m_pid, SIGTERM) != 0) return -1;
    if (!ReadUntil(nullptr)) kill(m_pid, SIGKILL);  // hung: it fails
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void Kill() {
    if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    if (m_out >= 0) close(m_out);
    m_pid = m_out = -1;
  }
  // The first listening endpoint it printed, "" when none.
  std::string Endpoint() const {
    const size_t at = m_output.find("listening on ");
    return at == std::string::npos ? "" : m_output.substr(at + 13, m_output.find('\n', at) - at - 13);
  }
  unsigned int Guid() const {
    const size_t at = m_output.find("serving registry GUID 0x");
    return at == std::string::npos ? 0 : std::stoul(m_output.substr(at + 24, 8), nullptr, 16);
  }
  const std::string& Output() const { return m_output; }

 private:
  // Reads until `text` came, or with null to the end; false when the output
  // ended first or 20 s passed. The hosts print each line in one write.
  bool ReadUntil(const char* text) {
    pollfd item{m_out, POLLIN, 0};
    for (int waited = 0; waited < 20000; waited += 50) {
      if (text != nullptr && m_output.find(text) != std::string::npos) return true;
      char chunk[4096];
      const ssize_t got = poll(&item, 1, 50) > 0 ? read(m_out, chunk, sizeof chunk) : -2;
      if (got == 0 || got == -1) return text == nullptr;
      if (got > 0) m_output.append(chunk, static_cast<size_t>(got));
    }
    return false;
  }

  pid_t m_pid = -1;
  int m_out = -1;
  std::string m_output;
};

}  // namespace kt_net_test

#endif  // KT_TESTS_NET_HOST_NET_KIT_H_
