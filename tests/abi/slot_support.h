// What the slot tests share: reaching a virtual-table entry by position alone,
// as a separately built module does, and telling the two destructor entries
// apart by counting destructor runs and class-level deletes.
#ifndef KT_TESTS_ABI_SLOT_SUPPORT_H_
#define KT_TESTS_ABI_SLOT_SUPPORT_H_

#include <cstddef>
#include <new>

#include <gtest/gtest.h>

namespace slot_support {

// The entry `index` of the virtual table of `object`.
template <typename Fn>
Fn Slot(const void* object, std::size_t index) {
  void* const* table = *static_cast<void* const* const*>(object);
  return reinterpret_cast<Fn>(table[index]);
}

using CastToCall = void* (*)(void*, const char*);
// Any entry whose (at most five) arguments fit in registers; the fakes that
// are called this way ignore them.
using AnyCall = unsigned long (*)(void*, unsigned long, unsigned long, unsigned long,
                                  unsigned long, unsigned long);
inline unsigned long CallSlot(void* face, std::size_t index) {
  return Slot<AnyCall>(face, index)(face, 0, 0, 0, 0, 0);
}

struct LifetimeCounts {
  int destroyed = 0;
  int deleted = 0;
};
inline LifetimeCounts g_lifetime;

// A base for fakes whose destructor entries are checked.
struct CountsLifetime {
  ~CountsLifetime() { ++g_lifetime.destroyed; }
  static void* operator new(std::size_t size) { return ::operator new(size); }
  static void* operator new(std::size_t, void* where) { return where; }
  static void operator delete(void* p) {
    ++g_lifetime.deleted;
    ::operator delete(p);
  }
};

// The entry `first` destroys in place; the next one also frees.
template <typename Interface, typename Fake>
void ExpectDestructorSlots(std::size_t first) {
  alignas(Fake) unsigned char storage[sizeof(Fake)];
  Interface* inPlace = new (storage) Fake();
  g_lifetime = {};
  Slot<void (*)(void*)>(inPlace, first)(inPlace);
  EXPECT_EQ(g_lifetime.destroyed, 1) << "slot " << first;
  EXPECT_EQ(g_lifetime.deleted, 0) << "slot " << first;

  Interface* onHeap = new Fake();
  g_lifetime = {};
  Slot<void (*)(void*)>(onHeap, first + 1)(onHeap);
  EXPECT_EQ(g_lifetime.destroyed, 1) << "slot " << first + 1;
  EXPECT_EQ(g_lifetime.deleted, 1) << "slot " << first + 1;
}

}  // namespace slot_support

#endif  // KT_TESTS_ABI_SLOT_SUPPORT_H_
