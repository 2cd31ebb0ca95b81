#include "state/peer_state.h"

namespace MetricsFramework {

PeerState::PeerState(IPeer* peer, Path* path) : PathData(path), m_peer(peer) {
  m_type = RESOURCE_TYPE_PEER;
}

PeerState::~PeerState() {
  if (m_peer != nullptr) m_peer->Release();
}

}  // namespace MetricsFramework
