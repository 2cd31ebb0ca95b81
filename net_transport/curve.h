// CURVE security for the network transport's sockets: key files, the
// allow-list of client keys, the socket options of both ends, and the ZAP
// handler (ZeroMQ's authentication protocol) that enforces the allow-list.
//
// A listener given a secret key is a CURVE server: a connecting peer must
// prove a key pair whose public key is in the allow-list. libzmq asks the ZAP
// handler during the handshake, before any message of that peer reaches the
// socket, so a refused peer never reaches a decoder. A dialler given the
// server's public key pins it: a server that cannot prove the matching secret
// key fails the handshake, and the dialler proves its own key pair.
//
// Key files are text. Blank lines and lines starting with '#' are comments;
// a key file's first other line is its key in Z85 (40 characters). An
// allow-list holds any number of public keys, one a line, with the same
// comments, so public key files can be appended to one another to make one.
//
// Threads: CurveConfig is a value, used from one thread at a time. A
// ZapHandler serves on a thread of its own; Start and Stop are called from
// its owner's thread, Accepted and Refused from any.
#ifndef KT_NET_TRANSPORT_CURVE_H_
#define KT_NET_TRANSPORT_CURVE_H_

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "kt/status.h"

namespace kt_net {

// A key in Z85 text: 40 characters for its 32 bytes.
constexpr size_t kCurveKeyLength = 40;

// Reads the key of the key file at `path` into *key. On failure returns false,
// sets *error to a sentence naming the file and the fault (missing, no key
// line, not a 40-character Z85 key) and leaves *key as it was.
bool ReadKeyFile(const std::string& path, std::string* key, std::string* error);

// Reads every key of the allow-list at `path` into *keys (added to what it
// holds). False with *error set, and *keys as it was, when the file cannot be
// read or a line is not a key; an empty list is valid and allows no one.
bool ReadAllowList(const std::string& path, std::set<std::string>* keys, std::string* error);

// Makes a fresh key pair and writes `dir`/`name`.public and `dir`/`name`.secret,
// the secret file readable by its owner alone (mode 0600). Never overwrites:
// false with *error set when either file exists or cannot be written (and
// then neither is left behind). On success writes the two paths.
bool WriteKeyPair(const std::string& dir, const std::string& name, std::string* publicPath,
                  std::string* secretPath, std::string* error);

// The CURVE part of the transport's configuration: the keys read from the
// files that the configuration keys name.
//   "curve-secret-key" this process's secret key (makes a listener a CURVE
//                      server, and is a dialler's own key)
//   "curve-public-key" this process's public key; made from the secret key
//                      when not given, and checked against it when given
//   "curve-server-key" the public key a dialler expects of every listener
//   "curve-allow"      the allow-list of the client keys a listener accepts
class CurveConfig {
 public:
  // True for the four keys above.
  static bool IsCurveKey(const char* key);

  // Reads the file `value` names for configuration key `key`.
  // KT_STATUS_INVALID_ARGUMENT with *error set for a null or empty value, a
  // file that cannot be read, a key that is not one, or a public key that does
  // not match the secret key given; KT_STATUS_DOES_NOT_EXIST for a key that
  // is not one of the four. Nothing changes on failure.
  MetricsFramework::KT_STATUS Set(const char* key, const char* value, std::string* error);

  // Whether a listener is a CURVE server, and a dialler a CURVE client.
  bool Serving() const { return !m_secretKey.empty(); }
  bool Dialling() const { return !m_serverKey.empty(); }

  // Before the first listener or dialler starts: false with *error set when
  // the keys given do not make a whole (a server key without a secret key;
  // a secret key for listening without an allow-list, when `listening`).
  bool Check(bool listening, std::string* error) const;

  // Makes `socket` (a libzmq socket, before its bind) a CURVE server in the
  // ZAP domain of the handler. False with *error set when libzmq refuses an
  // option. Call only when Serving().
  bool ApplyServer(void* socket, std::string* error) const;
  // Makes `socket` (before its connect) a CURVE client that pins the server
  // key. False with *error set when libzmq refuses an option. Call only when
  // Dialling().
  bool ApplyClient(void* socket, std::string* error) const;

  const std::set<std::string>& Allowed() const { return m_allowed; }
  const std::string& PublicKey() const { return m_publicKey; }

 private:
  std::string m_secretKey;
  std::string m_publicKey;
  std::string m_serverKey;
  std::set<std::string> m_allowed;
  bool m_allowGiven = false;
};

// The ZAP handler of one libzmq context: answers every CURVE handshake of the
// context's servers, accepting the client keys of its allow-list and refusing
// every other key and every other mechanism. Each refused key is logged once.
//
//   ZapHandler zap(log);
//   if (!zap.Start(context, config.Allowed(), &error)) ...;  // before the bind
//   ...
//   zap.Stop();  // before the context is terminated
class ZapHandler {
 public:
  using LogFunction = std::function<void(const std::string&)>;

  explicit ZapHandler(LogFunction log);
  ~ZapHandler();  // stops
  ZapHandler(const ZapHandler&) = delete;
  ZapHandler& operator=(const ZapHandler&) = delete;

  // Binds "inproc://zeromq.zap.01" on `context` (a libzmq context) and serves
  // on a new thread; returns once the endpoint is bound, so that a server
  // socket bound afterwards is always checked. False with *error set when the
  // endpoint cannot be bound (another handler holds it) or the handler runs.
  bool Start(void* context, const std::set<std::string>& allowed, std::string* error);
  // Stops the thread and closes its sockets. Harmless when not started.
  void Stop();

  // Handshakes answered so far, by outcome.
  unsigned long Accepted() const { return m_accepted.load(std::memory_order_relaxed); }
  unsigned long Refused() const { return m_refused.load(std::memory_order_relaxed); }

 private:
  void Serve(void* requests, void* stop);
  void Answer(void* requests);

  LogFunction m_log;
  std::set<std::string> m_allowed;
  std::set<std::string> m_loggedRefusals;  // the serving thread's alone
  void* m_stopSender = nullptr;
  std::string m_stopEndpoint;
  std::thread m_thread;
  std::atomic<unsigned long> m_accepted{0};
  std::atomic<unsigned long> m_refused{0};
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_CURVE_H_
