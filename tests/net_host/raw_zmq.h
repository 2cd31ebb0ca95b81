// The tests' own ZeroMQ client: plain libzmq sockets and nothing of the
// project, so that what a test sends is exactly the bytes it wrote, and the
// transport's frames built by hand from docs/net_frames.md. Also a temporary
// directory that removes itself. Shared by the tests and the benchmarks.
#ifndef KT_TESTS_NET_HOST_RAW_ZMQ_H_
#define KT_TESTS_NET_HOST_RAW_ZMQ_H_

#include <stdlib.h>
#include <zmq.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace kt_net_test {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kt-net-XXXXXX").string();
    m_path = mkdtemp(pattern.data()) ? pattern : "";
  }
  ~TempDir() {
    std::error_code ignored;
    if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

class Context {
 public:
  Context() : m_context(zmq_ctx_new()) {}
  ~Context() { zmq_ctx_term(m_context); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  void* Get() const { return m_context; }

 private:
  void* m_context;
};

// One socket with linger 0, closed with its owner.
class Socket {
 public:
  Socket(const Context& context, int type) : m_socket(zmq_socket(context.Get(), type)) {
    const int linger = 0;
    zmq_setsockopt(m_socket, ZMQ_LINGER, &linger, sizeof linger);
  }
  ~Socket() { zmq_close(m_socket); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  void* Get() const { return m_socket; }

  // Binds `endpoint` and returns the endpoint bound (the port the system
  // chose for "tcp://127.0.0.1:*"); "" on failure.
  std::string Bind(const std::string& endpoint) {
    if (zmq_bind(m_socket, endpoint.c_str()) != 0) return "";
    char bound[256];
    size_t size = sizeof bound;
    zmq_getsockopt(m_socket, ZMQ_LAST_ENDPOINT, bound, &size);
    return bound;
  }
  bool Connect(const std::string& endpoint) {
    return zmq_connect(m_socket, endpoint.c_str()) == 0;
  }
  bool Send(const std::vector<std::string>& frames) {
    for (size_t i = 0; i < frames.size(); ++i) {
      const int more = i + 1 < frames.size() ? ZMQ_SNDMORE : 0;
      if (zmq_send(m_socket, frames[i].data(), frames[i].size(), more) < 0) return false;
    }
    return true;
  }
  // The next whole message, or none when nothing arrives within `ms`.
  std::vector<std::string> Receive(int ms) {
    std::vector<std::string> frames;
    zmq_pollitem_t item{m_socket, 0, ZMQ_POLLIN, 0};
    if (zmq_poll(&item, 1, ms) <= 0) return frames;
    for (int more = 1; more;) {
      zmq_msg_t msg;
      zmq_msg_init(&msg);
      if (zmq_msg_recv(&msg, m_socket, 0) < 0) break;
      frames.emplace_back(static_cast<const char*>(zmq_msg_data(&msg)), zmq_msg_size(&msg));
      more = zmq_msg_more(&msg);
      zmq_msg_close(&msg);
    }
    return frames;
  }

 private:
  void* m_socket;
};

constexpr uint64_t kCommand = 0x00ABBAFABBAABBAFull;
constexpr uint8_t kHello = 1, kWelcome = 2, kRequest = 3, kReply = 4, kHeartbeat = 5;

template <typename T>
inline void Put(std::string& out, T value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}
template <typename T>
inline T Get(const std::string& in, size_t at) {
  T value{};
  if (at + sizeof value <= in.size()) std::memcpy(&value, in.data() + at, sizeof value);
  return value;
}

inline std::string Frame(uint8_t type, const std::string& body, uint64_t correlation = 0,
                         uint32_t remaining = 0, uint8_t version = 1, uint32_t magic = 0x464E544Bu) {
  std::string out;
  Put(out, magic);
  Put(out, version);
  Put(out, type);
  Put(out, uint16_t{0});
  Put(out, correlation);
  Put(out, remaining);
  Put(out, static_cast<uint32_t>(body.size()));
  return out + body;
}

inline std::string Hello(uint32_t guid, const std::string& name) {
  std::string body;
  Put(body, guid);
  Put(body, uint32_t{1});
  Put(body, uint64_t{0});
  Put(body, static_cast<uint16_t>(name.size()));
  return Frame(kHello, body + name);
}

inline std::string Request(uint64_t correlation, const std::string& record) {
  std::string body;
  Put(body, kCommand);
  Put(body, static_cast<uint32_t>(record.size()));
  return Frame(kRequest, body + record, correlation, 2000);
}

// A request record: the op, then the words given.
inline std::string Record(uint32_t op, const std::vector<uint64_t>& words = {},
                          const std::string& tail = "") {
  std::string out;
  Put(out, op);
  for (uint64_t word : words) Put(out, word);
  return out + tail;
}

// Says hello as registry `guid` on `peer` and waits, at most `ms`, for the
// welcome.
inline bool Handshake(Socket& peer, uint32_t guid, int ms = 5000) {
  if (!peer.Send({Hello(guid, "raw")})) return false;
  for (int waited = 0; waited < ms; waited += 100) {
    const std::vector<std::string> got = peer.Receive(100);
    if (got.size() == 1 && got[0].size() >= 24 && got[0][5] == kWelcome) return true;
  }
  return false;
}

}  // namespace kt_net_test

#endif  // KT_TESTS_NET_HOST_RAW_ZMQ_H_
