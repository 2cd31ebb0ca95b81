// LinkConduit: the conduit extension filed in this registry for one link to a
// peer process. Its handle goes to the peer in the handshake, and a mount of
// the peer forwards its requests through it: Transact carries the request's
// oldest record over the link and commits the reply records into the caller's
// reply buffer.
//
// The transport owns every LinkConduit. After the link is gone and the
// conduit removed from the registry it keeps it until no call is inside
// Transact and nothing can find it any more (CallsInside counts the calls).
// Transact may be called from any thread, by several at once; the link's
// state is set by the I/O thread.
// Subscriptions are not carried yet: CreateBuffer refuses.
#ifndef KT_NET_TRANSPORT_LINK_CONDUIT_H_
#define KT_NET_TRANSPORT_LINK_CONDUIT_H_

#include <atomic>
#include <cstdint>
#include <string>

#include "kt/conduit.h"

namespace kt_net {

class LinkConduit;

// Carries one request over the link of `conduit` and waits for its reply.
class ILinkCaller {
 public:
  virtual MetricsFramework::KT_STATUS Call(LinkConduit& conduit, unsigned long method,
                                           const MetricsFramework::IReadBuffer* request,
                                           MetricsFramework::IWriteBuffer* reply) = 0;

 protected:
  ~ILinkCaller() = default;
};

class LinkConduit : public MetricsFramework::IConduit {
 public:
  LinkConduit(ILinkCaller* caller, uint64_t link, std::string name)
      : m_caller(caller), m_link(link), m_name(std::move(name)) {}

  void OnSubscribed(unsigned long) override {}
  void OnUnsubscribed(unsigned long) override {}
  // KT_STATUS_INVALID_OPERATION: no subscription crosses a link yet.
  MetricsFramework::KT_STATUS CreateBuffer(unsigned long,
                                           MetricsFramework::IReadWriteBuffer** out) override {
    if (out != nullptr) *out = nullptr;
    return MetricsFramework::KT_STATUS_INVALID_OPERATION;
  }
  void DestroyBuffer(MetricsFramework::IReadWriteBuffer*) override {}
  // The peer's dispatch status, with the reply records committed into
  // `reply` in order; KT_STATUS_NOT_AVAILABLE, with nothing written, when the
  // link is down or the deadline passes.
  MetricsFramework::KT_STATUS Transact(unsigned long method,
                                       const MetricsFramework::IReadBuffer* request,
                                       MetricsFramework::IWriteBuffer* reply) override {
    m_calls.fetch_add(1);
    const MetricsFramework::KT_STATUS status = m_caller->Call(*this, method, request, reply);
    // The last touch of this object: it may be freed once the count is 0.
    m_calls.fetch_sub(1);
    return status;
  }
  // The peer's link-conduit handle, from the handshake.
  unsigned long GetRemoteHandle() override { return m_remote.load(); }

  uint64_t Link() const { return m_link; }
  const std::string& Name() const { return m_name; }
  bool IsUp() const { return m_up.load(); }
  // The calls inside Transact now.
  int CallsInside() const { return m_calls.load(); }
  void SetUp(bool up) { m_up.store(up); }
  void SetRemote(uint64_t handle) { m_remote.store(handle); }

 private:
  ILinkCaller* const m_caller;
  const uint64_t m_link;
  const std::string m_name;
  std::atomic<bool> m_up{false};
  std::atomic<uint64_t> m_remote{0};
  std::atomic<int> m_calls{0};
};

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_LINK_CONDUIT_H_
