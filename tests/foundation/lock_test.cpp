// Orderings are proved with the lock's counters and the order of admission, not
// with sleeps; a thread a faulty lock leaves blocked fails the test, not hangs it.
#include "foundation/read_write_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace MetricsFramework {

// Reads a lock's counters and hands out its mutexes to hold a thread at a chosen
// point: no ticket moves on under TicketMutex, a read release holds ReleaseMutex.
struct ReadWriteLockInspector {
  explicit ReadWriteLockInspector(ReadWriteLock& lock)
      : shared(*static_cast<ReadWriteLock::SharedLock*>(lock.GetReadLock())),
        writer(shared.writer) {}
  std::atomic<int>& NextTicket() { return writer.nextTicket; }
  int Readers() const { return shared.readers.load(); }
  bool JoiningReaderWouldBeAdmitted() {
    std::lock_guard<std::mutex> hold(shared.admitMutex);
    return writer.serving.load() == shared.readGeneration.load();
  }
  std::mutex& TicketMutex() { return writer.mutex; }
  std::mutex& ReleaseMutex() { return shared.releaseMutex; }
  ReadWriteLock::SharedLock& shared;
  ReadWriteLock::ExclusiveLock& writer;
};

namespace {

using namespace std::chrono_literals;

// Polls `done` until it holds; false after five seconds.
bool WaitUntil(const std::function<bool()>& done) {
  for (int polls = 0; !done() && ++polls < 100000;) std::this_thread::sleep_for(50us);
  return done();
}

// Whether another thread can take `face` now; it gives the lock back if so.
bool TakenElsewhere(ILock* face) {
  bool taken = false;
  std::thread([&] { (taken = face->TryLock()) ? face->Unlock() : void(); }).join();
  return taken;
}

class ReadWriteLockTest : public ::testing::Test {
 protected:
  // In storage of its own: it can be abandoned with a stuck thread.
  ReadWriteLockTest()
      : lock_(new (::operator new(sizeof(ReadWriteLock))) ReadWriteLock(true)), inspect_(*lock_) {}
  void TearDown() override {
    if (!AllReturned()) {
      for (auto& t : threads_) t.detach();
      FAIL() << "a thread never returned from the lock; it is abandoned with the lock";
    }
    for (auto& t : threads_) t.join();
    lock_->~ReadWriteLock(), ::operator delete(lock_);
  }

  ILock* Read() { return lock_->GetReadLock(); }
  ILock* Write() { return lock_->GetWriteLock(); }
  void Start(std::function<void()> body) {
    threads_.emplace_back([this, body] { body(), ++finished_; });
  }
  // Starts a thread that adds `event` to order_ while it holds `face`.
  void StartHolder(ILock* face, char event) {
    Start([this, face, event] {
      LockGuard hold(face);
      std::lock_guard<std::mutex> note(orderMutex_);
      order_ += event;
    });
  }
  bool AllReturned() { return WaitUntil([&] { return finished_ == threads_.size(); }); }

  ReadWriteLock* lock_;
  ReadWriteLockInspector inspect_;
  std::vector<std::thread> threads_;
  std::atomic<size_t> finished_{0};
  std::mutex orderMutex_;
  std::string order_;
};

TEST_F(ReadWriteLockTest, RecursiveFacesNeedOneUnlockPerLockAndExcludeOtherThreads) {
  Monitor monitor;
  for (ILock* face : {Write(), static_cast<ILock*>(&monitor)}) {
    face->Lock(), face->Lock();
    ASSERT_TRUE(face->TryLock()) << "not recursive";
    face->Unlock(), face->Unlock();
    EXPECT_FALSE(TakenElsewhere(face));
    EXPECT_TRUE(face == &monitor || !TakenElsewhere(Read()));
    face->Unlock();
    EXPECT_TRUE(TakenElsewhere(face));
    face->Lock();  // a fresh hold, not one left owned by this thread
    EXPECT_FALSE(TakenElsewhere(face));
    face->Unlock();
  }
}

// Run under ThreadSanitizer as well: readers read `plain` while writers change
// it. A writer counts 1000 in `inside`, a reader 1; every other round uses TryLock.
TEST_F(ReadWriteLockTest, WritersExcludeEachOtherAndReaders) {
  int plain = 0;
  std::atomic<int> writes{0}, inside{0}, overlaps{0};
  for (int weight : {1000, 1, 1000, 1, 1000, 1}) {
    Start([&, weight] {
      ILock* face = weight == 1000 ? Write() : Read();
      for (int i = 0; i < 3000; ++i) {
        if (i % 2 != 0 ? !face->TryLock() : (face->Lock(), false)) continue;
        const int before = inside.fetch_add(weight);
        overlaps += weight == 1000 ? before != 0 : before >= 1000 || plain < 0;
        if (weight == 1000) ++plain, ++writes;
        inside.fetch_sub(weight), face->Unlock();
      }
    });
  }

  ASSERT_TRUE(AllReturned());
  EXPECT_EQ(plain, writes);
  EXPECT_EQ(overlaps, 0);
  EXPECT_TRUE(TakenElsewhere(Write()));
}

TEST_F(ReadWriteLockTest, WritersAreAdmittedInTicketOrder) {
  Write()->Lock();
  for (char writer : std::string("abcde")) {
    const int queued = inspect_.NextTicket() + 1;
    StartHolder(Write(), writer);
    ASSERT_TRUE(WaitUntil([&] { return inspect_.NextTicket() >= queued; }));
  }

  Write()->Unlock();

  ASSERT_TRUE(AllReturned());
  EXPECT_EQ(order_, "abcde");
}

// No thread may still wait on a lock that ends, so the queued writer is a
// ticket, and the destructor is held where it hands the readers' ticket on.
TEST_F(ReadWriteLockTest, DestroyingTheLockReleasesOutstandingReadsForAQueuedWriter) {
  Read()->Lock(), Read()->Lock();
  inspect_.NextTicket().fetch_add(1);
  std::unique_lock<std::mutex> freeze(inspect_.TicketMutex());

  Start([this] { lock_->~ReadWriteLock(), new (lock_) ReadWriteLock(true); });

  ASSERT_TRUE(WaitUntil([&] { return inspect_.Readers() == 0; }));
  EXPECT_FALSE(std::unique_lock<std::mutex>(inspect_.ReleaseMutex(), std::try_to_lock))
      << "the last read was released without passing the ticket on";
  freeze.unlock();
}

// The last reader is held up after closing its group, before its ticket moves
// on; a reader joining the next group then must not be admitted on the old one.
TEST_F(ReadWriteLockTest, ReaderArrivingAsAGroupClosesWaitsForTheNextWriter) {
  Read()->Lock();
  StartHolder(Write(), 'W');
  ASSERT_TRUE(WaitUntil([&] { return inspect_.NextTicket() >= 2; }));
  std::unique_lock<std::mutex> freeze(inspect_.TicketMutex());
  Start([this] { Read()->Unlock(); });
  for (int readers = 0; readers <= 2; ++readers) {  // then one queued for a ticket, one joining
    if (readers > 0) StartHolder(Read(), 'r');
    ASSERT_TRUE(WaitUntil([&] { return inspect_.Readers() == readers; }));
  }

  EXPECT_FALSE(inspect_.JoiningReaderWouldBeAdmitted());
  freeze.unlock();

  ASSERT_TRUE(AllReturned());
  EXPECT_EQ(order_, "Wrr");
}

}  // namespace
}  // namespace MetricsFramework
