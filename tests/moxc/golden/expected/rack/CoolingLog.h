// Made by moxc from Cooling.toml: change that file, not this one.
#pragma once

#include "attrlog/LevelSa.h"
#include "rack/CoolingReactor.h"
#include "rack/FanLog.h"
#include "rack/ProbeLog.h"
#include "rack/UnitLog.h"

namespace Rack {

/// Mirrors a `Cooling` over one stream.
class Cooling::MoxNboAttrLogSa : public Mox::NboAttrLog::LevelSa<Cooling> {
public:
   class MoxNboAttrLogSaAdapter_;
   class FlowOut;
   using LevelSa::LevelSa;

   virtual void onFan(Mox::Name key) { changed(Attr::fan, key); }
   Mox::Ptr<Rack::Fan::MoxNboAttrLogSa> fanNboAttrLogAdapterIs(
      Mox::Mox_BitSet flags, Mox::Ptr<Rack::Fan> const& child, unsigned sequence,
      Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent) {
      return childAdapterIs(Attr::fan, flags, child, sequence, out, parent);
   }
   Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> fanNboAttrLogAdapterDel(Mox::Ptr<Rack::Fan> const& child) {
      return childAdapterDel(child);
   }
   virtual void onLimit(std::uint8_t key) { changed(Attr::limit, key); }
   virtual void onCurve(Mox::Name key) { changed(Attr::curve, key); }
   virtual void onPressure(Rack::Zone key) { changed(Attr::pressure, key); }
   virtual void onWatched() { changed(Attr::watched); }
   virtual void onProbe(Mox::Name key) { changed(Attr::probe, key); }
   Mox::Ptr<Rack::Probe::MoxNboAttrLogSa> probeNboAttrLogAdapterIs(
      Mox::Mox_BitSet flags, Mox::Ptr<Rack::Probe> const& child, unsigned sequence,
      Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent) {
      return childAdapterIs(Attr::probe, flags, child, sequence, out, parent);
   }
   Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> probeNboAttrLogAdapterDel(Mox::Ptr<Rack::Probe> const& child) {
      return childAdapterDel(child);
   }
   virtual void onSpare(Mox::Name key) { changed(Attr::spare, key); }
};

/// Backlog of one `Cooling` on one stream.
class Cooling::MoxNboAttrLogSa::FlowOut : public Mox::NboAttrLog::LevelFlow<Cooling> {
public:
   using LevelFlow::LevelFlow;

   using MoxMoxIsFanDirty = Mox::NboAttrLog::DirtyKey<Attr::fan_t>;
   void moxFanHasSyncedIs(bool synced) { hasSyncedIs(Attr::fan, synced); }
   void newMoxIsFanDirty(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::fan, key, dirty); }
   void moxIsFanDirtyIs(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::fan, key, dirty); }
   void moxIsFanDirtyDel(Mox::Name const& key) { dirtyKeyDel(Attr::fan, key); }
   using MoxMoxIsLimitDirty = Mox::NboAttrLog::DirtyKey<Attr::limit_t>;
   void moxLimitHasSyncedIs(bool synced) { hasSyncedIs(Attr::limit, synced); }
   void newMoxIsLimitDirty(std::uint8_t key, bool dirty) { dirtyKeyIs(Attr::limit, key, dirty); }
   void moxIsLimitDirtyIs(std::uint8_t key, bool dirty) { dirtyKeyIs(Attr::limit, key, dirty); }
   void moxIsLimitDirtyDel(std::uint8_t key) { dirtyKeyDel(Attr::limit, key); }
   using MoxMoxIsCurveDirty = Mox::NboAttrLog::DirtyKey<Attr::curve_t>;
   void moxCurveHasSyncedIs(bool synced) { hasSyncedIs(Attr::curve, synced); }
   void newMoxIsCurveDirty(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::curve, key, dirty); }
   void moxIsCurveDirtyIs(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::curve, key, dirty); }
   void moxIsCurveDirtyDel(Mox::Name const& key) { dirtyKeyDel(Attr::curve, key); }
   void moxIsPressureDirtyIs(bool dirty) { dirtyBitIs(Attr::pressure, dirty); }
   void moxIsWatchedDirtyIs(bool dirty) { dirtyBitIs(Attr::watched, dirty); }
   using MoxMoxIsProbeDirty = Mox::NboAttrLog::DirtyKey<Attr::probe_t>;
   void moxProbeHasSyncedIs(bool synced) { hasSyncedIs(Attr::probe, synced); }
   void newMoxIsProbeDirty(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::probe, key, dirty); }
   void moxIsProbeDirtyIs(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::probe, key, dirty); }
   void moxIsProbeDirtyDel(Mox::Name const& key) { dirtyKeyDel(Attr::probe, key); }
   using MoxMoxIsSpareDirty = Mox::NboAttrLog::DirtyKey<Attr::spare_t>;
   void moxSpareHasSyncedIs(bool synced) { hasSyncedIs(Attr::spare, synced); }
   void newMoxIsSpareDirty(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::spare, key, dirty); }
   void moxIsSpareDirtyIs(Mox::Name const& key, bool dirty) { dirtyKeyIs(Attr::spare, key, dirty); }
   void moxIsSpareDirtyDel(Mox::Name const& key) { dirtyKeyDel(Attr::spare, key); }
};

/// The reactor through which the entity reaches its adapter.
class Cooling::MoxNboAttrLogSa::MoxNboAttrLogSaAdapter_ final : public Mox::NboAttrLog::SaReactor<Cooling> {
public:
   using SaReactor::SaReactor;
};

} // namespace Rack

extern template class Mox::NboAttrLog::LevelSa<Rack::Cooling>;
extern template class Mox::NboAttrLog::LevelFlow<Rack::Cooling>;
extern template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Cooling>();
