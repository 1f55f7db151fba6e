// The shared-memory table: a writer, readers in this process, and a reader in a forked process
// that reads while the writer writes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "Mirra/ShmTable.h"

using namespace Mirra;
using Ids = std::set<std::uint32_t>;

namespace {

// Shaped like a collector statistics key: an id and an inline name compared by its length, so
// bytes past the name do not take part in equality.
struct Key {
   std::uint32_t id = 0;
   std::uint8_t len = 0;
   char name[275] = {};
   bool operator==(Key const& o) const {
      return id == o.id && std::string_view(name, len) == std::string_view(o.name, o.len);
   }
};
static_assert(sizeof(Key) == 280);

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

// About the size of a collector statistics entry. Whole when total is the sum of the counters;
// seq grows with every write.
struct Stats {
   std::uint64_t seq = 0;
   std::uint64_t total = 0;
   std::uint64_t counters[110] = {};
   std::uint32_t keyId = 0;

   bool whole() const {
      std::uint64_t sum = 0;
      for (auto c : counters) {
         sum += c;
      }
      return sum == total;
   }
   void bump(std::uint64_t i) {
      ++seq;
      counters[i % 110] += i % 13 + 1;
      total += i % 13 + 1;
   }
};

Stats stats(std::uint32_t id, std::uint64_t seq = 1) {
   Stats v;
   v.keyId = id;
   for (std::uint64_t i = 0; i < seq; ++i) {
      v.bump(id + i);
   }
   return v;
}

using Writer = ShmTableWriter<Key, Stats, KeyHash>;
using Reader = ShmTableReader<Key, Stats, KeyHash>;

Ids ids(std::vector<Key> const& keys) {
   Ids s;
   for (auto const& k : keys) {
      s.insert(k.id);
   }
   return s;
}

bool shmExists(std::string const& name) {
   int const fd = shm_open(name.c_str(), O_RDONLY, 0);
   return fd >= 0 && close(fd) == 0;
}

double now() {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
       .count();
}

// A read-write mapping made by hand, to damage a segment the way a stray process could.
struct RawShm {
   explicit RawShm(std::string const& name) {
      int const fd = shm_open(name.c_str(), O_RDWR, 0);
      struct stat st {};
      fstat(fd, &st);
      size = static_cast<std::size_t>(st.st_size);
      base =
          static_cast<std::byte*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
      close(fd);
   }
   ~RawShm() { munmap(base, size); }
   template <class T>
   T& at(std::size_t offset) {
      return *reinterpret_cast<T*>(base + offset);
   }
   std::byte* base;
   std::size_t size;
};

// `fn` throws a Kivo::Exception whose text contains `text`, an ErrnoException when `error` is set.
void expectRefused(std::function<void()> const& fn, std::string const& text, int error = 0) {
   try {
      fn();
      ADD_FAILURE() << "not refused; expected: " << text;
   } catch (Kivo::Exception const& e) {
      EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
      auto const* errnoError = dynamic_cast<Kivo::ErrnoException const*>(&e);
      EXPECT_EQ(errnoError ? errnoError->error() : 0, error) << e.what();
   }
}

struct MirraShmTable : ::testing::Test {
   std::string name = "/ipfix-stats-test-" + std::to_string(getpid()) + "-" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name();
   // Whatever a failed test left behind (on Linux, shared-memory objects are files of /dev/shm).
   void TearDown() override {
      std::error_code ec;
      for (auto const& e : std::filesystem::directory_iterator("/dev/shm", ec)) {
         std::string const file = "/" + e.path().filename().string();
         if (file == name || file.starts_with(name + ".")) {
            shmUnlink(file);
         }
      }
   }
};

}  // namespace

