#include "net_transport/call_table.h"

namespace kt_net {

uint64_t CallTable::Open(uint64_t link) {
  std::lock_guard<std::mutex> hold(m_mutex);
  const uint64_t id = ++m_next;
  auto call = std::make_unique<Call>();
  call->link = link;
  m_calls.emplace(id, std::move(call));
  return id;
}

CallResult CallTable::Wait(uint64_t id, Clock::time_point deadline) {
  std::unique_lock<std::mutex> hold(m_mutex);
  auto it = m_calls.find(id);
  if (it == m_calls.end()) return CallResult{};
  Call& call = *it->second;
  call.answered.wait_until(hold, deadline, [&call] { return call.done; });
  CallResult result = call.done ? std::move(call.result) : CallResult{};
  m_calls.erase(it);
  return result;
}

bool CallTable::Complete(uint64_t id, CallResult result) {
  std::lock_guard<std::mutex> hold(m_mutex);
  auto it = m_calls.find(id);
  if (it == m_calls.end() || it->second->done) return false;
  it->second->result = std::move(result);
  it->second->done = true;
  it->second->answered.notify_one();
  return true;
}

void CallTable::FailLink(uint64_t link) { FailWhere(false, link); }

void CallTable::FailAll() { FailWhere(true, 0); }

void CallTable::FailWhere(bool every, uint64_t link) {
  std::lock_guard<std::mutex> hold(m_mutex);
  for (auto& [id, call] : m_calls) {
    if (call->done || (!every && call->link != link)) continue;
    call->result = CallResult{};
    call->done = true;
    call->answered.notify_one();
  }
}

}  // namespace kt_net
