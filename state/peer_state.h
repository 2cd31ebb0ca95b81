// PeerState: the payload of a node under "peers", standing for a registry in
// another process that remote access reaches through a conduit.
//
// The state owns its peer object and releases it, once, when the state is
// destroyed (that is, when its node is destroyed or given another payload).
// Remote access constructs one when a transport mounts a peer
// (kt/peer_mount.h). The peer is set at construction and only read afterwards.
//
// A call routed to a peer uses the peer's client manager after the lookup
// that found it. A peer that also implements IPeerCalls is entered by
// EnterCall, which the router runs while it holds the lock of the node's
// parent: the node cannot be detached meanwhile, so a released peer is freed
// only after every call that found it has left.
#ifndef KT_STATE_PEER_STATE_H_
#define KT_STATE_PEER_STATE_H_

#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class IClientManager;

// The far side of a peer mount, as a PeerState holds it. The entry order is
// shared with the modules that make peers: never insert, remove or reorder;
// the destructor is declared first so that it takes the first two entries.
class IPeer {
 protected:
  // Entries 0, 1. Protected: a holder releases a peer, never deletes it.
  virtual ~IPeer() {}

 public:
  // Entry 2: hands the object back to whoever made it; the caller must not
  // use it afterwards.
  virtual void Release() = 0;
  // Entry 3: the client manager through which the peer's registry is reached;
  // owned by the peer.
  virtual IClientManager* GetClientManager() = 0;
};

// The calls a peer's client manager is serving. A peer that implements this
// beside IPeer keeps itself alive after its Release while calls are inside:
// it is freed by whichever of Release and the last LeaveCall comes last.
class IPeerCalls {
 public:
  virtual void EnterCall() = 0;
  virtual void LeaveCall() = 0;

 protected:
  ~IPeerCalls() = default;  // not deleted through this interface
};

// One call's hold on a peer's client manager: entered when made, left when
// destroyed. Empty (false) when there is no peer to call.
class PeerCall {
 public:
  PeerCall() = default;
  PeerCall(IClientManager* clientManager, IPeerCalls* calls);
  PeerCall(PeerCall&& other) noexcept;
  PeerCall& operator=(PeerCall&&) = delete;
  PeerCall(const PeerCall&) = delete;
  PeerCall& operator=(const PeerCall&) = delete;
  ~PeerCall();

  explicit operator bool() const { return m_clientManager != nullptr; }
  IClientManager* operator->() const { return m_clientManager; }
  IClientManager* Get() const { return m_clientManager; }

 private:
  IClientManager* m_clientManager = nullptr;
  IPeerCalls* m_calls = nullptr;
};

class PeerState : public PathData {
 public:
  // Becomes `path`'s payload as a peer mount (resource type all ones) and
  // takes ownership of `peer`, which may be null.
  PeerState(IPeer* peer, Path* path);
  // Releases the peer when there is one.
  ~PeerState() override;

  IPeer* GetPeer() const { return m_peer; }
  // The peer's client manager, entered for one call when the peer counts its
  // calls. The caller holds the lock of this state's node's parent, so that
  // the node is not destroyed meanwhile. Empty without a client manager.
  PeerCall EnterCall() const;

 private:
  IPeer* m_peer;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_PEER_STATE_H_
