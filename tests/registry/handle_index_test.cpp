#include "registry/handle_index.h"

#include <gtest/gtest.h>

#include <atomic>
#include <initializer_list>
#include <random>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "registry/registry.h"

namespace MetricsFramework {
namespace {

// The index never looks at a node, so made-up pointers do.
Path* Fake(unsigned long n) { return reinterpret_cast<Path*>(16 * n + 16); }

// Few keys keep the first table busy, with runs that wrap past its end; then
// the count climbs past several doublings, and falls.
TEST(HandleIndexTest, AgreesWithAMapThroughGrowthAndRemovals) {
  std::mt19937_64 random(7);
  std::vector<unsigned long> pool{0};
  while (pool.size() < 5000) pool.push_back(random());
  HandleIndex index;
  std::unordered_map<unsigned long, Path*> reference;
  unsigned long step = 0;
  for (auto [keys, addsInFour] : std::initializer_list<std::pair<size_t, unsigned int>>{
           {47, 3}, {5000, 3}, {5000, 1}}) {
    for (int n = 0; n < 20000; ++n, ++step) {
      const unsigned long key = pool[random() % keys];
      if (random() % 4 < addsInFour) index.Set(key, reference[key] = Fake(step));
      else index.Erase(key), reference.erase(key);
      if (step % 1000 != 999) continue;
      ASSERT_EQ(index.Size(), reference.size()) << step;
      for (size_t k = 0; k < keys; ++k) {
        auto it = reference.find(pool[k]);
        ASSERT_EQ(index.Find(pool[k]), it == reference.end() ? nullptr : it->second) << step;
      }
    }
  }
}

// This thread files nodes (the table grows under the readers), then removes
// them (the stable entries shift back); readers find every node complete.
TEST(RegistryIndexTest, ReadersResolveAndListWhileAnotherThreadRegistersAndRemoves) {
  constexpr int kStable = 300, kChurn = 4000;
  Registry registry;
  Path* parent = registry.GetChild("p", kPathCreate);
  std::vector<Path*> stable;
  for (int i = 0; i < kStable; ++i) stable.push_back(parent->NewChild(0, "", true, true));
  std::vector<std::atomic<Path*>> churn(kChurn);
  std::vector<std::atomic<unsigned long>> churnHandles(kChurn);
  std::atomic<int> started{0}, wrong{0};
  std::atomic<bool> done{false};
  auto reader = [&] {
    started.fetch_add(1);
    int mine = 0;
    for (bool last = false; !last;) {
      last = done.load();  // one whole pass after the writer finished
      for (Path* node : stable) mine += registry.ResolveHandle(node->GetHandle()) != node;
      for (int i = 0; i < kChurn; ++i) {
        Path* node = churn[i].load(std::memory_order_acquire);
        Path* found = node != nullptr ? registry.ResolveHandle(churnHandles[i].load()) : nullptr;
        mine += found != nullptr && found != node;
      }
      parent->ForEachChild([&](Path* c) { mine += c->GetParent() != parent || !c->GetHandle(); });
    }
    wrong += mine;
  };
  std::thread readers[] = {std::thread(reader), std::thread(reader)};
  while (started.load() < 2) std::this_thread::yield();
  for (int i = 0; i < kChurn; ++i) {
    Path* node = parent->NewChild(0, "", true, true);
    churnHandles[i].store(node->GetHandle());
    churn[i].store(node, std::memory_order_release);
  }
  for (int i = 0; i < kChurn; ++i) delete churn[i].load();
  done.store(true);
  for (std::thread& t : readers) t.join();

  EXPECT_EQ(wrong.load(), 0);
  size_t entries = 0;
  registry.GetHandleBranch()->ForEachChild([&](Path*) { ++entries; });
  EXPECT_EQ(registry.GetHandleIndex().Size(), entries);
}

}  // namespace
}  // namespace MetricsFramework
