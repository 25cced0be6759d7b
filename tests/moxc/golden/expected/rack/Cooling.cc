// Made by moxc from Cooling.toml: change that file, not this one.
#include "rack/CoolingLog.h"

#include "attrlog/LevelSaImpl.h"
#include "notify/Delivery.h"
#include "notify/TypeOperations.h"

#include <utility>

namespace Rack {

Cooling::Cooling(Mox::Name name) : Rack::Unit(std::move(name), 3) {
   heightIs(2);
   watchedIs(nullptr);
}

Cooling::~Cooling() {
   moxEnd();
}

Mox::Ptr<Mox::MoxType const> Cooling::_fwkType() {
   static auto const type = Mox::typeOf<Cooling>("Rack::Cooling", Mox::NboAttrLog::typeOperations<Cooling>());
   return type;
}

Mox::Ptr<Mox::MoxType const> Cooling::fwkType() const {
   return _fwkType();
}

Mox::String8 Cooling::attributeString(Mox::AttributeId id) const {
   return Mox::attributeStringOf<Cooling>(*this, id);
}

Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> Cooling::moxNboAttrLogSaIs(
   Mox::Mox_BitSet flags, unsigned sequence, Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent) {
   return Mox::NboAttrLog::adapterIs<Cooling>(*this, flags, sequence, out, parent);
}

} // namespace Rack

namespace {
using X = Rack::Cooling;
}

// The delivery passes, one per attribute.
template void Mox::announceKey<X::Attr::fan_t>(X const&, Mox::Name const&);
template void Mox::announceKey<X::Attr::limit_t>(X const&, std::uint8_t const&);
template void Mox::announceKey<X::Attr::curve_t>(X const&, Mox::Name const&);
template void Mox::announceKey<X::Attr::pressure_t>(X const&, Rack::Zone const&);
template void Mox::announce<X::Attr::watched_t>(X const&);
template void Mox::announceKey<X::Attr::probe_t>(X const&, Mox::Name const&);
template void Mox::announceKey<X::Attr::spare_t>(X const&, Mox::Name const&);

// The log's templates for this level, compiled here once.
template class Mox::NboAttrLog::LevelSa<Rack::Cooling>;
template class Mox::NboAttrLog::LevelFlow<Rack::Cooling>;
template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Cooling>();
