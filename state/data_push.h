// DataPush: the data push of one conduit, and the only owner of its tables.
//
// The client manager records each subscribed metric here (its tag and its
// group, with the group's member sets) and forgets it on unsubscribe; the
// conduit state hands it every sample. Push delivers the oldest sample of a
// metric's buffer to every consumer linked under the conduit's
// "subscriptions" (batched metrics: "batch_subscriptions"), either at once or,
// for a metric of a group, once every member of the group has delivered its
// sample for the cycle, so that consumers see a group's values together in one
// call. The first push of a group opens the cycle and delivers nothing; a
// member that pushes again before the cycle completes ends it early with what
// was collected and opens the next one.
//
// Locks, in the only order they are ever taken:
//   1. m_tablesLock (write side only): every table below. Held for lookups
//      and changes and while a group's cycle reads its buffers, never while
//      a consumer is called. An ungrouped push whose metric is in the fast
//      copy (m_fast, below) does not take it.
//   2. the write lock of the "subscriptions" (or "batch_subscriptions") node:
//      the consumer calls, one push at a time per conduit, and the consumer
//      list kept from that node.
// Neither is held while the other is taken. Samples are released after both
// are let go.
//
// Ownership: the tables hold handles and borrowed buffer pointers only. The
// subscription nodes are owned children of the conduit's node, which
// destroys its payload (and with it this object) before its children.
//
// Threads: any. Pushes of different conduits run in parallel.
#ifndef KT_STATE_DATA_PUSH_H_
#define KT_STATE_DATA_PUSH_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "foundation/read_write_lock.h"
#include "kt/buffer.h"
#include "kt/consumer.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"
#include "state/member_set.h"

namespace MetricsFramework {

class ConsumerState;

// The group id of a metric that is not grouped.
constexpr unsigned int kUngrouped = 0xFFFFFFFF;

class DataPush {
 public:
  // (group key, group id): the publisher's handle and the metric's group.
  using GroupKey = std::pair<unsigned long, unsigned int>;
  // What RecordMetric added to the group's member sets.
  struct Recorded {
    GroupKey group;
    bool toTemplate;
    bool toExpected;
  };

  // `conduitNode` is the node whose "subscriptions" are served.
  explicit DataPush(Path* conduitNode);
  ~DataPush();
  DataPush(const DataPush&) = delete;
  DataPush& operator=(const DataPush&) = delete;

  // Sets the metric's tag (last writer wins), enters its membership unless it
  // has one, and adds it to the member sets of `group`.
  Recorded RecordMetric(unsigned long metric, unsigned long tag, GroupKey group);
  // Takes out of the member sets what `recorded` says RecordMetric put there.
  void WithdrawFromGroup(unsigned long metric, const Recorded& recorded);
  // Forgets the metric: out of its group's member sets (the group named by its
  // membership), its samples out of the group's collection, its pending
  // buffer, its tag and its membership. Nothing happens for an unknown metric.
  void ForgetMetric(unsigned long metric);
  // Delivers the metric's samples one at a time to the batched consumers.
  void AddBatchMetric(unsigned long metric);
  // Empties every table.
  void Clear();
  // Finds the subscription nodes again at the next push; for a node removed
  // by hand.
  void ForgetNodes();

  // Delivers the oldest sample of `buffer` (see the top of this file) and
  // releases it. KT_STATUS_INVALID_ARGUMENT for a metric without membership,
  // KT_STATUS_DOES_NOT_EXIST for an ungrouped metric without a tag; the
  // sample is released in both cases.
  KT_STATUS Push(unsigned long metric, const IReadBuffer* buffer);
  // Calls every subscribed consumer with one sample that was never queued,
  // the tag 199 and no sizes.
  void PushTimeBased(unsigned long metric, const void* data);

 private:

  template <typename Members>
  using ByGroup = std::unordered_map<unsigned long, std::unordered_map<unsigned int, Members>>;