TEST_F(MirraShmTable, UpsertGetDelDelAllAndIteration) {
   {
      Writer w(name, 16);
      for (std::uint32_t id = 1; id <= 10; ++id) {
         EXPECT_TRUE(w.upsert(key(id), stats(id)));
      }
      EXPECT_TRUE(w.upsert(key(3), stats(3, 5)));  // replaces
      EXPECT_EQ(w.size(), 10u);
      EXPECT_EQ(w.get(key(3))->seq, 5u);
      EXPECT_EQ(w.find(key(11)), nullptr);
      EXPECT_TRUE(w.del(key(3)));
      EXPECT_FALSE(w.del(key(3)));
      EXPECT_FALSE(w.get(key(3)));
      EXPECT_EQ(w.generation(), 12u);  // deleting a missing key is no change
      Ids seen;
      w.forEach([&](Key const& k, Stats const& v) { seen.insert(v.keyId == k.id ? k.id : 0); });
      EXPECT_EQ(seen, (Ids{1, 2, 4, 5, 6, 7, 8, 9, 10}));

      EXPECT_TRUE(w.upsert(key(3), stats(3, 7)));  // back after its deletion
      EXPECT_EQ(w.get(key(3))->seq, 7u);
      w.delAll();
      EXPECT_EQ(w.size(), 0u);
      w.forEach([](Key const&, Stats const&) { ADD_FAILURE() << "entry after delAll"; });
      std::uint64_t const g = w.generation();
      w.delAll();
      EXPECT_EQ(w.generation(), g);
      Key noisy = key(4);
      w.upsert(noisy, stats(4));
      noisy.name[200] = 'x';  // past the name: not part of the key
      EXPECT_TRUE(w.upsert(noisy, stats(4, 2)));
      EXPECT_EQ(w.size(), 1u);
   }
   EXPECT_FALSE(shmExists(name));
   EXPECT_FALSE(shmExists(shmTableDataName(name, 1)));
}

// Deleting from the middle of a probe sequence must not hide the keys after it, and a stream of
// short-lived keys must not grow the table: rebuilding drops the tombstones.
TEST_F(MirraShmTable, CollidingKeysSurviveDeletesAndTombstonesAreCompacted) {
   ShmTableWriter<Key, Stats, CollidingHash> w(name, 32);
   ShmTableReader<Key, Stats, CollidingHash> r(name);
   for (std::uint32_t id = 0; id < 20; ++id) {
      w.upsert(key(id), stats(id));
   }
   for (std::uint32_t id = 0; id < 20; id += 2) {
      w.del(key(id));
   }
   for (std::uint32_t id = 0; id < 20; ++id) {
      EXPECT_EQ(bool(w.get(key(id))), id % 2 == 1) << id;
      EXPECT_EQ(bool(r.get(key(id))), id % 2 == 1) << id;
   }
   std::uint32_t const slots = w.slotCount();
   for (std::uint32_t id = 100; id < 2100; ++id) {
      ASSERT_TRUE(w.upsert(key(id), stats(id)) && w.del(key(id)));
   }
   EXPECT_EQ(w.slotCount(), slots);
   EXPECT_EQ(r.size(), 10u);
   EXPECT_EQ(r.get(key(19))->keyId, 19u);
}

TEST_F(MirraShmTable, ReaderSeesChangesAndChangedSinceReportsExactlyThem) {
   Writer w(name, 16);
   for (std::uint32_t id = 1; id <= 5; ++id) {
      w.upsert(key(id), stats(id));
   }
   Reader r(name);
   auto c = r.changedSince(0);
   EXPECT_EQ(ids(c.changed), (Ids{1, 2, 3, 4, 5}));
   EXPECT_TRUE(c.deleted.empty());
   EXPECT_EQ(c.generation, w.generation());

   w.upsert(key(2), stats(2, 9));  // changed
   w.upsert(key(6), stats(6));     // new
   w.del(key(3));                  // deleted
   w.del(key(4));                  // deleted, then back
   w.upsert(key(4), stats(4, 2));
   w.upsert(key(5), stats(5, 3));  // changed, then deleted
   w.del(key(5));
   w.del(key(7));  // never there
   c = r.changedSince(c.generation);
   EXPECT_EQ(ids(c.changed), (Ids{2, 4, 6}));
   EXPECT_EQ(ids(c.deleted), (Ids{3, 5}));
   EXPECT_FALSE(c.rebuilt);
   EXPECT_EQ(c.generation, w.generation());
   EXPECT_EQ(r.get(key(2))->seq, 9u);
   EXPECT_FALSE(r.get(key(5)));
   EXPECT_EQ(r.size(), 4u);

   auto const none = r.changedSince(c.generation);
   EXPECT_TRUE(none.changed.empty() && none.deleted.empty());
   // A generation this table never had (a previous writer's) asks for everything.
   auto const foreign = r.changedSince(w.generation() + 100);
   EXPECT_TRUE(foreign.rebuilt);
   EXPECT_EQ(ids(foreign.changed), (Ids{1, 2, 4, 6}));

   w.delAll();
   c = r.changedSince(c.generation);
   EXPECT_TRUE(c.changed.empty());
   EXPECT_EQ(ids(c.deleted), (Ids{1, 2, 4, 6}));
}

