// Tests of ReadWriteLock, its two faces, and Monitor.
//
// Orderings are proved with the lock's own counters and with the order in
// which threads record their admission, never with sleeps. A thread that a
// faulty lock leaves blocked is abandoned together with the lock once the
// deadline has passed, so a fault fails the test instead of hanging it.
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

#include "kt/lock.h"

namespace MetricsFramework {

// Reads the counters of a ReadWriteLock, and lets a test stand in for a thread
// at a chosen point of an interleaving.
class ReadWriteLockInspector {
 public:
  explicit ReadWriteLockInspector(ReadWriteLock& lock)
      : shared_(static_cast<ReadWriteLock::SharedLock*>(lock.GetReadLock())),
        writer_(&shared_->writer) {}

  int Serving() const { return writer_->serving.load(); }
  int NextTicket() const { return writer_->nextTicket.load(); }
  unsigned long Owner() const { return writer_->owner.load(); }
  int Readers() const { return shared_->readers.load(); }
  bool IsFree() const { return NextTicket() == Serving() - 1; }

  // What a reader joining the group now would find, seen as it sees it.
  bool JoiningReaderWouldBeAdmitted() const {
    std::lock_guard<std::mutex> hold(shared_->admitMutex);
    return writer_->serving.load() == shared_->readGeneration.load();
  }

  void TakeTicket() { writer_->nextTicket.fetch_add(1); }
  // Held by the test, it stops every ticket from moving on.
  std::mutex& TicketMutex() { return writer_->mutex; }
  // Held by a thread from the start of a read release to its end.
  std::mutex& ReleaseMutex() { return shared_->releaseMutex; }

 private:
  ReadWriteLock::SharedLock* shared_;
  ReadWriteLock::ExclusiveLock* writer_;
};

namespace {

// Polls `done` until it holds; false once the deadline has passed.
template <typename Pred>
bool WaitUntil(Pred done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return true;
}

// Whether another thread can take `face` now; it gives the lock back if so.
bool TakenElsewhere(ILock* face) {
  bool taken = false;
  std::thread([&] {
    taken = face->TryLock();
    if (taken) face->Unlock();
  }).join();
  return taken;
}

class ReadWriteLockTest : public ::testing::Test {
 protected:
  // The lock lives in storage of its own: it can be abandoned with a stuck
  // thread, and a test can end its life on a thread of its own.
  ReadWriteLockTest()
      : lock_(new (::operator new(sizeof(ReadWriteLock))) ReadWriteLock(true)), inspect_(*lock_) {}

  void TearDown() override {
    if (!WaitForAll()) {
      ADD_FAILURE() << "a thread never returned from the lock; it is abandoned";
      for (auto& t : threads_) t.detach();
      return;
    }
    for (auto& t : threads_) t.join();
    if (!destroyed_) lock_->~ReadWriteLock();
    ::operator delete(lock_);
  }

  ILock* Read() { return lock_->GetReadLock(); }
  ILock* Write() { return lock_->GetWriteLock(); }

  void Start(std::function<void()> body) {
    threads_.emplace_back([this, body] { body(), ++finished_; });
  }
  // Starts a thread that records `event` while it holds `face`.
  void StartHolder(ILock* face, char event) {
    Start([this, face, event] { face->Lock(), Record(event), face->Unlock(); });
  }
  bool WaitForAll() { return WaitUntil([&] { return finished_ == threads_.size(); }); }
  bool WaitForTickets(int n) { return WaitUntil([&] { return inspect_.NextTicket() >= n; }); }
  bool WaitForReaders(int n) { return WaitUntil([&] { return inspect_.Readers() == n; }); }

  void Record(char event) {
    std::lock_guard<std::mutex> hold(orderMutex_);
    order_ += event;
  }
  std::string Order() {
    std::lock_guard<std::mutex> hold(orderMutex_);
    return order_;
  }

  ReadWriteLock* lock_;
  ReadWriteLockInspector inspect_;
  bool destroyed_ = false;