  // The containers of one group, found once per metric: the group maps
  // never drop an inner entry before Clear, which drops the metric too.
  struct GroupSlots {
    GroupKey group{0, kUngrouped};  // the group they were found for
    MemberSet* members = nullptr;   // null until found
    MemberSet* expected = nullptr;
    std::vector<unsigned long>* handles = nullptr;
    std::vector<const IReadBuffer*>* buffers = nullptr;
  };
  // One metric: its tag and membership as the client manager recorded them,
  // and whether it goes to batched consumers. Kept in one entry so that a
  // push finds all three with one lookup.
  struct MetricEntry {
    unsigned long tag = 0;
    GroupKey group{0, kUngrouped};
    bool tagged = false;
    bool member = false;
    bool batched = false;
    GroupSlots slots;  // of `group`, once a push needed them
    const IReadBuffer** pending = nullptr;  // its entry in m_pending, once made
  };
  // The entries looked up lately, so that a grouped push and its cycle find
  // them without hashing: entries of the map stay where they are until
  // erased, and every erase clears its slot. Under the tables lock.
  struct EntrySlot {
    unsigned long metric = 0;
    MetricEntry* entry = nullptr;
  };
  // The consumers linked under one subscription node, as last found there:
  // rebuilt when the node's children changed, and each consumer's state
  // checked against its node's payload before the call. Under the node's
  // write lock.
  struct ConsumerList {
    struct Entry {
      Path* node;
      ConsumerState* state;  // the node's payload when the list was built
      IConsumer* consumer;
    };
    std::atomic<Path*> node{nullptr};  // found once, never removed before us
    Path* builtFrom = nullptr;         // the node the entries were read from
    unsigned long changes = 0;         // its child changes then
    std::vector<Entry> entries;
  };
  // A copy of the entries of ungrouped metrics that were pushed lately, which
  // a push reads without the tables lock. Written only under the tables lock
  // (a change of the entry writes its slot again); read as a sequence lock: a
  // reader that meets a write in progress, or another metric in the slot,
  // looks the metric up under the tables lock instead, so nobody waits here.
  // Every field is atomic, so a torn read is only ever a discarded one.
  struct FastEntry {
    std::atomic<unsigned int> sequence{0};  // odd while the slot is written
    std::atomic<unsigned long> metric{0};   // 0: empty
    std::atomic<unsigned long> tag{0};
    std::atomic<bool> batched{false};
  };
  static constexpr size_t kFastSlots = 64;
  struct Cycle;

  // The fast copy of `metric`; false when it has none (or was being written).
  bool FindFast(unsigned long metric, unsigned long* tag, bool* batched) const;
  // Writes the slot of `metric` from `entry` (null: the metric is gone). Under
  // the tables lock.
  void WriteFast(unsigned long metric, const MetricEntry* entry);
  // Looks the metric up under the tables lock and, for a grouped one, adds
  // the sample to its cycle; fills *entry. True when `cycle` is to be
  // delivered.
  bool LookUpAndCollect(unsigned long metric, const IReadBuffer* buffer, MetricEntry* entry,
                        std::unique_ptr<Cycle>* cycle);
  // Adds the sample to the group's cycle; true when the cycle ends and
  // `cycle` holds what it delivers. Under the tables lock.
  // The entry of `metric`, or null. Under the tables lock.
  MetricEntry* FindEntry(unsigned long metric);
  // Erases the entry at `it` and its slot. Under the tables lock.
  void EraseEntry(std::unordered_map<unsigned long, MetricEntry>::iterator it);
  bool CollectGrouped(unsigned long metric, const IReadBuffer* buffer, MetricEntry& entry,
                      std::unique_ptr<Cycle>* cycle);
  // The containers of the entry's group. Under the tables lock.
  GroupSlots& SlotsOf(MetricEntry& entry);
  void Deliver(Cycle& cycle);
  // Gives the arrays of a delivered cycle back for the next one.
  void KeepSpare(std::unique_ptr<Cycle> cycle);
  // The node `name` of the conduit's node with `list` brought up to date;
  // null while the node does not exist. The caller holds the node's write
  // lock from before this call.
  Path* SubscriptionNode(ConsumerList& list, const char* name);
  void Refresh(ConsumerList& list, Path* node);
  // Calls every subscribed consumer under the write lock of "subscriptions".
  void CallConsumers(unsigned int count, unsigned long* handles, const unsigned long* tags,
                     const void** data, unsigned long* sizes);
  void CallBatchedConsumers(unsigned long metric, unsigned long tag, const void* data);

  Path* m_conduitNode;
  ReadWriteLock m_tablesLock;
  std::unordered_map<unsigned long, MetricEntry> m_metrics;
  ByGroup<MemberSet> m_groupTemplate;  // every member
  ByGroup<MemberSet> m_groupExpected;  // members awaited this cycle
  ByGroup<std::vector<unsigned long>> m_collectedHandles;  // arrival order
  ByGroup<std::vector<const IReadBuffer*>> m_collectedBuffers;  // parallel to the handles
  std::unordered_map<unsigned long, const IReadBuffer*> m_pending;  // metric -> last pushed
  FastEntry m_fast[kFastSlots];
  EntrySlot m_entrySlots[kFastSlots];
  // A cycle's arrays, kept between grouped pushes so that a cycle allocates
  // nothing once they have grown; a push takes it and gives it back, under
  // the tables lock both times. Owned.
  Cycle* m_spareCycle;
  ConsumerList m_consumers;         // of "subscriptions"
  ConsumerList m_batchConsumers;    // of "batch_subscriptions"
};

}  // namespace MetricsFramework

#endif  // KT_STATE_DATA_PUSH_H_
