// The interface table options data: which name belongs to each 32-bit interface index that flow
// records carry (ingressInterface / egressInterface).
//
// IntfIndexMap is the input, filled by the agent as interfaces get their indexes. InterfaceTableSm
// keeps one data record per indexed interface in its OptionsDataSource, beside four fixed records
// for the reserved indexes (multicast, discard, CPU, unknown), and posts every new or changed
// interface record to the global OptionsDataUpdate so that collectors learn it without waiting
// for the next full transmission. A removed interface is never posted: it only leaves the table.
//
// Record layout (value octets of one data record of the interface table's options template):
//   0  4  interface index, network order      (scope field ingressInterface)
//   4  1  name length L, 1..254               (interfaceName, short variable-length form)
//   5  L  name octets, no terminator
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "Ipfix/OptionsDataExporter.h"
#include "Ipfix/OptionsTemplate.h"
#include "Kivo/Entity.h"
#include "Kivo/LinearProbing.h"
#include "Pelto/Address.h"

namespace FlowTracking {

// Interfaces and their indexes, both ways. The export component reads `intfIndex` only: one
// lookup per change, and a walk of the whole map per table build, in no particular order.
class IntfIndexMap : public Kivo::Object {
   KIVO_VALUES_OF_KIND(Pelto::IntfId, std::uint32_t, ::Kivo::Dense, intfIndex, IntfIndex);
   KIVO_VALUES(std::uint32_t, Pelto::IntfId, intfId, IntfId);

 public:
   // The reserved interfaces: traffic without a single egress interface, dropped traffic, the
   // switch itself, and an interface the hardware could not tell.
   static constexpr std::uint32_t numReservedIntfs() { return 4; }
   static constexpr std::string_view multicastIntfName() { return "multicast"; }
   static constexpr std::string_view discardIntfName() { return "discard"; }
   static constexpr std::string_view cpuIntfName() { return "CPU"; }
   static constexpr std::string_view unknownIntfName() { return "unknown"; }
   static constexpr std::uint32_t multicastIntfIndex() { return 0x80000000u; }
   static constexpr std::uint32_t discardIntfIndex() { return 0x40000000u; }
   static constexpr std::uint32_t cpuIntfIndex() { return 0x3FFFFFFFu; }
   static constexpr std::uint32_t unknownIntfIndex() { return 0; }
};

Kivo::Ptr<IntfIndexMap> intfIndexMapFactory();

// Records found by a key they carry (KeyOf: DataRecord const& -> std::string_view), so that the
// index keeps no copy of the keys: open addressing with linear probing over a power-of-two array,
// at most 7/8 full, removal by shifting followers back (no tombstones; Kivo/LinearProbing.h). A
// slot is one word: the record's address, holding one reference, with 16 bits of the key's hash in
// the top bits that user-space addresses leave zero, so that a probe reads a record only when those
// bits match. A row costs 8 to 16 octets of index and one hash of its key to insert or find.
template <std::string_view (*KeyOf)(DataRecord const&)>
class DataRecordIndex {
   using Slot = std::uintptr_t;
   // A record of the filler: its slot word (holding its reference) and its home slot.
   struct Pending {
      Slot slot;
      std::size_t home;
   };

 public:
   DataRecordIndex() = default;
   DataRecordIndex(DataRecordIndex const&) = delete;
   DataRecordIndex& operator=(DataRecordIndex const&) = delete;
   ~DataRecordIndex() { clear(); }

   std::size_t size() const { return size_; }
   // Room for `n` records without growing.
   void reserve(std::size_t n) {
      if (n > slots_.size() / 8 * 7) {
         rehash_p(n);
      }
   }
   void clear() {
      for (Slot s : slots_) {
         if (s) {
            record_p(s)->unref();
         }
      }
      slots_.clear();
      size_ = 0;
   }
   DataRecord const* find(std::string_view key) const {
      if (slots_.empty()) {
         return nullptr;
      }
      Slot const s = slots_[slotOf_p(key, hashOf_p(key))];
      return s ? record_p(s) : nullptr;
   }
   // Adds `r`, or replaces the record of the same key.
   void insert(DataRecord const& r) {
      reserve(size_ + 1);
      std::uint64_t const h = hashOf_p(KeyOf(r));
      Slot& s = slots_[slotOf_p(KeyOf(r), h)];
      if (s) {
         record_p(s)->unref();
      } else {
         ++size_;
      }
      r.ref();
      s = address_p(r) | (h & tagMask);
   }
   // Fills the index from a table rebuild. The slots of a large index lie beyond the caches, so
   // inserting records in the order a table makes them would miss the cache on every one. The
   // filler takes each record while it is fresh (its reference and its hash) and leaves the
   // index alone; when it is destroyed it orders the records by home slot (a counting sort on
   // the top bits) and writes the slots in that order, so that the slot array is written from
   // one end to the other. Every record is in when the filler is destroyed.
   // REQUIRES: no two added records, and no added record and one already in, share a key (keys
   // are not compared); nothing else uses the index until the filler is destroyed.
   class Filler {
    public:
      Filler(DataRecordIndex& index, std::size_t n) : index_(index) {
         index.reserve(index.size() + n);
         pending_.reserve(n);
      }
      Filler(Filler const&) = delete;
      Filler& operator=(Filler const&) = delete;
      ~Filler() { index_.fill_p(pending_); }
      void add(DataRecord const& r) {
         std::uint64_t const h = hashOf_p(KeyOf(r));
         r.ref();
         pending_.push_back({address_p(r) | (h & tagMask), index_.homeOf_p(h)});
      }

