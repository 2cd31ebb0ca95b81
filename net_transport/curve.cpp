#include "net_transport/curve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>
#include <vector>

namespace kt_net {

using namespace MetricsFramework;

namespace {

constexpr const char* kZapEndpoint = "inproc://zeromq.zap.01";
constexpr const char* kZapDomain = "kt";
// Key files are a line or two; an allow-list a few thousand keys at most.
constexpr std::streamoff kMaxKeyFileSize = 1 << 20;

bool Fail(std::string* error, const std::string& message) {
  *error = message;
  return false;
}

std::string Trimmed(const std::string& line) {
  const char* const space = " \t\r\n";
  const size_t first = line.find_first_not_of(space);
  if (first == std::string::npos) return "";
  return line.substr(first, line.find_last_not_of(space) - first + 1);
}

bool IsKey(const std::string& text) {
  uint8_t bytes[32];
  return text.size() == kCurveKeyLength && zmq_z85_decode(bytes, text.c_str()) != nullptr;
}

// The key lines of the file at `path`, comments and blank lines left out.
bool KeyLines(const std::string& path, std::vector<std::string>* lines, std::string* error) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return Fail(error, "cannot read key file " + path + ": " + std::strerror(errno));
  if (in.tellg() > kMaxKeyFileSize) return Fail(error, "key file " + path + " is too large");
  in.seekg(0);
  for (std::string line; std::getline(in, line);) {
    line = Trimmed(line);
    if (line.empty() || line[0] == '#') continue;
    if (!IsKey(line)) {
      return Fail(error, "key file " + path + " holds a line that is not a 40-character Z85 key");
    }
    lines->push_back(line);
  }
  return true;
}

bool WriteNew(const std::string& path, mode_t mode, const std::string& text, std::string* error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return Fail(error, "cannot create " + path + ": " + std::strerror(errno));
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const bool closed = close(fd) == 0;
  if (written && closed) return true;
  unlink(path.c_str());
  return Fail(error, "cannot write " + path);
}

bool SetOption(void* socket, int option, const void* value, size_t size, const char* name,
               std::string* error) {
  if (zmq_setsockopt(socket, option, value, size) == 0) return true;
  return Fail(error, std::string("libzmq refused ") + name + ": " + zmq_strerror(zmq_errno()));
}

bool SetKey(void* socket, int option, const std::string& key, const char* name,
            std::string* error) {
  return SetOption(socket, option, key.c_str(), key.size() + 1, name, error);
}

// One frame of a multipart message; false when the message has no more parts.
bool ReceiveFrame(void* socket, std::string* frame, bool* more) {
  zmq_msg_t msg;
  zmq_msg_init(&msg);
  if (zmq_msg_recv(&msg, socket, 0) < 0) {
    zmq_msg_close(&msg);
    return false;
  }
  frame->assign(static_cast<const char*>(zmq_msg_data(&msg)), zmq_msg_size(&msg));
  *more = zmq_msg_more(&msg) != 0;
  zmq_msg_close(&msg);
  return true;
}

}  // namespace

bool ReadKeyFile(const std::string& path, std::string* key, std::string* error) {
  std::vector<std::string> lines;
  if (!KeyLines(path, &lines, error)) return false;
  if (lines.empty()) return Fail(error, "key file " + path + " holds no key");
  *key = lines.front();
  return true;
}

bool ReadAllowList(const std::string& path, std::set<std::string>* keys, std::string* error) {
  std::vector<std::string> lines;
  if (!KeyLines(path, &lines, error)) return false;
  keys->insert(lines.begin(), lines.end());
  return true;
}

