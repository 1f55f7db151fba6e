#include "agent/Component.h"

#include <sstream>

#include "agent/Log.h"

namespace Agent {

namespace {

// The loader has refused every VRF name the component would refuse.
std::string vrfNetNs(std::string const& vrf) {
   return FlowTracking::netNsForVrf(vrf);
}

template <class Map, class Fn>
void forRemovedKeys(Map const& prev, Map const& next, Fn fn) {
   for (auto const& [key, value] : prev) {
      if (!next.count(key)) {
         fn(key, value);
      }
   }
}

template <class Map>
typename Map::mapped_type const* findIn(Map const* map, typename Map::key_type const& key) {
   if (!map) {
      return nullptr;
   }
   auto it = map->find(key);
   return it == map->end() ? nullptr : &it->second;
}

bool isReservedIntfIndex(std::uint32_t index) {
   using M = FlowTracking::IntfIndexMap;
   return index == M::multicastIntfIndex() || index == M::discardIntfIndex() ||
          index == M::cpuIntfIndex() || index == M::unknownIntfIndex();
}

std::string text(FlowTracking::FlowTrackingType t) {
   std::ostringstream os;
   os << t;
   return os.str();
}

}  // namespace

struct Component::ExporterState {
   // Namespace identity the sockets of each family were made in (0: default namespace).
   std::uint64_t netNs4 = 0;
   std::uint64_t netNs6 = 0;
   bool ready4 = false;
   bool ready6 = false;
   Kivo::Reactor reactor;
};

Component::Component(Kivo::Ptr<Orbo::TaskScheduler> scheduler, AgentConfig const& config,
                     NetNsMap netNs, LinkMap links)
    : scheduler_(std::move(scheduler)), netNs_(std::move(netNs)), links_(std::move(links)) {
   build_(config);
}

Component::~Component() {
   teardown_();
}

void Component::build_(AgentConfig const& config) {
   init_ = Ipfix::ipfixInitSmFactory();
   hwConfig_ = Kivo::make<HwFlowTracking::Config>();
   hwStatus_ = Kivo::make<HwFlowTracking::Status>();
   ftConfig_ = Kivo::make<FlowTracking::Config>();
   configReq_ = Kivo::make<FlowTracking::ConfigReq>();
   info_ = Kivo::make<FlowTracking::FlowTrackingInfo>(config.type);
   intfIndexMap_ = FlowTracking::intfIndexMapFactory();
   vrfIdMap_ = Vrf::VrfIdMap::statusFactory();
   allVrfStatus_ = Ip::allVrfStatusLocalFactory();
   collStats_ = Kivo::make<Mirra::Ipfix::CollectorStatistics>(config.statisticsTable);
   health_ = std::make_unique<CollectorHealthTable>(config.statisticsTable);
   healthMonitor_ = std::make_unique<CollectorHealthMonitor>(info_, hwConfig_, *health_);

   // The records first, as the switch's agents would have them at boot; then the state
   // machines, which pick up everything already there.
   AgentConfig empty;
   empty.type = config.type;
   empty.statisticsTable = config.statisticsTable;
   config_ = empty;
   hwStatus_->sampleRateIs(config.sampleRate);
   applyVrfs_(empty, config);
   applyInterfaces_(empty, config);
   applyTrackers_(empty, config);
   config_ = config;

   infoSm_ = Kivo::make<FlowTracking::FlowTrackingInfoSm>(scheduler_, hwConfig_, info_,
                                                          init_->agentInfo());
   templateSm_ =
       FlowTracking::templateSmFactory(scheduler_, ftConfig_, configReq_, hwStatus_, hwConfig_,
                                       collStats_, info_, init_->elementIdCollection());
   optionsDataManagerSm_ = FlowTracking::optionsDataManagerSmFactory(
       hwConfig_, hwStatus_, info_, intfIndexMap_, vrfIdMap_, collStats_, scheduler_);
   applySoftwareExport_();
}

void Component::teardown_() {
   localCollectorSm_.clear();
   optionsDataManagerSm_ = nullptr;
   templateSm_ = nullptr;
   infoSm_ = nullptr;
   healthMonitor_ = nullptr;
   health_ = nullptr;  // removes the health table
   exporters_.clear();
   hwConfig_ = nullptr;
   hwStatus_ = nullptr;
   info_ = nullptr;
   collStats_ = nullptr;  // removes the table
}

void Component::configIs(AgentConfig const& next) {
   if (next.type != config_.type || next.statisticsTable != config_.statisticsTable) {
      log(Severity::notice, "flow tracking type or statistics table changed: restarting export");
      teardown_();
      build_(next);
      return;
   }
   AgentConfig const prev = config_;
   hwStatus_->sampleRateIs(next.sampleRate);
   applyVrfs_(prev, next);
   applyInterfaces_(prev, next);
   applyTrackers_(prev, next);
   config_ = next;
   applySoftwareExport_();
   healthRetain_();
}

void Component::healthRetain_() {
   health_->retain([this](HealthKey const& k) {
      auto ft = config_.trackers.find(std::string(k.tracker()));
      if (ft == config_.trackers.end()) {
         return false;
      }
      auto exp = ft->second.exporters.find(std::string(k.exporter()));
      if (exp == ft->second.exporters.end()) {
         return false;
      }
      for (auto const& [name, addr] : exp->second.collectors) {
         auto const c = std::visit(
             [](auto const& a) {
                return Mirra::Ipfix::CollectorInfo{a.ipAddr(), a.port()};
             },
             addr);
         if (c == k.collector) {
            return true;
         }
      }
      return false;
   });
}

// -----------------------------------------------------------------------------------------------
// Trackers, templates, exporters

void Component::applyTrackers_(AgentConfig const& prev, AgentConfig const& next) {
   auto removeTracker = [this](std::string const& name) {
      localCollectorSm_.erase(name);
      std::erase_if(exporters_, [&](auto const& e) { return e.first.first == name; });
      hwStatus_->ftStatusDel(name);
      hwConfig_->ftConfigDel(name);
   };
   forRemovedKeys(prev.trackers, next.trackers,
                  [&](std::string const& name, TrackerConfig const&) { removeTracker(name); });
   for (auto const& [name, ft] : next.trackers) {
      TrackerConfig const* old = findIn(&prev.trackers, name);
      if (old && old->id != ft.id) {
         // The tracker id is the observation domain of everything the tracker sends: collectors
         // must see the tracker start afresh under the new one.
         removeTracker(name);
         old = nullptr;
      }
      applyTracker_(old, ft);
   }
}

void Component::applyTracker_(TrackerConfig const* prev, TrackerConfig const& next) {
   // Configuration first, hardware status second, as a switch brings a tracker up.
   auto ft = hwConfig_->ftConfigIs(next.name);
   ft->ftIdIs(next.id);
   ft->activeIntervalIs({next.activeIntervalMs});
   ft->swExportIs(next.softwareExport);
   forRemovedKeys(prev ? prev->exporters : decltype(next.exporters){}, next.exporters,
                  [&](std::string const& name, ExporterConfig const&) {
                     exporters_.erase({next.name, name});
                     ft->expConfigDel(name);
                  });
   for (auto const& [name, exp] : next.exporters) {
      applyExporter_(next, prev ? findIn(&prev->exporters, name) : nullptr, exp);
   }

   auto status = hwStatus_->ftStatusIs(next.name);
   status->activeIntervalIs({next.activeIntervalMs});
   status->inactiveTimeoutIs({next.inactiveTimeoutMs});
   applyTemplates_(prev, next);
}

void Component::applyTemplates_(TrackerConfig const* prev, TrackerConfig const& next) {
   auto status = hwStatus_->ftStatus(next.name);
   forRemovedKeys(prev ? prev->templates : decltype(next.templates){}, next.templates,
                  [&](std::uint16_t id, TemplateConfig const&) { status->templateStatusDel(id); });
   for (auto const& [id, tmpl] : next.templates) {
      TemplateConfig const* old = prev ? findIn(&prev->templates, id) : nullptr;
      if (old && *old == tmpl) {
         continue;
      }
      if (old && old->fields == tmpl.fields) {
         status->templateStatus(id)->inUseIs(tmpl.inUse);
         continue;
      }
      // New fields: the hardware replaces the template under a new generation.
      std::uint32_t const genId = old ? status->templateStatus(id)->genId() + 1 : 0;
      status->templateStatusDel(id);
      auto ts = status->templateStatusIs(id);
      std::uint32_t pos = 0;
      for (FieldConfig const& f : tmpl.fields) {
         auto entry = ts->entryIs(pos++, f.element);
         FlowTracking::updateFieldInfo(init_->elementIdCollection(), entry);
         entry->flowKeyIs(f.flowKey);
      }
      ts->genIdIs(genId);
      ts->inUseIs(tmpl.inUse);
   }
}

void Component::applyExporter_(TrackerConfig const& ft, ExporterConfig const* prev,
                               ExporterConfig const& next) {
   auto e = hwConfig_->ftConfig(ft.name)->expConfigIs(next.name);
   auto& state = exporters_[{ft.name, next.name}];
   if (!state) {
      state = std::make_unique<ExporterState>();
      watchReadiness_(ft.name, next.name);
   }
   if (prev &&
       (prev->vrf != next.vrf || prev->source4 != next.source4 || prev->source6 != next.source6)) {
      // Sockets are made for one VRF and source: close them before either changes.
      e->exporter4ResolvedIs(false);
      e->exporter6ResolvedIs(false);
   }
   e->vrfNameIs(next.vrf);
   e->srcIp4Is(next.source4.value_or(Pelto::IpAddr()));
   e->srcIp6Is(next.source6.value_or(Pelto::Ip6Addr()));
   e->dscpIs(Pelto::DscpValue(next.dscp));
   e->templateIntervalIs(next.templateIntervalMs);
   e->ipfixMtuIs(next.mtu);

   // A collector that changed family leaves the old family's collection first.
   for (auto const& [name, addr] : prev ? prev->collectors : decltype(next.collectors){}) {
      auto it = next.collectors.find(name);
      if (it != next.collectors.end() && it->second.index() == addr.index()) {
         continue;
      }
      if (std::holds_alternative<Pelto::IpAndPort>(addr)) {
         e->collector4Del(name);
      } else {
         e->collector6Del(name);
      }
   }
   for (auto const& [name, addr] : next.collectors) {
      if (auto const* a4 = std::get_if<Pelto::IpAndPort>(&addr)) {
         e->collector4Is(name, *a4);
      } else {
         e->collector6Is(name, std::get<Pelto::Ip6AndPort>(addr));
      }
   }
   resolve_(ft.name, next);
}

// -----------------------------------------------------------------------------------------------
// Host: namespaces, readiness

void Component::netNsIs(NetNsMap netNs) {
   netNs_ = std::move(netNs);
   resolveAll_();
}

void Component::resolveAll_() {
   for (auto const& [ftName, ft] : config_.trackers) {
      for (auto const& [expName, exp] : ft.exporters) {
         resolve_(ftName, exp);
      }
   }
   applySoftwareExport_();
}

void Component::resolve_(std::string const& ft, ExporterConfig const& exp) {
   auto e = hwConfig_->ftConfig(ft)->expConfig(exp.name);
   auto& state = *exporters_.at({ft, exp.name});
   std::string const ns = vrfNetNs(exp.vrf);
   std::optional<std::uint64_t> nsId;
   if (ns.empty()) {
      nsId = 0;
   } else if (auto it = netNs_.find(ns); it != netNs_.end()) {
      nsId = it->second;
   }
   auto set = [&](bool configured, std::uint64_t& madeIn, bool resolved, auto resolvedIs) {
      bool const want = configured && nsId.has_value();
      if (want && resolved && madeIn != *nsId) {
         resolvedIs(false);  // the namespace was made again: new sockets in the new one
      }
      if (want) {
         madeIn = *nsId;
      }
      resolvedIs(want);
   };
   FlowTracking::forEachFamily([&]<class F>(F) {
      set(FlowTracking::familyPick<F::family>(exp.source4, exp.source6).has_value(),
          FlowTracking::familyPick<F::family>(state.netNs4, state.netNs6), F::resolved(*e),
          [&](bool v) { F::resolvedIs(*e, v); });
   });
}

void Component::watchReadiness_(std::string const& ft, std::string const& exp) {
   auto e = hwConfig_->ftConfig(ft)->expConfig(exp);
   auto& reactor = exporters_.at({ft, exp})->reactor;
   FlowTracking::forEachFamily([&]<class F>(F) {
      reactor.watch(F::onReady(*e),
                    [this, ft, exp, e] { logReadiness_(ft, exp, F::family, F::ready(*e)); });
   });
}

void Component::logReadiness_(std::string const& ft, std::string const& exp,
                              FlowTracking::Family family, bool ready) {
   auto it = exporters_.find({ft, exp});
   if (it == exporters_.end()) {
      return;
   }
   bool& was = family == FlowTracking::Family::v6 ? it->second->ready6 : it->second->ready4;
   if (was == ready) {
      return;
   }
   was = ready;
   auto const& msg = ready ? FlowTracking::flowTrackingExporterActive
                           : FlowTracking::flowTrackingExporterInactive;
   std::string vrf = hwConfig_->ftConfig(ft)->expConfig(exp)->vrfName();
   if (vrf.empty()) {
      vrf = Ip::AllVrfStatusLocal::defaultVrfName();
   }
   log(Severity::info, std::string(msg.name) + ": " +
                           FlowTracking::formatLogMessage(
                               msg, FlowTracking::withFamily(family, [](auto F) { return F.text; }),
                               exp, vrf, text(info_->ftrType()), ft));
}

void Component::applySoftwareExport_() {
   // The local collector lives in the VRF's namespace; tell it which namespaces exist.
   std::map<std::string, std::string> vrfNs;
   for (auto const& [ftName, ft] : config_.trackers) {
      for (auto const& [expName, exp] : ft.exporters) {
         std::string const ns = vrfNetNs(exp.vrf);
         if (!ns.empty() && netNs_.count(ns)) {
            vrfNs[exp.vrf] = ns;
         }
      }
   }
   std::vector<std::string> gone;
   for (auto const& [vrf, ns] : allVrfStatus_->vrfNetNsColl()) {
      if (!vrfNs.count(vrf)) {
         gone.push_back(vrf);
      }
   }
   for (auto const& vrf : gone) {
      allVrfStatus_->vrfNetNsDel(vrf);
   }
   for (auto const& [vrf, ns] : vrfNs) {
      allVrfStatus_->vrfNetNsIs(vrf, ns);
   }

   bool any = false;
   for (auto const& [name, ft] : config_.trackers) {
      any |= ft.softwareExport;
   }
   std::erase_if(localCollectorSm_, [&](auto const& sm) {
      auto it = config_.trackers.find(sm.first);
      return it == config_.trackers.end() || !it->second.softwareExport;
   });
   ftConfig_->swExportIs(any);
   for (auto const& [name, ft] : config_.trackers) {
      if (ft.softwareExport && !localCollectorSm_.count(name)) {
         localCollectorSm_[name] = FlowTracking::localCollectorConfigSmFactory(
             name, ftConfig_, hwConfig_->ftConfig(name),
             Kivo::make<FlowTracking::LocalCollectorPams>(name), allVrfStatus_, scheduler_);
      }
   }
}

// -----------------------------------------------------------------------------------------------
// Interfaces and VRFs

void Component::intfIs_(std::string const& name, std::uint32_t index) {
   Pelto::IntfId const id(name);
   if (std::uint32_t const* cur = intfIndexMap_->intfIndex(id); cur && *cur == index) {
      return;  // unchanged: writing it again would send collectors an update for nothing
   }
   intfIndexMap_->intfIndexIs(id, index);
   intfIndexMap_->intfIdIs(index, id);
}

void Component::intfDel_(std::string const& name) {
   Pelto::IntfId const id(name);
   std::uint32_t const* index = intfIndexMap_->intfIndex(id);
   if (!index) {
      return;
   }
   std::uint32_t const i = *index;
   intfIndexMap_->intfIndexDel(id);
   if (Pelto::IntfId const* back = intfIndexMap_->intfId(i); back && *back == id) {
      intfIndexMap_->intfIdDel(i);
   }
}

void Component::applyInterfaces_(AgentConfig const& prev, AgentConfig const& next) {
   if (prev.interfacesFromKernel != next.interfacesFromKernel) {
      std::vector<std::string> names;
      for (auto const& [id, index] : intfIndexMap_->intfIndexColl()) {
         names.push_back(id.stringValue());
      }
      for (auto const& name : names) {
         intfDel_(name);
      }
      if (next.interfacesFromKernel) {
         auto const links = links_;
         config_.interfacesFromKernel = true;
         for (auto const& [index, name] : links) {
            linkIs(index, name);
         }
      } else {
         for (auto const& [name, index] : next.interfaces) {
            intfIs_(name, index);
         }
      }
      return;
   }
   if (next.interfacesFromKernel) {
      return;
   }
   forRemovedKeys(prev.interfaces, next.interfaces,
                  [&](std::string const& name, std::uint32_t) { intfDel_(name); });
   for (auto const& [name, index] : next.interfaces) {
      intfIs_(name, index);
   }
}

void Component::linkIs(std::uint32_t index, std::string const& name) {
   auto [it, added] = links_.try_emplace(index, name);
   std::string const old = it->second;
   it->second = name;
   if (!config_.interfacesFromKernel) {
      return;
   }
   if (!added && old != name) {
      intfDel_(old);
   }
   if (!Pelto::IntfId::validName(name) || isReservedIntfIndex(index)) {
      log(Severity::warning, "interface " + name + " (index " + std::to_string(index) +
                                 ") left out of the interface table: name or index not allowed");
      return;
   }
   intfIs_(name, index);
}

void Component::linkDel(std::uint32_t index) {
   auto it = links_.find(index);
   if (it == links_.end()) {
      return;
   }
   std::string const name = it->second;
   links_.erase(it);
   if (config_.interfacesFromKernel && Pelto::IntfId::validName(name)) {
      intfDel_(name);
   }
}

void Component::applyVrfs_(AgentConfig const& prev, AgentConfig const& next) {
   forRemovedKeys(prev.vrfs, next.vrfs,
                  [&](std::uint32_t id, std::string const&) { vrfIdMap_->vrfNameDel(id); });
   for (auto const& [id, name] : next.vrfs) {
      vrfIdMap_->vrfNameIs(id, name);
   }
}

}  // namespace Agent
