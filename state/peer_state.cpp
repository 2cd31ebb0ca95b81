#include "state/peer_state.h"

namespace MetricsFramework {

PeerState::PeerState(IPeer* peer, Path* path) : PathData(path), m_peer(peer) {
  m_type = RESOURCE_TYPE_PEER;
}

PeerState::~PeerState() {
  if (m_peer != nullptr) m_peer->Release();
}

PeerCall PeerState::EnterCall() const {
  IClientManager* clientManager = m_peer != nullptr ? m_peer->GetClientManager() : nullptr;
  if (clientManager == nullptr) return PeerCall();
  return PeerCall(clientManager, dynamic_cast<IPeerCalls*>(m_peer));
}

PeerCall::PeerCall(IClientManager* clientManager, IPeerCalls* calls)
    : m_clientManager(clientManager), m_calls(calls) {
  if (m_calls != nullptr) m_calls->EnterCall();
}

PeerCall::PeerCall(PeerCall&& other) noexcept
    : m_clientManager(other.m_clientManager), m_calls(other.m_calls) {
  other.m_clientManager = nullptr;
  other.m_calls = nullptr;
}

PeerCall::~PeerCall() {
  if (m_calls != nullptr) m_calls->LeaveCall();
}

}  // namespace MetricsFramework
