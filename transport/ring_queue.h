// RingQueue: a growable circular array of small plain records, used as a
// queue that can also lose an entry from the middle.
//
// Adding and removing at either end allocates nothing while the ring has room.
// A full ring doubles (from 8 entries) and never shrinks, so a steady flow of
// entries allocates only until the ring has grown to the largest number ever
// held at once. Erase moves the shorter side of the ring by one place.
//
// Not synchronised: the owner guards it. Entries are copied, so T should be a
// small trivially copyable record.
#ifndef KT_TRANSPORT_RING_QUEUE_H_
#define KT_TRANSPORT_RING_QUEUE_H_

#include <cstddef>
#include <vector>

namespace MetricsFramework {

template <typename T>
class RingQueue {
 public:
  RingQueue() = default;
  RingQueue(const RingQueue&) = delete;
  RingQueue& operator=(const RingQueue&) = delete;

  bool Empty() const { return count == 0; }
  std::size_t Size() const { return count; }
  std::size_t Capacity() const { return slots.size(); }

  // The entry `i` places from the front; `i` < Size().
  T& operator[](std::size_t i) { return slots[Slot(i)]; }
  const T& operator[](std::size_t i) const { return slots[Slot(i)]; }
  T& Front() { return slots[head]; }
  const T& Front() const { return slots[head]; }
  T& Back() { return slots[Slot(count - 1)]; }

  // May throw std::bad_alloc when the ring grows; the ring is unchanged then.
  void PushBack(const T& value) {
    if (count == slots.size()) Grow();
    slots[Slot(count)] = value;
    ++count;
  }
  void PopFront() {
    head = Slot(1);
    --count;
  }
  void PopBack() { --count; }
  // Removes the entry `i` places from the front, keeping the order of the
  // others.
  void Erase(std::size_t i) {
    if (i < count / 2) {
      for (; i > 0; --i) (*this)[i] = (*this)[i - 1];
      PopFront();
      return;
    }
    for (; i + 1 < count; ++i) (*this)[i] = (*this)[i + 1];
    PopBack();
  }
  // Empties the ring; its capacity stays.
  void Clear() {
    head = 0;
    count = 0;
  }

 private:
  static constexpr std::size_t kFirstCapacity = 8;

  // Capacities are powers of two, so that wrapping is a mask.
  std::size_t Slot(std::size_t i) const { return (head + i) & (slots.size() - 1); }

  void Grow() {
    std::vector<T> larger(slots.empty() ? kFirstCapacity : slots.size() * 2);
    for (std::size_t i = 0; i < count; ++i) larger[i] = (*this)[i];
    slots.swap(larger);
    head = 0;
  }

  std::vector<T> slots;
  std::size_t head = 0;   // slot of the front entry
  std::size_t count = 0;  // entries held
};

}  // namespace MetricsFramework

#endif  // KT_TRANSPORT_RING_QUEUE_H_