// The writer's wake, not the sleeper's own timeout (20 s), must end the wait; the test gives up
// on it after 10.
TEST_F(MirraShmTable, WaitForChangeSleepsUntilTheWriterWakesIt) {
   std::optional<Writer> w(std::in_place, name, 16);
   Reader r(name);
   std::uint64_t const g = w->generation();
   EXPECT_FALSE(r.waitForChange(g, 0.01));  // nothing changes: times out
   w->upsert(key(1), stats(1));
   EXPECT_EQ(r.waitForChange(g, 10), w->generation());  // already changed: no sleep

   RawShm control(name);
   std::atomic_ref<std::uint32_t> waiters(
       control.at<std::uint32_t>(offsetof(ShmLayout::ControlHeader, waiters)));
   // Runs `change` once a reader thread has registered and is asleep; returns what the wait
   // returned, or nothing when it has not returned 10 s later.
   auto sleepThrough = [&](std::function<void()> const& change) {
      std::atomic<pid_t> tid{0};
      auto woken = std::async(std::launch::async, [&, last = r.generation()] {
         tid = gettid();
         return r.waitForChange(last, 20);
      });
      auto asleep = [&] {
         std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
         std::string line;
         std::getline(stat, line);
         return line.find(") S ") != std::string::npos;
      };
      for (double const until = now() + 10;
           !(waiters.load() && tid && asleep()) && now() < until;) {
         std::this_thread::yield();
      }
      change();
      bool const ready = woken.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
      return ready ? std::optional<std::optional<std::uint64_t>>(woken.get()) : std::nullopt;
   };
   auto const woken = sleepThrough([&] { w->upsert(key(2), stats(2)); });
   ASSERT_TRUE(woken) << "the change did not wake the reader";
   EXPECT_EQ(*woken, w->generation());
   EXPECT_EQ(waiters.load(), 0u);

   auto const closed = sleepThrough([&] { w.reset(); });
   ASSERT_TRUE(closed) << "closing the table did not wake the reader";
   EXPECT_EQ(*closed, std::nullopt);
   EXPECT_TRUE(r.writerClosed());
}

TEST_F(MirraShmTable, ReaderAttachedBeforeGrowthFollowsTheWriter) {
   Writer w(name, 1);
   Reader r(name);
   std::string const firstData = r.dataSegmentName();
   std::uint64_t const g0 = r.generation();
   constexpr std::uint32_t n = 3000;
   for (std::uint32_t id = 0; id < n; ++id) {
      ASSERT_TRUE(w.upsert(key(id), stats(id, id % 5 + 1)));
   }
   EXPECT_GE(w.slotCount(), 4096u);
   EXPECT_EQ(r.size(), n);
   EXPECT_EQ(r.dataSegmentName(), w.dataSegmentName());
   EXPECT_FALSE(shmExists(firstData));
   Ids seen;
   r.forEach([&](Key const& k, Stats const& v) { seen.insert(v.seq == k.id % 5 + 1 ? k.id : n); });
   EXPECT_EQ(seen.size(), n);
   EXPECT_FALSE(seen.contains(n));
   for (std::uint32_t id = 0; id < n; id += 7) {
      EXPECT_EQ(r.get(key(id))->keyId, id);
   }
   // Rebuilding forgets deletions, so a reader from before it must take the whole table again.
   auto const c = r.changedSince(g0);
   EXPECT_TRUE(c.rebuilt);
   EXPECT_EQ(c.changed.size(), n);
   w.del(key(17));
   auto const after = r.changedSince(c.generation);
   EXPECT_FALSE(after.rebuilt);
   EXPECT_TRUE(after.changed.empty());
   EXPECT_EQ(ids(after.deleted), (Ids{17}));
}

TEST_F(MirraShmTable, InsertRefusedAtMaximumCapacityKeepsEveryEntry) {
   Writer w(name, 2, 100);
   for (std::uint32_t id = 0; id < 100; ++id) {
      ASSERT_TRUE(w.upsert(key(id), stats(id)));
   }
   std::uint64_t const g = w.generation();
   EXPECT_FALSE(w.upsert(key(100), stats(100)));
   EXPECT_EQ(w.generation(), g);
   EXPECT_TRUE(w.upsert(key(5), stats(5, 2)));  // replacing still works
   Reader r(name);
   for (std::uint32_t id = 0; id < 100; ++id) {
      ASSERT_TRUE(r.get(key(id))) << id;
      EXPECT_EQ(r.get(key(id))->seq, id == 5 ? 2u : 1u);
   }
   EXPECT_FALSE(r.get(key(100)));
   EXPECT_TRUE(w.del(key(0)));
   EXPECT_TRUE(w.upsert(key(100), stats(100)));
   EXPECT_FALSE(w.upsert(key(0), stats(0)));  // a deleted key coming back counts as new
   EXPECT_EQ(r.size(), 100u);
}

