// PeerState: the payload of a node under "peers", standing for a registry in
// another process that remote access reaches through a conduit.
//
// The state owns its peer object and releases it, once, when the state is
// destroyed (that is, when its node is destroyed or given another payload).
// Nothing in the library constructs a PeerState yet; remote access will, when
// it mounts a peer. The peer is set at construction and only read afterwards.
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

class PeerState : public PathData {
 public:
  // Becomes `path`'s payload as a peer mount (resource type all ones) and
  // takes ownership of `peer`, which may be null.
  PeerState(IPeer* peer, Path* path);
  // Releases the peer when there is one.
  ~PeerState() override;

  IPeer* GetPeer() const { return m_peer; }

 private:
  IPeer* m_peer;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_PEER_STATE_H_
