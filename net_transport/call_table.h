// CallTable: the calls a process has sent over its links and not yet seen
// answered, keyed by correlation id.
//
// A caller opens a call (Open), has its request sent, and waits (Wait) until
// the reply is delivered (Complete), its link fails (FailLink, FailAll) or its
// deadline passes; a call that has returned is forgotten, so a reply that
// arrives later finds nothing and Complete says so. Each call is answered at
// most once. Thread-safe: callers wait on their own threads while the I/O
// thread completes calls.
#ifndef KT_NET_TRANSPORT_CALL_TABLE_H_
#define KT_NET_TRANSPORT_CALL_TABLE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kt/status.h"

namespace kt_net {

using Clock = std::chrono::steady_clock;

struct CallResult {
  bool answered = false;  // the peer's reply: false when the call failed on this side
  MetricsFramework::KT_STATUS status = MetricsFramework::KT_STATUS_NOT_AVAILABLE;
  std::vector<std::string> records;
};

class CallTable {
 public:
  CallTable() = default;
  CallTable(const CallTable&) = delete;
  CallTable& operator=(const CallTable&) = delete;

  // Opens a call on the link `link`; returns its correlation id (never 0).
  uint64_t Open(uint64_t link);
  // Waits for the call `id` until `deadline`. Its result when answered; a
  // status of KT_STATUS_NOT_AVAILABLE and no records when the deadline passed
  // or the link failed. Forgets the call either way.
  CallResult Wait(uint64_t id, Clock::time_point deadline);
  // Delivers the answer of `id`; false when no call waits for it (answered,
  // failed or timed out already).
  bool Complete(uint64_t id, CallResult result);
  // Fails every open call of `link`, or of every link.
  void FailLink(uint64_t link);
  void FailAll();

 private:
  struct Call {
    uint64_t link;
    bool done = false;
    CallResult result;
    std::condition_variable answered;
  };
  void FailWhere(bool every, uint64_t link);

  std::mutex m_mutex;
  uint64_t m_next = 0;
  std::map<uint64_t, std::unique_ptr<Call>> m_calls;
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_CALL_TABLE_H_
