// The shared-memory table: a writer, readers here, and a reader in a forked process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <ranges>
#include <set>
#include <string>
#include <string_view>

#include "Mirra/ShmTable.h"
#include "support/Command.h"

using namespace Mirra;
using testsupport::exitCodeOf;
using testsupport::inChild;
using Ids = std::set<std::uint32_t>;

namespace {

// An id and an inline name compared by its length: bytes past the name are not part of the key.
struct Key {
   std::uint32_t id = 0;
   std::uint8_t len = 0;
   char name[275] = {};
   bool operator==(Key const& o) const {
      return id == o.id && std::string_view(name, len) == std::string_view(o.name, o.len);
   }
};

Key key(std::uint32_t id) {
   Key k{id};
   k.len = static_cast<std::uint8_t>(std::snprintf(k.name, sizeof(k.name), "collector-%u", id));
   return k;
}

struct KeyHash {
   std::uint32_t operator()(Key const& k) const { return k.id * 0x85ebca6bu ^ k.len; }
};
struct CollidingHash {  // every key in one probe sequence
   std::uint32_t operator()(Key const&) const { return 7; }
};

// Too large to copy atomically; whole when every word equals seq.
struct Stats {
   std::uint64_t seq = 0;
   std::uint32_t keyId = 0;
   std::uint64_t words[111] = {};
   bool whole() const { return std::ranges::count(words, seq) == 111; }
};

Stats stats(std::uint32_t id, std::uint64_t seq = 1) {
   Stats v{seq, id};
   std::ranges::fill(v.words, seq);
   return v;
}

using Writer = ShmTableWriter<Key, Stats, KeyHash>;
using Reader = ShmTableReader<Key, Stats, KeyHash>;

template <class W>
void fill(W& w, std::uint32_t from, std::uint32_t to) {
   for (std::uint32_t id = from; id < to; ++id) {
      ASSERT_TRUE(w.upsert(key(id), stats(id))) << id;
   }
}

Ids range(std::uint32_t from, std::uint32_t to) {
   Ids s;
   for (std::uint32_t id = from; id < to; ++id) {
      s.insert(s.end(), id);
   }
   return s;
}
Ids ids(std::vector<Key> const& keys) {
   Ids s;
   for (Key const& k : keys) {
      s.insert(k.id);
   }
   return s;
}
// The ids below `to` that `t` finds one by one, and those it iterates over; ~0 for a value found
// under another key.
template <class T>
Ids found(T& t, std::uint32_t to) {
   Ids s;
   for (std::uint32_t id = 0; id < to; ++id) {
      if (auto v = t.get(key(id))) {
         s.insert(v->keyId == id ? id : ~0u);
      }
   }
   return s;
}
template <class T>
Ids iterated(T& t) {
   Ids s;
   t.forEach([&](Key const& k, Stats const& v) { s.insert(v.keyId == k.id ? k.id : ~0u); });
   return s;
}

bool shmExists(std::string const& name) {
   int const fd = shm_open(name.c_str(), O_RDONLY, 0);
   return fd >= 0 && close(fd) == 0;
}

double now() {
   using namespace std::chrono;
   return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// A read-write mapping made by hand, to damage a segment the way a stray process could.
template <class T>
std::shared_ptr<T> rawMap(std::string const& name) {
   int const fd = shm_open(name.c_str(), O_RDWR, 0);
   struct stat st {};
   fstat(fd, &st);
   void* p = mmap(nullptr, st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   close(fd);
   return {static_cast<T*>(p), [n = st.st_size](T* b) { munmap(b, n); }};
}

// `fn` throws a Kivo::Exception whose text contains `text`, an ErrnoException when `error` is set.
template <class F>
void expectRefused(F fn, std::string const& text, int error = 0) {
   try {
      fn();
      ADD_FAILURE() << "not refused; expected: " << text;
   } catch (Kivo::Exception const& e) {
      EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
      auto const* errnoError = dynamic_cast<Kivo::ErrnoException const*>(&e);
      EXPECT_EQ(errnoError ? errnoError->error() : 0, error) << e.what();
   }
}

// Calls `fn` on the header of every slot of the data segment `name`.
template <class F>
void forEachSlot(std::string const& name, F fn) {
   auto data = rawMap<std::byte>(name);
   auto const& h = *reinterpret_cast<ShmLayout::DataHeader*>(data.get());
   for (std::uint32_t i = 0; i < h.slotCount; ++i) {
      fn(*reinterpret_cast<ShmLayout::SlotHeader*>(data.get() + h.slotsOffset + i * h.slotSize));
   }
}

// A T in memory shared with the children this process forks.
template <class T>
std::shared_ptr<T> sharedWithChildren() {
   void* p = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   EXPECT_NE(p, MAP_FAILED);
   return {new (p) T, [](T* t) { munmap(t, sizeof(T)); }};
}

struct MirraShmTable : ::testing::Test {
   std::string name = "/ipfix-stats-test-" + std::to_string(getpid()) + "-" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name();
   void TearDown() override {  // whatever a failed test left behind
      for (std::uint32_t serial = 0; serial < 64; ++serial) {
         shmUnlink(shmTableDataName(name, serial));
      }
      shmUnlink(name);
   }
};

}  // namespace

// Every key shares one probe sequence, so deletions leave tombstones in front of live keys.
TEST_F(MirraShmTable, UpsertGetDelDelAllAndIteration) {
   {
      ShmTableWriter<Key, Stats, CollidingHash> w(name, 16);
      ShmTableReader<Key, Stats, CollidingHash> r(name);
      fill(w, 1, 11);
      EXPECT_TRUE(w.upsert(key(3), stats(3, 5)));  // replaces
      EXPECT_EQ(r.get(key(3))->seq, 5u);
      EXPECT_EQ(w.find(key(11)), nullptr);
      EXPECT_TRUE(w.del(key(3)) && w.del(key(5)) && !w.del(key(3)));
      EXPECT_EQ(w.generation(), 13u);  // deleting a missing key is no change
      for (Ids const& s : {found(w, 12), found(r, 12), iterated(w), iterated(r)}) {
         EXPECT_EQ(s, (Ids{1, 2, 4, 6, 7, 8, 9, 10}));
      }
      EXPECT_TRUE(w.upsert(key(3), stats(3, 7)));  // back after its deletion
      EXPECT_EQ(r.get(key(3))->seq, 7u);
      // A stream of short-lived keys must not grow the table: rebuilding drops the tombstones.
      std::uint32_t const slots = w.slotCount();
      for (std::uint32_t id = 100; id < 2100; ++id) {
         ASSERT_TRUE(w.upsert(key(id), stats(id)) && w.del(key(id)));
      }
      EXPECT_EQ(std::tuple(w.slotCount(), r.size()), std::tuple(slots, std::size_t{9}));
      EXPECT_EQ(found(r, 12), (Ids{1, 2, 3, 4, 6, 7, 8, 9, 10}));
      w.delAll();
      std::uint64_t const g = w.generation();
      w.delAll();
      EXPECT_EQ(w.generation(), g);
      EXPECT_TRUE(w.size() == 0 && iterated(w).empty() && iterated(r).empty());
      Key noisy = key(4);
      w.upsert(noisy, stats(4));
      noisy.name[200] = 'x';  // past the name: not part of the key
      EXPECT_TRUE(w.upsert(noisy, stats(4, 2)));
      EXPECT_EQ(w.size(), 1u);
   }
   EXPECT_FALSE(shmExists(name) || shmExists(shmTableDataName(name, 1)));
}

TEST_F(MirraShmTable, ReaderSeesChangesAndChangedSinceReportsExactlyThem) {
   Writer w(name, 16);
   fill(w, 1, 6);
   Reader r(name);
   auto c = r.changedSince(0);
   EXPECT_EQ(std::tuple(ids(c.changed), ids(c.deleted), c.generation),
             std::tuple(range(1, 6), Ids{}, w.generation()));

   w.upsert(key(2), stats(2, 9));  // changed
   w.upsert(key(6), stats(6));     // new
   w.del(key(3));                  // deleted
   w.del(key(4));                  // deleted, then back
   w.upsert(key(4), stats(4, 2));
   w.upsert(key(5), stats(5, 3));  // changed, then deleted
   w.del(key(5));
   w.del(key(7));  // never there
   c = r.changedSince(c.generation);
   EXPECT_EQ(std::tuple(ids(c.changed), ids(c.deleted), c.rebuilt, c.generation),
             std::tuple(Ids{2, 4, 6}, Ids{3, 5}, false, w.generation()));
   EXPECT_EQ(r.get(key(2))->seq, 9u);

   auto const none = r.changedSince(c.generation);
   EXPECT_TRUE(none.changed.empty() && none.deleted.empty());
   // A generation this table never had (a previous writer's) asks for everything.
   auto const foreign = r.changedSince(w.generation() + 100);
   EXPECT_EQ(std::tuple(foreign.rebuilt, ids(foreign.changed)), std::tuple(true, Ids{1, 2, 4, 6}));
   w.delAll();
   c = r.changedSince(c.generation);
   EXPECT_EQ(std::tuple(ids(c.changed), ids(c.deleted)), std::tuple(Ids{}, Ids{1, 2, 4, 6}));
}

// The writer's wake, not the sleeper's own 20 s timeout, must end the wait.
TEST_F(MirraShmTable, WaitForChangeSleepsUntilTheWriterWakesIt) {
   std::optional<Writer> w(std::in_place, name, 16);
   Reader r(name);
   std::uint64_t const g = w->generation();
   EXPECT_FALSE(r.waitForChange(g, 0.01));  // nothing changes: times out
   w->upsert(key(1), stats(1));
   EXPECT_EQ(r.waitForChange(g, 10), w->generation());  // already changed: no sleep

   auto control = rawMap<ShmLayout::ControlHeader>(name);
   std::atomic_ref<std::uint32_t> waiters(control->waiters);
   // Runs `change` once a reader thread has registered and is asleep; returns what the wait
   // returned, or nothing when it has not returned 10 s later.
   auto sleepThrough = [&](auto const& change) {
      std::atomic<pid_t> tid{0};
      auto woken = std::async(std::launch::async, [&, last = r.generation()] {
         tid = gettid();
         return r.waitForChange(last, 20);
      });
      for (double const until = now() + 10; now() < until;) {
         std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
         std::string line;
         if (std::getline(stat, line) && tid && waiters.load() &&
             line.find(") S ") != std::string::npos) {
            break;
         }
      }
      change();
      bool const ready = woken.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
      return ready ? std::optional<std::optional<std::uint64_t>>(woken.get()) : std::nullopt;
   };
   auto const woken = sleepThrough([&] { w->upsert(key(2), stats(2)); });
   ASSERT_TRUE(woken) << "the change did not wake the reader";
   EXPECT_EQ(std::tuple(*woken, waiters.load()),
             std::tuple(std::optional<std::uint64_t>(w->generation()), 0u));

   auto const closed = sleepThrough([&] { w.reset(); });
   ASSERT_TRUE(closed) << "closing the table did not wake the reader";
   EXPECT_TRUE(*closed == std::nullopt && r.writerClosed());
}

TEST_F(MirraShmTable, ReaderAttachedBeforeGrowthFollowsTheWriter) {
   Writer w(name, 1);
   Reader r(name);
   std::string const firstData = r.dataSegmentName();
   std::uint64_t const g0 = r.generation();
   fill(w, 0, 3000);
   EXPECT_GE(w.slotCount(), 4096u);
   EXPECT_EQ(std::tuple(r.size(), r.dataSegmentName()),
             std::tuple(std::size_t{3000}, w.dataSegmentName()));
   EXPECT_FALSE(shmExists(firstData));
   EXPECT_EQ(iterated(r), range(0, 3000));
   EXPECT_EQ(found(r, 3000), range(0, 3000));
   // Rebuilding forgets deletions, so a reader from before it must take the whole table again.
   auto const c = r.changedSince(g0);
   EXPECT_EQ(std::tuple(c.rebuilt, c.changed.size()), std::tuple(true, std::size_t{3000}));
   w.del(key(17));
   auto const after = r.changedSince(c.generation);
   EXPECT_EQ(std::tuple(after.rebuilt, ids(after.changed), ids(after.deleted)),
             std::tuple(false, Ids{}, Ids{17}));
}

TEST_F(MirraShmTable, InsertRefusedAtMaximumCapacityKeepsEveryEntry) {
   Writer w(name, 2, 100);
   Reader r(name);
   fill(w, 0, 100);
   std::uint64_t const g = w.generation();
   EXPECT_FALSE(w.upsert(key(100), stats(100)));
   EXPECT_EQ(w.generation(), g);
   EXPECT_TRUE(w.upsert(key(5), stats(5, 2)));  // replacing still works
   EXPECT_EQ(r.get(key(5))->seq, 2u);
   EXPECT_EQ(found(r, 101), range(0, 100));
   EXPECT_TRUE(w.del(key(0)) && w.upsert(key(100), stats(100)));
   EXPECT_FALSE(w.upsert(key(0), stats(0)));  // a deleted key coming back counts as new
   EXPECT_EQ(found(r, 101), range(1, 101));
}

// Each case damages one field of a working table; the reader says what is wrong.
TEST_F(MirraShmTable, CorruptOrForeignSegmentIsRefusedWithTheReason) {
   using C = ShmLayout::ControlHeader;
   using D = ShmLayout::DataHeader;
   struct Case {
      void (*damage)(C&, D&);
      char const* text;
   } const cases[] = {
       {[](C& c, D&) { c.magic ^= 1; }, "bad magic 0x4c5443415252494c, not a table control"},
       {[](C& c, D&) { c.layoutVersion = 99; }, "layout version 99"},
       {[](C&, D& d) { d.magic = 0; }, "not a table data segment"},
       {[](C&, D& d) { d.layoutVersion = 7; }, "layout version 7"},
       {[](C&, D& d) { d.slotCount = 1 << 20; }, "capacity of 1048576 slots needs"},
       {[](C&, D& d) { d.slotCount = 12; }, "capacity of 12 slots is not a power of two"},
       {[](C&, D& d) { d.slotSize = 64; }, "slot layout"},
       {[](C&, D& d) { d.valueSize = 8; }, "value size 8 bytes"},
   };
   for (auto const& c : cases) {
      Writer w(name, 16);
      c.damage(*rawMap<C>(name), *rawMap<D>(w.dataSegmentName()));
      expectRefused([&] { Reader r(name); }, c.text);
   }
   {
      Writer w(name, 16);
      expectRefused([&] { ShmTableReader<Key, std::uint64_t, KeyHash> r(name); },
                    "value size 904 bytes, expected 8");
   }
   expectRefused([&] { Reader r(name); }, "opening shared-memory object " + name, ENOENT);
   int const fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
   expectRefused([&] { Reader r(name); }, "too small for a table control header");
   ASSERT_TRUE(ftruncate(fd, 4096) == 0 && write(fd, "not a table", 11) == 11 && !close(fd));
   expectRefused([&] { Reader r(name); }, "not a table control segment");
   expectRefused([&] { Writer w(name, 16); }, "taken by something else", EEXIST);
}

// A writer that dies between making a slot odd and even again leaves it mid-write for good.
TEST_F(MirraShmTable, ReaderReportsASlotLeftMidWriteInsteadOfSpinning) {
   Writer w(name, 16);
   w.upsert(key(1), stats(1));
   Reader r(name, 0.05);
   auto bumpAll = [&] {  // every slot, wherever the key is
      forEachSlot(w.dataSegmentName(), [](ShmLayout::SlotHeader& s) { ++s.seq; });
   };
   bumpAll();
   expectRefused([&] { r.get(key(1)); }, "mid-write for over 0.05 s; writer pid " +
                                             std::to_string(getpid()) + " is alive but stalled");
   expectRefused([&] { r.forEach([](Key const&, Stats const&) {}); }, "mid-write");
   bumpAll();
   EXPECT_EQ(r.get(key(1))->seq, 1u);
}

namespace {

constexpr std::uint32_t kHotKeys = 8;
constexpr std::uint64_t kMinUpdates = 100'000;
constexpr std::uint64_t kMinPasses = 2'000;  // reader passes to wait for, however loaded

// Shared by the writer and its forked reader, outside the table under test.
struct Race {
   std::atomic<bool> readerDone{false};
   std::atomic<std::uint64_t> passes{0};    // reader passes while the writer writes
   std::atomic<std::uint64_t> finalSeq{0};  // every hot key's last seq, once written
};

// Reads until it has seen every hot key's last value. 0: all well, 1: an entry not whole, 2: a
// value older than one already seen, 3: the deadline passed first, 4: an exception.
int readUntilFinal(std::string const& name, Race& race, double deadline) try {
   Reader r(name);
   std::uint64_t lastSeq[kHotKeys] = {};
   int fault = 0;
   auto check = [&](Key const& k, Stats const& v) {
      if (!v.whole() || v.keyId != k.id || !(k == key(k.id))) {
         fault = 1;
      } else if (k.id < kHotKeys) {
         fault = v.seq < lastSeq[k.id] ? 2 : fault;
         lastSeq[k.id] = v.seq;
      }
   };
   for (std::uint32_t pass = 0; now() < deadline; ++pass) {
      std::uint64_t const finalSeq = race.finalSeq.load();
      r.forEach(check);
      if (auto v = r.get(key(pass % kHotKeys))) {
         check(key(pass % kHotKeys), *v);
      }
      if (fault || (finalSeq && std::ranges::count(lastSeq, finalSeq) == kHotKeys)) {
         return fault;
      }
      race.passes += finalSeq ? 0 : 1;
   }
   return 3;
} catch (std::exception const& e) {
   std::fprintf(stderr, "reader: %s\n", e.what());
   return 4;
}

}  // namespace

// The writer rewrites a few keys as fast as it can, and grows the table half way, while another
// process reads them; every entry that process reads must be whole, and it must see the end.
TEST_F(MirraShmTable, ForkedReaderNeverSeesATornEntry) {
   Writer w(name, 4);
   fill(w, 0, kHotKeys);
   auto shared = sharedWithChildren<Race>();
   Race& race = *shared;
   double const deadline = now() + 30;
   pid_t const child = inChild([&] {
      int const status = readUntilFinal(name, race, deadline);
      race.readerDone = true;
      return status;
   });
   // At least kMinUpdates, and on until the reader has made kMinPasses (or the deadline nears),
   // ending on a whole round so that every hot key ends on the same seq.
   std::uint64_t u = 0, seq = 1;
   for (; u % kHotKeys || u < kMinUpdates ||
          !(race.passes >= kMinPasses || race.readerDone || now() > deadline - 10);
        ++u) {
      seq = u / kHotKeys + 2;
      ASSERT_TRUE(w.upsert(key(u % kHotKeys), stats(u % kHotKeys, seq)));
      if (u == kMinUpdates / 2) {
         fill(w, 1000, 1300);  // grows the table
      }
   }
   race.finalSeq = seq;
   EXPECT_GE(w.slotCount(), 512u);
   EXPECT_EQ(exitCodeOf(child), 0) << "1: torn entry, 2: went backwards, 3: never saw the end";
}

namespace {

// Runs `fn(fd)` on a descriptor of the object `name` opened read-write.
template <class F>
void withFd(std::string const& name, F fn) {
   int const fd = shm_open(name.c_str(), O_RDWR, 0);
   ASSERT_GE(fd, 0) << name;
   fn(fd);
   close(fd);
}

// The mode bits of a shared-memory object.
unsigned modeOf(std::string const& name) {
   struct stat st {};
   withFd(name, [&](int fd) { fstat(fd, &st); });
   return st.st_mode & 07777;
}

// Leaves the table of a writer that is gone: a child creates it and is killed, never closing it.
pid_t killedWritersTable(std::string const& name) {
   int ready[2];
   EXPECT_EQ(pipe(ready), 0);
   pid_t const child = inChild([&] {  // never destroyed: the writer dies as if it crashed
      (new Writer(name, 16))->upsert(key(1), stats(1));
      (void)!write(ready[1], "x", 1);
      return pause();
   });
   char c = 0;
   EXPECT_EQ(read(ready[0], &c, 1), 1);
   close(ready[0]);
   close(ready[1]);
   kill(child, SIGKILL);
   EXPECT_EQ(exitCodeOf(child), -1);  // killed
   return child;
}

}  // namespace

// A segment cut short after the reader mapped it would raise SIGBUS on the next access; each pass
// first checks that its mappings are still backed.
TEST_F(MirraShmTable, SegmentsCutShortAfterOpeningAreRefusedNotFaultedOn) {
   Writer w(name, 16);
   fill(w, 0, 5);
   Reader r(name);
   EXPECT_EQ(iterated(r), range(0, 5));
   std::size_t const dataBytes =
       ShmLayout::slotsOffset() +
       std::size_t{w.slotCount()} * ShmLayout::slotGeometry<Key, Stats>().slotSize;
   withFd(w.dataSegmentName(), [&](int fd) { ASSERT_EQ(ftruncate(fd, 100), 0); });
   std::string const shrank = "data segment shrank to 100 bytes, below the " +
                              std::to_string(dataBytes) + " bytes its " +
                              std::to_string(w.slotCount()) + " slots need";
   expectRefused([&] { r.get(key(1)); }, shrank);
   expectRefused([&] { iterated(r); }, shrank);
   expectRefused([&] { r.changedSince(0); }, shrank);
   expectRefused([&] { r.size(); }, shrank);
   expectRefused([&] { Reader late(name); }, "needs");  // a new reader refuses it from the start
   withFd(w.dataSegmentName(), [&](int fd) { ASSERT_EQ(ftruncate(fd, dataBytes), 0); });
   EXPECT_EQ(r.get(key(1)), std::nullopt);  // whole again (its contents gone with the cut)

   withFd(name, [&](int fd) { ASSERT_EQ(ftruncate(fd, 0), 0); });
   std::string const controlShrank = "control segment shrank to 0 bytes, below the 48 bytes";
   expectRefused([&] { r.get(key(1)); }, controlShrank);
   expectRefused([&] { r.generation(); }, controlShrank);
   expectRefused([&] { r.waitForChange(0, 10); }, controlShrank);
   expectRefused([&] { r.writerClosed(); }, controlShrank);
   // The writer trusts its own segments: give it back what it mapped.
   withFd(name, [&](int fd) { ASSERT_EQ(ftruncate(fd, sizeof(ShmLayout::ControlHeader)), 0); });
}

// Fields a reader reads on every pass rather than once when it opens the table.
TEST_F(MirraShmTable, LiveCountBeyondTheSlotsIsRefused) {
   Writer w(name, 16);
   fill(w, 0, 3);
   Reader r(name);
   EXPECT_EQ(r.size(), 3u);
   rawMap<ShmLayout::DataHeader>(w.dataSegmentName())->liveCount = 0xffffffffu;
   expectRefused([&] { r.size(); }, "live count 4294967295 exceeds the 32 slots");
   EXPECT_EQ(iterated(r), range(0, 3));  // a walk does not depend on it
}

TEST_F(MirraShmTable, SegmentsOfAnotherUserOrWritableByOthersAreRefused) {
   if (geteuid() != 0) {
      GTEST_SKIP() << "giving a segment to another user takes root";
   }
   constexpr uid_t other = 65534;
   Writer w(name, 16);
   w.upsert(key(1), stats(1));
   auto chown = [](std::string const& n, uid_t uid) {
      withFd(n, [&](int fd) { ASSERT_EQ(fchown(fd, uid, uid), 0); });
   };
   chown(w.dataSegmentName(), other);
   expectRefused([&] { Reader r(name); }, "shared-memory table " + w.dataSegmentName() +
                                              ": owned by uid 65534, not by root or the "
                                              "writer's uid 0");
   // Segments of the expected user, or of root, are believed.
   EXPECT_TRUE(Reader(name, 1.0, KeyHash(), other).get(key(1)));
   chown(name, other);
   expectRefused([&] { Reader r(name); }, "shared-memory table " + name + ": owned by uid 65534");
   expectRefused([&] { Reader r(name, 1.0, KeyHash(), 65533); },
                 "owned by uid 65534, not by root or the writer's uid 65533");
   EXPECT_TRUE(Reader(name, 1.0, KeyHash(), other).get(key(1)));
   chown(name, 0);
   chown(w.dataSegmentName(), 0);

   for (std::string const& segment : {name, std::string(w.dataSegmentName())}) {
      for (auto const& [mode, octal] : {std::pair{0666, "0666"}, {0620, "0620"}}) {
         withFd(segment, [&, mode = mode](int fd) { ASSERT_EQ(fchmod(fd, mode), 0); });
         expectRefused([&] { Reader r(name); },
                       std::string("writable by users other than its owner (mode ") + octal + ")");
      }
      withFd(segment, [&](int fd) { ASSERT_EQ(fchmod(fd, 0644), 0); });
   }
   EXPECT_TRUE(Reader(name).get(key(1)));
   // Another user may put anything under the name of a table not running yet.
   Kivo::String const squatted = name + "-squatted";
   int const fd = shm_open(squatted.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
   ASSERT_TRUE(fd >= 0 && fchown(fd, other, other) == 0 && !close(fd));
   expectRefused([&] { Writer taken(squatted, 16); }, "taken by an object of uid 65534", EEXIST);
   expectRefused([&] { Reader r(squatted); }, "owned by uid 65534");
   shmUnlink(squatted);
}

// A show command run by any user reads the table of an agent running as root, even one started
// under a strict umask, without being able to write to it.
TEST_F(MirraShmTable, ReaderOfAnotherUserReadsARootTable) {
   if (geteuid() != 0) {
      GTEST_SKIP() << "running a reader as another user takes root";
   }
   mode_t const saved = umask(077);
   Writer w(name, 16);
   umask(saved);
   w.upsert(key(1), stats(1, 3));
   pid_t const child = inChild([&] {
      try {
         return setuid(65534) != 0                                    ? 1
                : Reader(name).get(key(1)).value_or(Stats()).seq != 3 ? 2
                : shm_open(name.c_str(), O_RDWR, 0) >= 0              ? 3
                                                                      : 0;
      } catch (std::exception const& e) {
         std::fprintf(stderr, "reader: %s\n", e.what());
         return 4;
      }
   });
   EXPECT_EQ(exitCodeOf(child), 0) << "2: wrong value, 3: could write, 4: refused";
}

// Whatever the umask, every segment the writer makes is readable by all and writable by it alone.
TEST_F(MirraShmTable, SegmentsAreMode0644WhateverTheUmask) {
   for (mode_t const mask : {mode_t{0}, mode_t{077}, mode_t{0277}}) {
      mode_t const saved = umask(mask);
      {
         Writer w(name, 1);
         fill(w, 0, 40);  // grows: a data segment made after the first
         EXPECT_GT(w.slotCount(), 4u);
         EXPECT_EQ(std::tuple(modeOf(name), modeOf(w.dataSegmentName())), std::tuple(0644u, 0644u))
             << std::oct << mask;
      }
      umask(saved);
   }
}

// Another process of the writer's user turns every empty slot into a tombstone, so no probe
// sequence ends: the writer must neither spin nor lose an entry.
TEST_F(MirraShmTable, WriterWhoseSlotsHaveNoEmptySlotLeftNeitherSpinsNorLosesEntries) {
   Writer w(name, 16);
   fill(w, 0, 10);
   Reader r(name);
   std::uint32_t damaged = 0;
   forEachSlot(w.dataSegmentName(), [&](ShmLayout::SlotHeader& s) {
      if (s.state == ShmLayout::slotEmpty) {
         s.state = ShmLayout::slotDeleted;
         ++damaged;
      }
   });
   ASSERT_GT(damaged, 0u);
   EXPECT_TRUE(!w.find(key(99)) && !w.del(key(99)) && !r.get(key(99)));
   EXPECT_EQ(found(w, 10), range(0, 10));
   EXPECT_TRUE(w.upsert(key(99), stats(99)));  // rebuilds into a clean segment
   Ids expected = range(0, 10);
   expected.insert(99);
   EXPECT_TRUE(found(r, 100) == expected && iterated(w) == expected);
}

// What a writer that is gone may leave under the name, each made from a killed writer's table.
// None of it may keep a new writer out: only a live writer's lock does, whatever pid the control
// segment names.
TEST_F(MirraShmTable, WhatADeadWriterLeftNeverBlocksTheNextWriter) {
   using C = ShmLayout::ControlHeader;
   struct Case {
      char const* what;
      void (*leave)(std::string const& name);
   } const cases[] = {
       {"its table", [](std::string const&) {}},
       {"its table naming a live pid",  // the pid has been reused
        [](std::string const& n) { rawMap<C>(n)->writerPid = 1; }},
       {"its table, closed", [](std::string const& n) { rawMap<C>(n)->closed = 1; }},
       {"a control segment sized but not set up",
        [](std::string const& n) { rawMap<C>(n)->magic = 0; }},
       {"an empty control segment",
        [](std::string const& n) { withFd(n, [](int fd) { ASSERT_EQ(ftruncate(fd, 0), 0); }); }},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      pid_t const dead = killedWritersTable(name);
      c.leave(name);
      std::optional<Reader> stale;
      if (std::string_view(c.what).starts_with("its table")) {
         stale.emplace(name);
         EXPECT_EQ(stale->writerPid(), c.what == cases[1].what ? 1 : dead);
      }
      {
         Writer w(name, 16);
         Reader r(name);
         EXPECT_EQ(std::tuple(r.writerPid(), r.size()), std::tuple(getpid(), std::size_t{0}));
         EXPECT_TRUE(w.upsert(key(2), stats(2)));
         EXPECT_EQ(found(r, 3), Ids{2});
         expectRefused([&] { Writer second(name, 16); },
                       "in use by writer pid " + std::to_string(getpid()), EEXIST);
         if (stale) {  // a reader left on the dead table learns that it is over
            EXPECT_TRUE(stale->writerClosed() &&
                        stale->waitForChange(stale->generation(), 10) == std::nullopt);
         }
      }
      EXPECT_FALSE(shmExists(name) || shmExists(shmTableDataName(name, 1)));
   }
}

namespace {

constexpr int kRacers = 3;

// Shared by the test and its racing writers.
struct WriterRace {
   std::atomic<int> go{0};
   std::atomic<int> done{0};  // racers that have tried
};

// One racer's exit code: 1 won and found its table intact after every loser was done, 2 lost with
// EEXIST "in use by", 3 won but its table changed, 4 any other outcome. A racer that hangs dies
// of its alarm.
int race(std::string const& name, WriterRace& race, int me) {
   while (!race.go) {
      sched_yield();
   }
   try {
      Writer w(name, 16);
      w.upsert(key(me), stats(me));
      for (++race.done; race.done < kRacers;) {
         sched_yield();
      }
      Reader r(name);
      return r.writerPid() == getpid() && found(r, kRacers) == Ids{std::uint32_t(me)} ? 1 : 3;
   } catch (std::exception const& e) {
      ++race.done;
      auto const* errnoError = dynamic_cast<Kivo::ErrnoException const*>(&e);
      if (errnoError && errnoError->error() == EEXIST &&
          std::string_view(e.what()).find("in use by") != std::string_view::npos) {
         return 2;
      }
      std::fprintf(stderr, "racer %d: %s\n", me, e.what());
      return 4;
   }
}

}  // namespace

// Writers started together, over a killed writer's table or over nothing: the kernel's lock lets
// exactly one through, the others are refused, and no loser touches the winner's table.
TEST_F(MirraShmTable, WritersStartedTogetherExactlyOneWins) {
   for (int trial = 0; trial < 100; ++trial) {
      if (trial % 4 != 3) {
         killedWritersTable(name);
      }
      auto shared = sharedWithChildren<WriterRace>();
      WriterRace& r = *shared;
      pid_t racers[kRacers];
      for (int i = 0; i < kRacers; ++i) {
         racers[i] = inChild([&] { return race(name, r, i); });
      }
      r.go = 1;
      int outcomes[5] = {};
      for (pid_t const racer : racers) {
         int const outcome = exitCodeOf(racer);
         ++outcomes[outcome >= 1 && outcome <= 3 ? outcome : 4];
      }
      ASSERT_TRUE(outcomes[1] == 1 && outcomes[2] == kRacers - 1)
          << "trial " << trial << ": " << outcomes[1] << " won, " << outcomes[2] << " lost, "
          << outcomes[3] << " saw the table changed under them, " << outcomes[4] << " failed";
      ASSERT_FALSE(shmExists(name)) << "the winner removes its table when it closes";
   }
}