bool WriteKeyPair(const std::string& dir, const std::string& name, std::string* publicPath,
                  std::string* secretPath, std::string* error) {
  char publicKey[kCurveKeyLength + 1];
  char secretKey[kCurveKeyLength + 1];
  if (zmq_curve_keypair(publicKey, secretKey) != 0) {
    return Fail(error, std::string("cannot make a key pair: ") + zmq_strerror(zmq_errno()));
  }
  const std::string base = dir + "/" + name;
  const std::string pub = base + ".public";
  const std::string sec = base + ".secret";
  if (access(pub.c_str(), F_OK) == 0) return Fail(error, pub + " exists; not overwritten");
  if (!WriteNew(sec, 0600, "# CURVE secret key: keep it to this host\n" +
                               std::string(secretKey) + "\n", error)) {
    return false;
  }
  if (!WriteNew(pub, 0644, "# CURVE public key: pin it, or add it to an allow-list\n" +
                               std::string(publicKey) + "\n", error)) {
    unlink(sec.c_str());
    return false;
  }
  *publicPath = pub;
  *secretPath = sec;
  return true;
}

bool CurveConfig::IsCurveKey(const char* key) {
  if (key == nullptr) return false;
  for (const char* known : {"curve-secret-key", "curve-public-key", "curve-server-key",
                            "curve-allow"}) {
    if (std::strcmp(key, known) == 0) return true;
  }
  return false;
}

KT_STATUS CurveConfig::Set(const char* key, const char* value, std::string* error) {
  if (!IsCurveKey(key)) {
    *error = std::string("unknown key ") + (key ? key : "(null)");
    return KT_STATUS_DOES_NOT_EXIST;
  }
  if (value == nullptr || *value == '\0') {
    *error = std::string(key) + " needs a file name";
    return KT_STATUS_INVALID_ARGUMENT;
  }
  const std::string name = key;
  if (name == "curve-allow") {
    std::set<std::string> allowed = m_allowed;
    if (!ReadAllowList(value, &allowed, error)) return KT_STATUS_INVALID_ARGUMENT;
    m_allowed.swap(allowed);
    m_allowGiven = true;
    return KT_STATUS_SUCCESS;
  }
  std::string read;
  if (!ReadKeyFile(value, &read, error)) return KT_STATUS_INVALID_ARGUMENT;
  if (name == "curve-server-key") {
    m_serverKey = read;
    return KT_STATUS_SUCCESS;
  }
  const std::string secret = name == "curve-secret-key" ? read : m_secretKey;
  std::string derived;
  if (!secret.empty()) {
    char made[kCurveKeyLength + 1];
    if (zmq_curve_public(made, secret.c_str()) != 0) {
      *error = std::string("cannot make the public key of ") + value;
      return KT_STATUS_INVALID_ARGUMENT;
    }
    derived = made;
  }
  const std::string given = name == "curve-public-key" ? read : m_publicKey;
  if (!derived.empty() && !given.empty() && given != derived) {
    *error = std::string(value) + ": the public key does not belong to the secret key";
    return KT_STATUS_INVALID_ARGUMENT;
  }
  m_secretKey = secret;
  m_publicKey = derived.empty() ? given : derived;
  return KT_STATUS_SUCCESS;
}

bool CurveConfig::Check(bool listening, std::string* error) const {
  if (Dialling() && m_secretKey.empty()) {
    return Fail(error, "curve-server-key needs curve-secret-key, this host's own key");
  }
  if (m_allowGiven && m_secretKey.empty()) {
    return Fail(error, "curve-allow needs curve-secret-key, the listener's own key");
  }
  if (listening && Serving() && !m_allowGiven) {
    return Fail(error, "a listener with curve-secret-key needs curve-allow, the client keys "
                       "it accepts");
  }
  return true;
}

bool CurveConfig::ApplyServer(void* socket, std::string* error) const {
  const int on = 1;
  return SetOption(socket, ZMQ_CURVE_SERVER, &on, sizeof on, "ZMQ_CURVE_SERVER", error) &&
         SetKey(socket, ZMQ_CURVE_SECRETKEY, m_secretKey, "the secret key", error) &&
         SetOption(socket, ZMQ_ZAP_DOMAIN, kZapDomain, std::strlen(kZapDomain),
                   "ZMQ_ZAP_DOMAIN", error);
}

bool CurveConfig::ApplyClient(void* socket, std::string* error) const {
  return SetKey(socket, ZMQ_CURVE_SERVERKEY, m_serverKey, "the server key", error) &&
         SetKey(socket, ZMQ_CURVE_PUBLICKEY, m_publicKey, "the public key", error) &&
         SetKey(socket, ZMQ_CURVE_SECRETKEY, m_secretKey, "the secret key", error);
}

