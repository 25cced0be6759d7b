// Made by moxc from Probe.toml: change that file, not this one.
#pragma once

#include "attrlog/LevelSa.h"
#include "rack/ProbeReactor.h"

namespace Rack {

/// Mirrors a `Probe` over one stream.
class Probe::MoxNboAttrLogSa : public Mox::NboAttrLog::LevelSa<Probe> {
public:
   class MoxNboAttrLogSaAdapter_;
   class FlowOut;
   using LevelSa::LevelSa;

   virtual void onTemperature() { changed(Attr::temperature); }
};

/// Backlog of one `Probe` on one stream.
class Probe::MoxNboAttrLogSa::FlowOut : public Mox::NboAttrLog::LevelFlow<Probe> {
public:
   using LevelFlow::LevelFlow;

   void moxIsTemperatureDirtyIs(bool dirty) { dirtyBitIs(Attr::temperature, dirty); }
};

/// The reactor through which the entity reaches its adapter.
class Probe::MoxNboAttrLogSa::MoxNboAttrLogSaAdapter_ final : public Mox::NboAttrLog::SaReactor<Probe> {
public:
   using SaReactor::SaReactor;
};

} // namespace Rack

extern template class Mox::NboAttrLog::LevelSa<Rack::Probe>;
extern template class Mox::NboAttrLog::LevelFlow<Rack::Probe>;
extern template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Probe>();