// Each case damages one field of a working table, as a stray write could; the reader says what.
TEST_F(MirraShmTable, CorruptSegmentIsRefusedWithTheReason) {
   using ShmLayout::ControlHeader;
   using ShmLayout::DataHeader;
   struct Case {
      std::function<void(ControlHeader&, DataHeader&)> damage;
      char const* text;
   };
   Case const cases[] = {
       {[](ControlHeader& c, DataHeader&) { c.magic ^= 1; },
        "bad magic 0x4c5443415252494c, not a table control segment"},
       {[](ControlHeader& c, DataHeader&) { c.layoutVersion = 99; }, "layout version 99"},
       {[](ControlHeader&, DataHeader& d) { d.magic = 0; }, "not a table data segment"},
       {[](ControlHeader&, DataHeader& d) { d.layoutVersion = 7; }, "layout version 7"},
       {[](ControlHeader&, DataHeader& d) { d.slotCount = 1 << 20; },
        "capacity of 1048576 slots needs"},
       {[](ControlHeader&, DataHeader& d) { d.slotCount = 12; },
        "capacity of 12 slots is not a power of two"},
       {[](ControlHeader&, DataHeader& d) { d.slotSize = 64; }, "slot layout"},
       {[](ControlHeader&, DataHeader& d) { d.valueSize = 8; }, "value size 8 bytes"},
   };
   for (auto const& c : cases) {
      Writer w(name, 16);
      w.upsert(key(1), stats(1));
      RawShm control(name), data(w.dataSegmentName());
      c.damage(control.at<ControlHeader>(0), data.at<DataHeader>(0));
      expectRefused([&] { Reader r(name); }, c.text);
   }
}

TEST_F(MirraShmTable, ForeignOrMissingSegmentIsRefused) {
   int const fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
   expectRefused([&] { Reader r(name); }, "too small for a table control header");
   ASSERT_EQ(ftruncate(fd, 4096), 0);
   ASSERT_EQ(write(fd, "not a table", 11), 11);
   close(fd);
   expectRefused([&] { Reader r(name); }, "not a table control segment");
   expectRefused([&] { Writer w(name, 16); }, "taken by something else", EEXIST);
   EXPECT_TRUE(shmExists(name));
   shmUnlink(name);
   {
      Writer w(name, 16);
      expectRefused([&] { ShmTableReader<Key, std::uint64_t, KeyHash> r(name); },
                    "value size 904 bytes, expected 8");
   }
   expectRefused([&] { Reader r(name); }, "opening shared-memory object " + name, ENOENT);
}

