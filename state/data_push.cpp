#include "state/data_push.h"

#include <memory>

#include "foundation/diagnostics.h"
#include "state/consumer_state.h"

namespace MetricsFramework {

namespace {

// Gives back the oldest sample of `buffer`, which will not be delivered: left
// queued, the metric would lag one sample behind forever.
void ReleaseOldest(const IReadBuffer* buffer) {
  const void* data = nullptr;
  buffer->GetData(&data, nullptr);
  if (data != nullptr) buffer->MakeAvailable(data);
}

// A consumer that throws must not take the host down, nor keep the others
// from their sample: the call is dropped with one line.
template <typename Call>
void CallGuarded(Call call) {
  try {
    call();
  } catch (...) {
    LogUnder("RegistryState", "A consumer threw from its update; the sample is dropped for it.");
  }
}

// The slot of `metric` in the fast copy. Handles differ in their low bits
// (the node's folded address), which are mixed with the bits above them.
size_t SlotOf(unsigned long metric) { return static_cast<size_t>(metric ^ (metric >> 7)); }

}  // namespace

// The entries one push delivers, as parallel arrays shared by every consumer.
struct DataPush::Cycle {
  // Empties the arrays and keeps their room.
  void Clear() {
    handles.clear();
    tags.clear();
    data.clear();
    sizes.clear();
    buffers.clear();
  }

