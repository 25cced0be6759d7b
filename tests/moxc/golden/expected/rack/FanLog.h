// Made by moxc from Fan.toml: change that file, not this one.
#pragma once

#include "attrlog/LevelSa.h"
#include "rack/FanReactor.h"

namespace Rack {

/// Mirrors a `Fan` over one stream.
class Fan::MoxNboAttrLogSa : public Mox::NboAttrLog::LevelSa<Fan> {
public:
   class MoxNboAttrLogSaAdapter_;
   class FlowOut;
   using LevelSa::LevelSa;

   virtual void onRunning() { changed(Attr::running); }
   virtual void onSpeed() { changed(Attr::speed); }
   virtual void onTurns() { changed(Attr::turns); }
   virtual void onLabel() { changed(Attr::label); }
};

/// Backlog of one `Fan` on one stream.
class Fan::MoxNboAttrLogSa::FlowOut : public Mox::NboAttrLog::LevelFlow<Fan> {
public:
   using LevelFlow::LevelFlow;

   void moxIsRunningDirtyIs(bool dirty) { dirtyBitIs(Attr::running, dirty); }
   void moxIsSpeedDirtyIs(bool dirty) { dirtyBitIs(Attr::speed, dirty); }
   void moxIsTurnsDirtyIs(bool dirty) { dirtyBitIs(Attr::turns, dirty); }
   void moxIsLabelDirtyIs(bool dirty) { dirtyBitIs(Attr::label, dirty); }
};

/// The reactor through which the entity reaches its adapter.
class Fan::MoxNboAttrLogSa::MoxNboAttrLogSaAdapter_ final : public Mox::NboAttrLog::SaReactor<Fan> {
public:
   using SaReactor::SaReactor;
};

} // namespace Rack

extern template class Mox::NboAttrLog::LevelSa<Rack::Fan>;
extern template class Mox::NboAttrLog::LevelFlow<Rack::Fan>;
extern template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Fan>();
