// The options data model: the encoded rows of the options tables (interface, VRF, flow tracker,
// flow key) and the two signals the options data exporter follows.
//
// A source keeps its table in an OptionsDataSource and signals in this order:
//   1. change rows: dataRecordDel(old) then dataRecordIs(new) (or one of them);
//   2. versionInc(1) on the source: every cached full transmission is stale;
//   3. for a change to send at once: addUpdate(dataSetId, new) on its scope's OptionsDataUpdate.
// Tables the same for every tracker (interfaces, VRFs) live once, in global scope; a tracker's own
// (its flow tracker row, its flow keys) in tracker scope. Each tracker's exporters read one
// OptionsDataContainer that joins the shared global data with the tracker's own.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>
#include <vector>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/MessageBuilder.h"
#include "Kivo/Entity.h"

namespace FlowTracking {

enum class OptionsDataScope : std::uint8_t { scopeGlobal = 0, scopeTracker = 1 };
Kivo::String valueToStrep(OptionsDataScope s);
std::ostream& operator<<(std::ostream& os, OptionsDataScope s);
// Parses the enumerator name.
std::optional<OptionsDataScope> optionsDataScopeInstance(std::string_view text);

using DataRecordPtr = Kivo::Ptr<DataRecord const>;

// The rows of one table: a set of records that notifies each insertion and removal, as
// Kivo::SetColl does. The rows lie in one array, in the order they were added (a removal moves
// the last row into the gap), and each record knows its place, so that membership, insertion and
// removal take constant time, a walk reads the rows in order, and a row costs one pointer. A
// record is in at most one such table at a time.
class DataRecordColl {
 public:
   bool has(DataRecordPtr const& r) const {
      return r && r->slot_ < rows_.size() && rows_[r->slot_] == r;
   }
   std::size_t size() const { return rows_.size(); }
   bool empty() const { return rows_.empty(); }
   void reserve(std::size_t n) { rows_.reserve(n); }
   bool is(DataRecordPtr const& r) {
      if (has(r)) {
         return false;
      }
      KIVO_ASSERT(rows_.size() < Kivo::maxU32());
      r->slot_ = static_cast<std::uint32_t>(rows_.size());
      rows_.push_back(r);
      if (signal_.connectedAny()) {
         signal_.emit(r);
      }
      return true;
   }
   bool del(DataRecordPtr const& r) {
      if (!has(r)) {
         return false;
      }
      DataRecordPtr const old = take_p(r->slot_);
      signal_.emit(old);
      return true;
   }
   // Removes every row: one notification per row when followed, one step otherwise.
   void delAll() {
      if (signal_.observers() == 0) {
         for (DataRecordPtr const& r : rows_) {
            r->slot_ = Kivo::maxU32();
         }
         rows_.clear();
         return;
      }
      while (!rows_.empty()) {
         DataRecordPtr const old = take_p(static_cast<std::uint32_t>(rows_.size() - 1));
         if (!signal_.emit(old)) {
            return;  // a handler destroyed the owner of this table
         }
      }
   }
   auto begin() const { return rows_.begin(); }
   auto end() const { return rows_.end(); }
   Kivo::Signal<DataRecordPtr> const& signal() const { return signal_; }

 private:
   DataRecordPtr take_p(std::uint32_t slot) {
      DataRecordPtr old = std::move(rows_[slot]);
      if (slot + 1 != rows_.size()) {
         rows_[slot] = std::move(rows_.back());
         rows_[slot]->slot_ = slot;
      }
      rows_.pop_back();
      old->slot_ = Kivo::maxU32();
      return old;
   }

   std::vector<DataRecordPtr> rows_;
   Kivo::Signal<DataRecordPtr> signal_;
};

// One table of one source: its rows, each one encoded data record of data set `dataSetId`.
class OptionsDataSource : public Kivo::Object {
 public:
   OptionsDataSource(Kivo::String sourceName, TemplateId dataSetId)
       : sourceName_(std::move(sourceName)), dataSetId_(dataSetId) {}
   Kivo::String const& sourceName() const { return sourceName_; }
   TemplateId dataSetId() const { return dataSetId_; }

   // Rows, keyed by the record itself; iteration order is not meaningful.
   void dataRecordIs(DataRecordPtr const& r) { dataRecord_.is(r); }
   void dataRecordDel(DataRecordPtr const& r) { dataRecord_.del(r); }
   // Removes every row: one notification per row when followed, one step otherwise.
   void dataRecordDelAll() { dataRecord_.delAll(); }
   // Room for `n` rows, for a source about to publish its whole table.
   void dataRecordReserve(std::size_t n) { dataRecord_.reserve(n); }
   std::size_t dataRecords() const { return dataRecord_.size(); }
   DataRecordColl const& dataRecord() const { return dataRecord_; }
   Kivo::Signal<DataRecordPtr> const& onDataRecord() const { return dataRecord_.signal(); }

   // Table version; notifies only when it changes. Returns the new version.
   std::uint32_t versionInc(std::uint32_t n) { return version_.inc(n); }
   KIVO_ATTR(std::uint32_t, version, Version);