    private:
      DataRecordIndex& index_;
      std::vector<Pending> pending_;
   };
   void erase(std::string_view key) {
      if (slots_.empty()) {
         return;
      }
      std::size_t const hole = slotOf_p(key, hashOf_p(key));
      if (!slots_[hole]) {
         return;
      }
      record_p(slots_[hole])->unref();
      --size_;
      Kivo::freeSlotShiftingBack(
          slots_, hole, [this](Slot s) { return homeOf_p(hashOf_p(KeyOf(*record_p(s)))); });
   }

 private:
   static_assert(sizeof(Slot) == 8, "the tag lives in the top bits of a 64-bit address");
   static constexpr unsigned addressBits = 48;
   static constexpr std::uint64_t tagMask = ~((std::uint64_t{1} << addressBits) - 1);

   static Slot address_p(DataRecord const& r) {
      auto const address = reinterpret_cast<std::uintptr_t>(&r);
      KIVO_ASSERT((address >> addressBits) == 0);
      return address;
   }
   // Writes the pending records in the order of their home slots, each into the first free slot
   // from its home on. Room is reserved and none of their keys is in.
   void fill_p(std::vector<Pending> const& pending) {
      // Few enough buckets that the lines being written, one per bucket, stay in the first-level
      // cache; a bucket's slots are then written within a few kilobytes.
      constexpr unsigned bucketBits = 8;
      unsigned const slotBits = 64 - shift_;
      unsigned const bucketShift = slotBits > bucketBits ? slotBits - bucketBits : 0;
      std::vector<std::uint32_t> start((std::size_t{1} << bucketBits) + 1);
      for (Pending const& p : pending) {
         ++start[(p.home >> bucketShift) + 1];
      }
      for (std::size_t b = 1; b < start.size(); ++b) {
         start[b] += start[b - 1];
      }
      auto const ordered = std::make_unique_for_overwrite<Pending[]>(pending.size());
      for (Pending const& p : pending) {
         ordered[start[p.home >> bucketShift]++] = p;
      }
      for (Pending const& p : std::span(ordered.get(), pending.size())) {
         slots_[Kivo::freeSlotFrom(slots_, p.home)] = p.slot;
      }
      size_ += pending.size();
   }
   static DataRecord const* record_p(Slot s) {
      return reinterpret_cast<DataRecord const*>(s & ~tagMask);
   }
   // The first and last eight octets (four, or three single ones, for shorter keys) and every
   // whole word between them, each folded in by a 64 x 64 to 128-bit multiply: a handful of
   // instructions for the names tables carry. The top 16 bits are the tag and the bits below
   // them pick the home slot.
   static std::uint64_t hashOf_p(std::string_view key) {
      constexpr std::uint64_t k0 = 0x9e3779b97f4a7c15u;
      constexpr std::uint64_t k1 = 0xe7037ed1a0b428dbu;
      std::size_t const n = key.size();
      char const* const p = key.data();
      std::uint64_t a = n * k0;
      std::uint64_t b = 0;
      if (n >= 8) {
         for (std::size_t i = 8; i + 8 < n; i += 8) {
            a = mix_p(a ^ load_p<std::uint64_t>(p + i), k1);
         }
         a ^= load_p<std::uint64_t>(p);
         b = load_p<std::uint64_t>(p + n - 8);
      } else if (n >= 4) {
         a ^= load_p<std::uint32_t>(p);
         b = load_p<std::uint32_t>(p + n - 4);
      } else if (n > 0) {
         b = std::uint64_t{static_cast<unsigned char>(p[0])} << 16 |
             std::uint64_t{static_cast<unsigned char>(p[n / 2])} << 8 |
             static_cast<unsigned char>(p[n - 1]);
      }
      return mix_p(a ^ k1, b ^ k0);
   }
   template <class T>
   static T load_p(char const* p) {
      T v;
      std::memcpy(&v, p, sizeof(v));
      return v;
   }
   static std::uint64_t mix_p(std::uint64_t a, std::uint64_t b) {
      unsigned __int128 const m = static_cast<unsigned __int128>(a) * b;
      return static_cast<std::uint64_t>(m >> 64) ^ static_cast<std::uint64_t>(m);
   }
   std::size_t homeOf_p(std::uint64_t h) const {
      return static_cast<std::size_t>((h << 16) >> shift_);
   }
   // The slot holding `key`, or the empty slot where it would go.
   std::size_t slotOf_p(std::string_view key, std::uint64_t h) const {
      std::size_t const mask = slots_.size() - 1;
      Slot const tag = h & tagMask;
      std::size_t i = homeOf_p(h);
      while (slots_[i] && ((slots_[i] & tagMask) != tag || KeyOf(*record_p(slots_[i])) != key)) {
         i = (i + 1) & mask;
      }
      return i;
   }
   void rehash_p(std::size_t n) {
      unsigned bits = 4;
      while ((std::size_t{1} << bits) / 8 * 7 < n) {
         ++bits;
      }
      std::vector<Slot> old(std::size_t{1} << bits);
      old.swap(slots_);
      shift_ = 64 - bits;
      for (Slot s : old) {
         if (s) {
            slots_[Kivo::freeSlotFrom(slots_, homeOf_p(hashOf_p(KeyOf(*record_p(s)))))] = s;
         }
      }
   }