ZapHandler::ZapHandler(LogFunction log) : m_log(std::move(log)) {}

ZapHandler::~ZapHandler() { Stop(); }

bool ZapHandler::Start(void* context, const std::set<std::string>& allowed, std::string* error) {
  if (m_thread.joinable()) return Fail(error, "the ZAP handler runs already");
  const int linger = 0;
  void* requests = zmq_socket(context, ZMQ_REP);
  if (requests == nullptr || zmq_setsockopt(requests, ZMQ_LINGER, &linger, sizeof linger) != 0 ||
      zmq_bind(requests, kZapEndpoint) != 0) {
    const std::string reason = zmq_strerror(zmq_errno());
    if (requests != nullptr) zmq_close(requests);
    return Fail(error, std::string("cannot bind ") + kZapEndpoint + ": " + reason);
  }
  char endpoint[64];
  std::snprintf(endpoint, sizeof endpoint, "inproc://kt-zap-stop-%p", static_cast<void*>(this));
  void* stop = zmq_socket(context, ZMQ_PAIR);
  m_stopSender = zmq_socket(context, ZMQ_PAIR);
  zmq_setsockopt(stop, ZMQ_LINGER, &linger, sizeof linger);
  zmq_setsockopt(m_stopSender, ZMQ_LINGER, &linger, sizeof linger);
  zmq_bind(stop, endpoint);
  zmq_connect(m_stopSender, endpoint);
  m_allowed = allowed;
  // The sockets move to the new thread; starting a thread is a full barrier.
  m_thread = std::thread([this, requests, stop] { Serve(requests, stop); });
  return true;
}

void ZapHandler::Stop() {
  if (!m_thread.joinable()) return;
  zmq_send(m_stopSender, "", 0, 0);
  m_thread.join();
  zmq_close(m_stopSender);
  m_stopSender = nullptr;
}

void ZapHandler::Serve(void* requests, void* stop) {
  zmq_pollitem_t items[] = {{requests, 0, ZMQ_POLLIN, 0}, {stop, 0, ZMQ_POLLIN, 0}};
  for (;;) {
    if (zmq_poll(items, 2, -1) < 0 && zmq_errno() != EINTR) break;
    if (items[1].revents & ZMQ_POLLIN) break;
    if (items[0].revents & ZMQ_POLLIN) Answer(requests);
  }
  zmq_close(requests);
  zmq_close(stop);
}

// One ZAP request: version, request id, domain, address, routing id,
// mechanism, then the mechanism's credentials (CURVE: the client's 32-byte
// public key). The reply is version, request id, status code, status text,
// user id and empty metadata.
void ZapHandler::Answer(void* requests) {
  std::vector<std::string> frames;
  std::string frame;
  bool more = true;
  while (more && ReceiveFrame(requests, &frame, &more)) frames.push_back(frame);
  std::string key;
  if (frames.size() == 7 && frames[5] == "CURVE" && frames[6].size() == 32) {
    char text[kCurveKeyLength + 1];
    zmq_z85_encode(text, reinterpret_cast<const uint8_t*>(frames[6].data()), 32);
    key = text;
  }
  const bool accept = !key.empty() && m_allowed.count(key) != 0;
  (accept ? m_accepted : m_refused).fetch_add(1, std::memory_order_relaxed);
  if (!accept && m_loggedRefusals.insert(key).second && m_log) {
    const std::string address = frames.size() > 3 ? frames[3] : "?";
    m_log(key.empty() ? "refused a connection from " + address + " that offered no CURVE key"
                      : "refused CURVE key " + key + " from " + address +
                            ": not in the allow-list (logged once per key)");
  }
  const std::string id = frames.size() > 1 ? frames[1] : "";
  const std::string reply[] = {"1.0", id, accept ? "200" : "400",
                               accept ? "OK" : "key not allowed", accept ? key : "", ""};
  for (size_t i = 0; i < 6; ++i) {
    zmq_send(requests, reply[i].data(), reply[i].size(), i < 5 ? ZMQ_SNDMORE : 0);
  }
}

}  // namespace kt_net