 private:
  std::vector<std::thread> threads_;
  std::atomic<size_t> finished_{0};
  std::mutex orderMutex_;
  std::string order_;
};

TEST_F(ReadWriteLockTest, RecursiveWriteNeedsOneUnlockPerLock) {
  Write()->Lock();
  Write()->Lock();
  ASSERT_TRUE(Write()->TryLock());

  Write()->Unlock();
  Write()->Unlock();
  EXPECT_FALSE(TakenElsewhere(Write()));
  EXPECT_FALSE(TakenElsewhere(Read()));
  Write()->Unlock();

  EXPECT_EQ(inspect_.Owner(), 0u);
  EXPECT_TRUE(TakenElsewhere(Write()));
}

// Run under ThreadSanitizer as well: readers read `plain` while writers change
// it, and every path reads the writer's owner while another thread sets it.
TEST_F(ReadWriteLockTest, WritersExcludeEachOtherAndReaders) {
  constexpr int kRounds = 3000;
  int plain = 0;
  std::atomic<int> writes{0}, readersInside{0}, writersInside{0}, overlaps{0};
  auto take = [](ILock* face, int round) {  // every other round by TryLock
    if (round % 2 != 0) return face->TryLock();
    face->Lock();
    return true;
  };
  auto writer = [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (!take(Write(), i)) continue;
      if (writersInside++ != 0 || readersInside != 0) ++overlaps;
      ++plain, ++writes, --writersInside;
      Write()->Unlock();
    }
  };
  auto reader = [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (!take(Read(), i)) continue;
      ++readersInside;
      if (writersInside != 0 || plain < 0) ++overlaps;
      --readersInside;
      Read()->Unlock();
    }
  };
  for (int t = 0; t < 3; ++t) Start(writer);
  for (int t = 0; t < 3; ++t) Start(reader);

  ASSERT_TRUE(WaitForAll());
  EXPECT_EQ(plain, writes);
  EXPECT_EQ(overlaps, 0);
  EXPECT_TRUE(inspect_.IsFree());
}

TEST_F(ReadWriteLockTest, WritersAreAdmittedInTicketOrder) {
  Write()->Lock();
  for (char writer : std::string("abcde")) {
    const int queued = inspect_.NextTicket() + 1;
    StartHolder(Write(), writer);
    ASSERT_TRUE(WaitForTickets(queued));
  }

  Write()->Unlock();

  ASSERT_TRUE(WaitForAll());
  EXPECT_EQ(Order(), "abcde");
}

// No thread may still wait on a lock that ends, so the queued writer is a
// ticket, and the destructor is held where it hands the readers' ticket on.
TEST_F(ReadWriteLockTest, DestroyingTheLockReleasesOutstandingReadsForAQueuedWriter) {
  Read()->Lock();
  Read()->Lock();
  inspect_.TakeTicket();
  std::unique_lock<std::mutex> freeze(inspect_.TicketMutex());

  Start([this] { lock_->~ReadWriteLock(), destroyed_ = true; });

  ASSERT_TRUE(WaitForReaders(0));
  const bool handingOn = !inspect_.ReleaseMutex().try_lock();
  if (!handingOn) inspect_.ReleaseMutex().unlock();
  EXPECT_TRUE(handingOn) << "the last read was released without passing the ticket on";
  freeze.unlock();
  EXPECT_TRUE(WaitForAll());
}

// The last reader is held up after closing its group, before its ticket moves
// on; a reader joining the next group then must not be admitted on the old one.
TEST_F(ReadWriteLockTest, ReaderArrivingAsAGroupClosesWaitsForTheNextWriter) {
  Read()->Lock();
  StartHolder(Write(), 'W');
  ASSERT_TRUE(WaitForTickets(2));
  std::unique_lock<std::mutex> freeze(inspect_.TicketMutex());
  Start([this] { Read()->Unlock(); });
  ASSERT_TRUE(WaitForReaders(0));
  StartHolder(Read(), 'r');  // first of the next group, queued for a ticket
  ASSERT_TRUE(WaitForReaders(1));
  StartHolder(Read(), 'r');  // joins it
  ASSERT_TRUE(WaitForReaders(2));

  EXPECT_FALSE(inspect_.JoiningReaderWouldBeAdmitted());
  freeze.unlock();

  ASSERT_TRUE(WaitForAll());
  EXPECT_EQ(Order(), "Wrr");
}

TEST(MonitorTest, ReentersOnItsThreadAndExcludesOthers) {
  Monitor monitor;
  monitor.Lock();
  ASSERT_TRUE(monitor.TryLock()) << "not recursive";
  monitor.Lock();

  EXPECT_FALSE(TakenElsewhere(&monitor));
  monitor.Unlock();
  monitor.Unlock();
  EXPECT_FALSE(TakenElsewhere(&monitor));
  monitor.Unlock();

  EXPECT_TRUE(TakenElsewhere(&monitor));
}

}  // namespace
}  // namespace MetricsFramework
