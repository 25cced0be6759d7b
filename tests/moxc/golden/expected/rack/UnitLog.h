// Made by moxc from Unit.toml: change that file, not this one.
#pragma once

#include "attrlog/LevelSa.h"
#include "rack/UnitReactor.h"

namespace Rack {

/// Mirrors a `Unit` over one stream.
class Unit::MoxNboAttrLogSa : public Mox::NboAttrLog::LevelSa<Unit> {
public:
   class MoxNboAttrLogSaAdapter_;
   class FlowOut;
   using LevelSa::LevelSa;

   virtual void onHeight() { changed(Attr::height); }
};

/// Backlog of one `Unit` on one stream.
class Unit::MoxNboAttrLogSa::FlowOut : public Mox::NboAttrLog::LevelFlow<Unit> {
public:
   using LevelFlow::LevelFlow;

   void moxIsHeightDirtyIs(bool dirty) { dirtyBitIs(Attr::height, dirty); }
};

/// The reactor through which the entity reaches its adapter.
class Unit::MoxNboAttrLogSa::MoxNboAttrLogSaAdapter_ final : public Mox::NboAttrLog::SaReactor<Unit> {
public:
   using SaReactor::SaReactor;
};

} // namespace Rack

extern template class Mox::NboAttrLog::LevelSa<Rack::Unit>;
extern template class Mox::NboAttrLog::LevelFlow<Rack::Unit>;
extern template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Unit>();