  std::vector<unsigned long> handles;
  std::vector<unsigned long> tags;
  std::vector<const void*> data;
  std::vector<unsigned long> sizes;
  std::vector<const IReadBuffer*> buffers;
};

DataPush::DataPush(Path* conduitNode)
    : m_conduitNode(conduitNode), m_tablesLock(true), m_spareCycle(nullptr) {}

DataPush::~DataPush() { delete m_spareCycle; }

DataPush::Recorded DataPush::RecordMetric(unsigned long metric, unsigned long tag,
                                          GroupKey group) {
  // One hold: a push never finds the metric half recorded.
  WriteGuard hold(m_tablesLock);
  MetricEntry& entry = m_metrics[metric];
  entry.tag = tag;
  entry.tagged = true;
  if (!entry.member) {  // an existing membership is kept
    entry.group = group;
    entry.member = true;
  }
  WriteFast(metric, &entry);
  Recorded recorded{group, false, false};
  recorded.toTemplate = m_groupTemplate[group.first][group.second].insert(metric).second;
  recorded.toExpected = m_groupExpected[group.first][group.second].insert(metric).second;
  return recorded;
}

void DataPush::WithdrawFromGroup(unsigned long metric, const Recorded& recorded) {
  if (!recorded.toTemplate && !recorded.toExpected) return;
  WriteGuard hold(m_tablesLock);
  const GroupKey& group = recorded.group;
  if (recorded.toTemplate) m_groupTemplate[group.first][group.second].erase(metric);
  if (recorded.toExpected) m_groupExpected[group.first][group.second].erase(metric);
}

void DataPush::ForgetMetric(unsigned long metric) {
  WriteGuard hold(m_tablesLock);
  m_pending.erase(metric);
  auto it = m_metrics.find(metric);
  if (it == m_metrics.end()) return;
  MetricEntry& entry = it->second;
  entry.pending = nullptr;
  if (entry.member && entry.group.second != kUngrouped) {
    const GroupKey group = entry.group;
    m_groupTemplate[group.first][group.second].erase(metric);
    m_groupExpected[group.first][group.second].erase(metric);
    // The metric's samples still waiting in the cycle go, handle and buffer
    // together: the buffer goes back to its pool, and the two vectors stay
    // parallel.
    std::vector<unsigned long>& handles = m_collectedHandles[group.first][group.second];
    std::vector<const IReadBuffer*>& buffers = m_collectedBuffers[group.first][group.second];
    size_t kept = 0;
    for (size_t i = 0; i < handles.size() && i < buffers.size(); ++i) {
      if (handles[i] == metric) continue;
      handles[kept] = handles[i];
      buffers[kept] = buffers[i];
      ++kept;
    }
    handles.resize(kept);
    buffers.resize(kept);
  }
  entry.tagged = false;
  entry.member = false;
  WriteFast(metric, nullptr);
  if (!entry.batched) EraseEntry(it);  // the batch mark outlives subscriptions
}

void DataPush::AddBatchMetric(unsigned long metric) {
  WriteGuard hold(m_tablesLock);
  MetricEntry& entry = m_metrics[metric];
  entry.batched = true;
  WriteFast(metric, &entry);
}

void DataPush::Clear() {
  WriteGuard hold(m_tablesLock);
  m_metrics.clear();
  m_groupTemplate.clear();
  m_groupExpected.clear();
  m_collectedHandles.clear();
  m_collectedBuffers.clear();
  m_pending.clear();
  for (EntrySlot& slot : m_entrySlots) slot = EntrySlot();
  for (FastEntry& slot : m_fast) {
    if (slot.metric.load(std::memory_order_relaxed) != 0) WriteFast(slot.metric, nullptr);
  }
}

bool DataPush::FindFast(unsigned long metric, unsigned long* tag, bool* batched) const {
  const FastEntry& slot = m_fast[SlotOf(metric) % kFastSlots];
  const unsigned int before = slot.sequence.load(std::memory_order_acquire);
  if ((before & 1) != 0) return false;
  const unsigned long found = slot.metric.load(std::memory_order_relaxed);
  *tag = slot.tag.load(std::memory_order_relaxed);
  *batched = slot.batched.load(std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_acquire);
  // An empty slot holds 0, which must not pass for a metric of handle 0.
  return found == metric && found != 0 &&
         slot.sequence.load(std::memory_order_relaxed) == before;
}

void DataPush::WriteFast(unsigned long metric, const MetricEntry* entry) {
  FastEntry& slot = m_fast[SlotOf(metric) % kFastSlots];
  // Only an entry a push delivers straight away is worth a slot.
  const bool kept = entry != nullptr && entry->member && entry->tagged &&
                    entry->group.second == kUngrouped;
  if (!kept && slot.metric.load(std::memory_order_relaxed) != metric) return;
  const unsigned int sequence = slot.sequence.load(std::memory_order_relaxed);
  slot.sequence.store(sequence + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  slot.metric.store(kept ? metric : 0, std::memory_order_relaxed);
  slot.tag.store(kept ? entry->tag : 0, std::memory_order_relaxed);
  slot.batched.store(kept && entry->batched, std::memory_order_relaxed);
  slot.sequence.store(sequence + 2, std::memory_order_release);
}

DataPush::MetricEntry* DataPush::FindEntry(unsigned long metric) {
  EntrySlot& slot = m_entrySlots[SlotOf(metric) % kFastSlots];
  if (slot.metric == metric && slot.entry != nullptr) return slot.entry;
  auto it = m_metrics.find(metric);
  if (it == m_metrics.end()) return nullptr;
  slot.metric = metric;
  slot.entry = &it->second;
  return slot.entry;
}

void DataPush::EraseEntry(std::unordered_map<unsigned long, MetricEntry>::iterator it) {
  EntrySlot& slot = m_entrySlots[SlotOf(it->first) % kFastSlots];
  if (slot.metric == it->first) slot = EntrySlot();
  m_metrics.erase(it);
}

KT_STATUS DataPush::Push(unsigned long metric, const IReadBuffer* buffer) {
  MetricEntry entry;
  if (FindFast(metric, &entry.tag, &entry.batched)) {
    entry.member = entry.tagged = true;
  } else {
    std::unique_ptr<Cycle> cycle;
    if (LookUpAndCollect(metric, buffer, &entry, &cycle)) {
      Deliver(*cycle);
      cycle->Clear();
      KeepSpare(std::move(cycle));
    }
  }
  if (!entry.member) {
    ReleaseOldest(buffer);
    return KT_STATUS_INVALID_ARGUMENT;
  }
  if (entry.group.second != kUngrouped) return KT_STATUS_SUCCESS;
  if (!entry.tagged) {
    ReleaseOldest(buffer);
    return KT_STATUS_DOES_NOT_EXIST;
  }
  const void* data = nullptr;
  unsigned long size = 0;
  buffer->GetData(&data, &size);
  if (data == nullptr) return KT_STATUS_SUCCESS;  // nothing queued: nothing to deliver
  if (entry.batched) {
    CallBatchedConsumers(metric, entry.tag, data);
  } else {
    CallConsumers(1, &metric, &entry.tag, &data, &size);
  }
  buffer->MakeAvailable(data);
  return KT_STATUS_SUCCESS;
}

bool DataPush::LookUpAndCollect(unsigned long metric, const IReadBuffer* buffer,
                                MetricEntry* entry, std::unique_ptr<Cycle>* cycle) {
  WriteGuard hold(m_tablesLock);
  MetricEntry* found = FindEntry(metric);
  if (found == nullptr) return false;
  *entry = *found;
  if (!entry->member) return false;
  if (entry->group.second == kUngrouped) {
    WriteFast(metric, entry);  // the next push of the metric takes no lock
    return false;
  }
  return CollectGrouped(metric, buffer, *found, cycle);
}

DataPush::GroupSlots& DataPush::SlotsOf(MetricEntry& entry) {
  GroupSlots& slots = entry.slots;
  if (slots.members != nullptr && slots.group == entry.group) return slots;
  const GroupKey& group = entry.group;
  slots.group = group;
  slots.members = &m_groupTemplate[group.first][group.second];
  slots.expected = &m_groupExpected[group.first][group.second];
  slots.handles = &m_collectedHandles[group.first][group.second];
  slots.buffers = &m_collectedBuffers[group.first][group.second];
  return slots;
}

bool DataPush::CollectGrouped(unsigned long metric, const IReadBuffer* buffer, MetricEntry& entry,
                              std::unique_ptr<Cycle>* cycle) {
  if (entry.pending == nullptr) entry.pending = &m_pending[metric];
  *entry.pending = buffer;
  GroupSlots& slots = SlotsOf(entry);
  MemberSet& expected = *slots.expected;
  std::vector<unsigned long>& handles = *slots.handles;
  std::vector<const IReadBuffer*>& buffers = *slots.buffers;

  const bool wasExpected = expected.erase(metric) != 0;
  if (wasExpected) {
    handles.push_back(metric);
    buffers.push_back(buffer);
    if (!expected.empty()) return false;  // the cycle waits for its other members
  }
  // Only a cycle that ends needs arrays: the spare ones, or new ones when
  // another push has them.
  cycle->reset(m_spareCycle);
  m_spareCycle = nullptr;
  if (*cycle == nullptr) cycle->reset(new Cycle());
  Cycle& out = **cycle;
  // The cycle is complete, or ends early because this member's sample for it
  // has already arrived (or no cycle has started yet).
  for (size_t i = 0; i < handles.size(); ++i) {
    const MetricEntry* collected = FindEntry(handles[i]);
    if (collected == nullptr || !collected->tagged) {
      ReleaseOldest(buffers[i]);  // a member without a tag is left out, not left behind
      continue;
    }
    const void* data = nullptr;
    unsigned long size = 0;
    buffers[i]->GetData(&data, &size);
    if (data == nullptr) continue;
    out.handles.push_back(handles[i]);
    out.tags.push_back(collected->tag);
    out.data.push_back(data);
    out.sizes.push_back(size);
    out.buffers.push_back(buffers[i]);
  }
  handles.clear();
  buffers.clear();
  expected = *slots.members;  // into the room it has: no allocation
  if (!wasExpected) {
    // This sample opens the next cycle.
    handles.push_back(metric);
    buffers.push_back(buffer);
    expected.erase(metric);
  }
  if (!out.handles.empty()) return true;
  if (m_spareCycle == nullptr) m_spareCycle = cycle->release();
  return false;
}

void DataPush::KeepSpare(std::unique_ptr<Cycle> cycle) {
  // Two pushes at once find one spare at most; the first given back is kept.
  WriteGuard hold(m_tablesLock);
  if (m_spareCycle == nullptr) m_spareCycle = cycle.release();
}

void DataPush::Deliver(Cycle& cycle) {
  // One call per consumer for the whole cycle; the samples go back to their
  // buffers after every consumer has been called.
  CallConsumers(static_cast<unsigned int>(cycle.handles.size()), cycle.handles.data(),
                cycle.tags.data(), cycle.data.data(), cycle.sizes.data());
  for (size_t i = 0; i < cycle.buffers.size(); ++i) cycle.buffers[i]->MakeAvailable(cycle.data[i]);
}

void DataPush::PushTimeBased(unsigned long metric, const void* data) {
  // Deliberately a fixed tag and no sizes: that marks a time-based sample.
  unsigned long handle = metric;
  const unsigned long tag = kTimeBasedSampleTag;
  CallConsumers(1, &handle, &tag, &data, nullptr);
}

Path* DataPush::SubscriptionNode(ConsumerList& list, const char* name) {
  Path* node = list.node.load(std::memory_order_acquire);
  if (node != nullptr) return node;
  node = m_conduitNode != nullptr ? m_conduitNode->GetChild(name, 0) : nullptr;
  if (node != nullptr) list.node.store(node, std::memory_order_release);
  return node;
}

void DataPush::ForgetNodes() {
  m_consumers.node.store(nullptr, std::memory_order_release);
  m_batchConsumers.node.store(nullptr, std::memory_order_release);
}

void DataPush::Refresh(ConsumerList& list, Path* node) {
  if (list.builtFrom == node && list.changes == node->ChildChanges()) return;
  list.entries.clear();
  node->ForEachChild([&](Path* child) {
    auto* state = dynamic_cast<ConsumerState*>(child->GetPayload());
    if (state != nullptr && state->GetConsumer() != nullptr) {
      list.entries.push_back({child, state, state->GetConsumer()});
    }
  });
  list.builtFrom = node;
  list.changes = node->ChildChanges();
}

void DataPush::CallConsumers(unsigned int count, unsigned long* handles, const unsigned long* tags,
                             const void** data, unsigned long* sizes) {
  Path* node = SubscriptionNode(m_consumers, "subscriptions");
  if (node == nullptr) return;  // delivers to nobody
  WriteGuard hold(node->GetLock());
  Refresh(m_consumers, node);
  for (const ConsumerList::Entry& entry : m_consumers.entries) {
    // A consumer whose state went (its node is being destroyed) is skipped.
    if (entry.node->GetPayload() != entry.state) continue;
    CallGuarded([&] { entry.consumer->OnMetricUpdated(count, handles, tags, data, sizes); });
  }
}

void DataPush::CallBatchedConsumers(unsigned long metric, unsigned long tag, const void* data) {
  Path* node = SubscriptionNode(m_batchConsumers, "batch_subscriptions");
  if (node == nullptr) return;
  WriteGuard hold(node->GetLock());
  Refresh(m_batchConsumers, node);
  for (const ConsumerList::Entry& entry : m_batchConsumers.entries) {
    if (entry.node->GetPayload() != entry.state) continue;
    IConsumer2* batched = entry.state->GetBatchedFace();
    if (batched == nullptr) continue;
    CallGuarded([&] { batched->OnBatchMetricUpdated(metric, tag, data); });
  }
}

}  // namespace MetricsFramework