   std::vector<Slot> slots_;
   std::size_t size_ = 0;
   unsigned shift_ = 64;
};

class InterfaceTableSm : public Kivo::Object {
 public:
   // Builds the whole table (every indexed interface and the reserved records) before returning.
   InterfaceTableSm(Kivo::Ptr<OptionsDataSource> dataSource,
                    Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                    Kivo::Ptr<IntfIndexMap const> intfIndexMap);
   ~InterfaceTableSm() override;

   // Template id of the interface table's options template; updates are posted under it.
   static TemplateId setId();
   // The longest record the table can give: index, length octet and the longest interface name.
   // The layout itself has room for 254 octets of name.
   static constexpr std::uint32_t maxDataRecordLen() {
      return static_cast<std::uint32_t>(recordLen(intfTable.fields, Pelto::IntfId::maxNameLen));
   }

   // Full rebuild of the data source; bumps its version once.
   void handleInitialized();
   // One interface's index was set, changed or removed.
   void handleIntfId(Pelto::IntfId const& intfId);

 private:
   friend struct InterfaceTableSmProbe;

   Kivo::Ptr<OptionsDataSource> const& dataSource() const { return dataSource_; }
   Kivo::Ptr<IntfIndexMap const> const& intfIndexMap() const { return intfIndexMap_; }
   TemplateId setIdVal() const { return setIdVal_; }
   void setIdValIs(TemplateId id) { setIdVal_ = id; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   // The record published for each interface; the reserved records are not here.
   DataRecordPtr dataRecord(Pelto::IntfId const& intfId) const;
   std::size_t dataRecords() const { return dataRecord_.size(); }
   void dataRecordIs(Pelto::IntfId const& intfId, DataRecordPtr const& record);
   void dataRecordDel(Pelto::IntfId const& intfId);
   void dataRecordDelAll() { dataRecord_.clear(); }

   // The record of one interface. Aborts for an empty name or one of 255 octets or more.
   DataRecordPtr makeDataRecord(Kivo::String const& intfName, std::uint32_t intfIndex) const;

   // The name follows the index and its length octet.
   static constexpr std::size_t nameOffset = intfTable.fields[0].len + 1;
   static std::string_view nameOf(DataRecord const& r) { return r.data().substr(nameOffset); }

   Kivo::Ptr<OptionsDataSource> dataSource_;
   Kivo::Ptr<OptionsDataUpdate> dataUpdate_;
   Kivo::Ptr<IntfIndexMap const> intfIndexMap_;
   TemplateId setIdVal_;
   DataRecordIndex<&nameOf> dataRecord_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

Kivo::Ptr<InterfaceTableSm> interfaceTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<IntfIndexMap const> const& intfIndexMap);

}  // namespace FlowTracking