 private:
   Kivo::String sourceName_;
   TemplateId dataSetId_;
   DataRecordColl dataRecord_;
};

// The sources of one scope, by name.
class OptionsDataSourceColl : public Kivo::Object {
 public:
   explicit OptionsDataSourceColl(OptionsDataScope scope) : scope_(scope) {}
   OptionsDataScope scope() const { return scope_; }

   // Creates the source, or returns the existing one of that name.
   Kivo::Ptr<OptionsDataSource> sourceIs(Kivo::String const& name, TemplateId dataSetId) {
      return source_.is(name, dataSetId);
   }
   Kivo::Ptr<OptionsDataSource> source(Kivo::String const& name) const { return source_.get(name); }
   void sourceDel(Kivo::String const& name) { source_.del(name); }
   void sourceDelAll() { source_.delAll(); }
   Kivo::Coll<Kivo::String, OptionsDataSource> const& sources() const { return source_; }
   Kivo::Signal<Kivo::String> const& onSource() const { return source_.signal(); }

 private:
   OptionsDataScope scope_;
   Kivo::Coll<Kivo::String, OptionsDataSource> source_;
};

// The latest single-record change of one scope. Followers that must see every update react to each
// `version` change at once: only the latest record is held.
class OptionsDataUpdate : public Kivo::Object {
 public:
   explicit OptionsDataUpdate(OptionsDataScope scope) : scope_(scope) {}
   OptionsDataScope scope() const { return scope_; }
   TemplateId setId() const { return setId_; }
   DataRecordPtr const& record() const { return record_; }

   // Stores the record and bumps `version` by one, even for a record posted before.
   void addUpdate(TemplateId setId, DataRecordPtr record);
   KIVO_ATTR(std::uint32_t, version, Version);

 private:
   OptionsDataScope scope_;
   TemplateId setId_ = 0xFFFF;
   DataRecordPtr record_;
};

// What one tracker's exporters read: both scopes' sources and updates. Shares, never owns alone.
class OptionsDataContainer : public Kivo::Object {
 public:
   explicit OptionsDataContainer(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }

   void dataIs(Kivo::Ptr<OptionsDataSourceColl> const& c) { data_.put(c->scope(), c); }
   void dataDel(OptionsDataScope s) { data_.del(s); }
   void dataDelAll() { data_.delAll(); }
   Kivo::Coll<OptionsDataScope, OptionsDataSourceColl> const& data() const { return data_; }
   void updateIs(Kivo::Ptr<OptionsDataUpdate> const& u) { update_.put(u->scope(), u); }
   void updateDel(OptionsDataScope s) { update_.del(s); }
   void updateDelAll() { update_.delAll(); }
   Kivo::Coll<OptionsDataScope, OptionsDataUpdate> const& update() const { return update_; }

 private:
   Kivo::String name_;
   Kivo::Coll<OptionsDataScope, OptionsDataSourceColl> data_;
   Kivo::Coll<OptionsDataScope, OptionsDataUpdate> update_;
};

// The tracker-scoped data of one tracker.
class TrackerOptionsData : public Kivo::Object {
 public:
   explicit TrackerOptionsData(Kivo::String name)
       : name_(std::move(name)),
         data_(Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeTracker)),
         update_(Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeTracker)) {}
   Kivo::String const& name() const { return name_; }
   Kivo::Ptr<OptionsDataSourceColl> const& data() const { return data_; }
   Kivo::Ptr<OptionsDataUpdate> const& update() const { return update_; }
   void dataDel() { data_ = nullptr; }
   void updateDel() { update_ = nullptr; }

 private:
   Kivo::String name_;
   Kivo::Ptr<OptionsDataSourceColl> data_;
   Kivo::Ptr<OptionsDataUpdate> update_;
};

// All options data of the agent.
class OptionsDataAll : public Kivo::Object {
 public:
   OptionsDataAll()
       : globalData_(Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeGlobal)),
         globalUpdate_(Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal)) {}
   Kivo::Ptr<OptionsDataSourceColl> const& globalData() const { return globalData_; }
   Kivo::Ptr<OptionsDataUpdate> const& globalUpdate() const { return globalUpdate_; }
   void globalDataIs(OptionsDataScope s) { globalData_ = Kivo::make<OptionsDataSourceColl>(s); }
   void globalDataDel() { globalData_ = nullptr; }
   void globalUpdateIs(OptionsDataScope s) { globalUpdate_ = Kivo::make<OptionsDataUpdate>(s); }
   void globalUpdateDel() { globalUpdate_ = nullptr; }
   KIVO_ENTITIES(Kivo::String, TrackerOptionsData, trackerData, TrackerData);

 private:
   Kivo::Ptr<OptionsDataSourceColl> globalData_;
   Kivo::Ptr<OptionsDataUpdate> globalUpdate_;
};

}  // namespace FlowTracking

template <>
struct std::hash<FlowTracking::OptionsDataScope> {
   std::size_t operator()(FlowTracking::OptionsDataScope s) const noexcept {
      return static_cast<std::size_t>(s);
   }
};