TEST_F(MirraShmTable, StaleTableOfADeadWriterIsReplacedAndALiveOneRefused) {
   pid_t const child = fork();
   if (child == 0) {
      // Never destroyed: the writer dies as if it crashed.
      _exit((new Writer(name, 16))->upsert(key(1), stats(1)) ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   EXPECT_EQ(Reader(name).writerPid(), child);
   EXPECT_TRUE(Reader(name).get(key(1)));

   Writer w(name, 16);
   Reader r(name);
   EXPECT_EQ(r.writerPid(), getpid());
   EXPECT_EQ(r.size(), 0u);
   expectRefused([&] { Writer second(name, 16); },
                 "in use by writer pid " + std::to_string(getpid()), EEXIST);
   EXPECT_TRUE(w.upsert(key(2), stats(2)));
   EXPECT_EQ(r.get(key(2))->seq, 1u);
}

// A writer that dies between making a slot odd and even again leaves it mid-write for good.
TEST_F(MirraShmTable, ReaderReportsASlotLeftMidWriteInsteadOfSpinning) {
   Writer w(name, 16);
   w.upsert(key(1), stats(1));
   Reader r(name, 0.05);
   RawShm data(w.dataSegmentName());
   auto const& h = data.at<ShmLayout::DataHeader>(0);
   ShmLayout::SlotHeader* slot = nullptr;
   for (std::uint32_t i = 0; i < h.slotCount && !slot; ++i) {
      auto& s = data.at<ShmLayout::SlotHeader>(h.slotsOffset + std::size_t{i} * h.slotSize);
      slot = s.state == ShmLayout::slotLive ? &s : nullptr;
   }
   ASSERT_NE(slot, nullptr);
   ++slot->seq;
   expectRefused([&] { r.get(key(1)); }, "has been mid-write for over 0.05 s; writer pid " +
                                             std::to_string(getpid()) + " is alive but stalled");
   expectRefused([&] { r.forEach([](Key const&, Stats const&) {}); }, "mid-write");
   ++slot->seq;
   EXPECT_EQ(r.get(key(1))->seq, 1u);
}

namespace {

constexpr int kHotKeys = 8;
constexpr std::uint64_t kMinUpdates = 100'000;
constexpr std::uint64_t kMinPasses = 2'000;  // reader passes to wait for, however loaded

// Between the writer and its forked reader, outside the table under test.
struct Race {
   std::atomic<bool> writing{false};
   std::atomic<bool> readerDone{false};
   std::atomic<std::uint64_t> passes{0};    // reader passes while the writer writes
   std::atomic<std::uint64_t> finalSeq{0};  // every hot key's last seq, once written
};

// The forked reader: reads until it has seen every hot key's last value. Returns 0 when all went
// well, 1 for an entry that was not whole, 2 for a value older than one already seen, 3 when the
// deadline passed first, 4 for an exception.
int readUntilFinal(std::string const& name, Race& race, double deadline) try {
   Reader r(name);
   std::uint64_t lastSeq[kHotKeys] = {};
   int fault = 0;
   auto check = [&](Key const& k, Stats const& v) {
      if (!v.whole() || v.keyId != k.id || !(k == key(k.id))) {
         std::fprintf(stderr, "torn entry for key %u at seq %llu\n", k.id,
                      static_cast<unsigned long long>(v.seq));
         fault = 1;
      } else if (k.id < kHotKeys) {
         fault = v.seq < lastSeq[k.id] ? 2 : fault;
         lastSeq[k.id] = v.seq;
      }
   };
   for (std::uint64_t pass = 0, gen = 0; now() < deadline; ++pass) {
      std::uint64_t const finalSeq = race.finalSeq.load();
      r.forEach(check);
      Key const k = key(static_cast<std::uint32_t>(pass % kHotKeys));
      if (auto v = r.get(k)) {
         check(k, *v);
      }
      if (fault || (finalSeq && std::count(lastSeq, lastSeq + kHotKeys, finalSeq) == kHotKeys)) {
         return fault;
      }
      if (!finalSeq) {
         race.passes += race.writing ? 1 : 0;
      } else if (std::uint64_t const g = r.generation(); g == gen) {
         gen = r.waitForChange(gen, 0.1).value_or(gen);  // nothing new: sleep until there is
      } else {
         gen = g;
      }
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
   Stats values[kHotKeys];
   for (std::uint32_t id = 0; id < kHotKeys; ++id) {
      w.upsert(key(id), values[id] = stats(id));
   }
   void* page =
       mmap(nullptr, sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   ASSERT_NE(page, MAP_FAILED);
   Race& race = *new (page) Race;
   double const deadline = now() + 30;
   pid_t const child = fork();
   if (child == 0) {
      int const status = readUntilFinal(name, race, deadline);
      race.readerDone = true;
      _exit(status);
   }
   // At least kMinUpdates, and on until the reader has read for a while however loaded the
   // machine is, ending on a whole round so that every hot key ends on the same seq.
   race.writing = true;
   std::uint64_t u = 0;
   for (; u % kHotKeys || u < kMinUpdates ||
          !(race.passes >= kMinPasses || race.readerDone || now() > deadline - 10);
        ++u) {
      auto const id = static_cast<std::uint32_t>(u % kHotKeys);
      values[id].bump(u);
      ASSERT_TRUE(w.upsert(key(id), values[id]));
      for (std::uint32_t f = 0; u == kMinUpdates / 2 && f < 300; ++f) {
         ASSERT_TRUE(w.upsert(key(1000 + f), stats(1000 + f, 3)));  // grows the table
      }
   }
   race.finalSeq = values[0].seq;
   EXPECT_GE(w.slotCount(), 512u);

   int status = 0;
   pid_t done = 0;
   while ((done = waitpid(child, &status, WNOHANG)) == 0 && now() < deadline + 5) {
      usleep(1000);
   }
   if (done == 0) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
   }
   munmap(page, sizeof(Race));
   ASSERT_NE(done, 0) << "the reader did not finish";
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
       << "status " << status << "; 1: torn entry, 2: went backwards, 3: never saw the end";
}
