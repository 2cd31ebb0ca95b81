// ServedHost: a `kt-host serve` process started for a test with fork and
// exec, listening on a loopback port the system chose. Start reads the
// endpoint and the registry GUID it prints; Stop sends SIGTERM and collects
// the rest of its output and its exit status. A host still running when its
// owner goes is killed and reaped.
#ifndef KT_TESTS_NET_HOST_SERVED_HOST_H_
#define KT_TESTS_NET_HOST_SERVED_HOST_H_

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kt_net_test {

class ServedHost {
 public:
  ServedHost() = default;
  ~ServedHost() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_out >= 0) close(m_out);
  }
  ServedHost(const ServedHost&) = delete;
  ServedHost& operator=(const ServedHost&) = delete;

  // Runs `kt-host` with `args` and waits, at most 10 s, for the line
  // "serving registry GUID"; false when it does not come.
  bool Start(const std::vector<std::string>& args) {
    int out[2];
    if (pipe(out) != 0) return false;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(out[1], STDERR_FILENO);
      close(out[0]);
      std::vector<char*> argv{const_cast<char*>(KT_HOST_PATH)};
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(KT_HOST_PATH, argv.data());
      _exit(127);
    }
    close(out[1]);
    m_out = out[0];
    return ReadUntil("serving registry GUID 0x", 10000) && Parse();
  }

  // Stops the host with SIGTERM and returns its exit status (-1 unless it
  // exited); the output is complete afterwards.
  int Stop() {
    if (m_pid <= 0) return -1;
    kill(m_pid, SIGTERM);
    ReadUntil("\x04", 10000);  // to the end of its output
    int raw = 0;
    waitpid(m_pid, &raw, 0);
    m_pid = -1;
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }

  const std::string& Endpoint() const { return m_endpoint; }
  unsigned int Guid() const { return m_guid; }
  const std::string& Output() const { return m_output; }

 private:
  // Reads until `text` is in the output, the output ends, or `ms` pass.
  bool ReadUntil(const std::string& text, int ms) {
    pollfd item{m_out, POLLIN, 0};
    for (int waited = 0; m_output.find(text) == std::string::npos && waited < ms; waited += 50) {
      if (poll(&item, 1, 50) <= 0) continue;
      char chunk[4096];
      const ssize_t got = read(m_out, chunk, sizeof chunk);
      if (got <= 0) return false;
      m_output.append(chunk, static_cast<size_t>(got));
    }
    return m_output.find(text) != std::string::npos;
  }
  bool Parse() {
    const size_t at = m_output.find("listening on ");
    if (at != std::string::npos) {
      m_endpoint = m_output.substr(at + 13, m_output.find('\n', at) - at - 13);
    }
    const size_t guid = m_output.find("serving registry GUID 0x");
    m_guid = static_cast<unsigned int>(std::stoul(m_output.substr(guid + 24, 8), nullptr, 16));
    return true;
  }

  pid_t m_pid = -1;
  int m_out = -1;
  std::string m_output;
  std::string m_endpoint;
  unsigned int m_guid = 0;
};

}  // namespace kt_net_test

#endif  // KT_TESTS_NET_HOST_SERVED_HOST_H_
