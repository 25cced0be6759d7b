// Made by moxc from Unit.toml: change that file, not this one.
#include "rack/UnitLog.h"

#include "attrlog/LevelSaImpl.h"
#include "notify/Delivery.h"
#include "notify/TypeOperations.h"

#include <utility>

namespace Rack {

Unit::Unit(Mox::Name name, std::uint8_t slot) : Mox::Entity(std::move(name)), slot_(slot) {}

Unit::~Unit() {
   moxEnd();
}

Mox::Ptr<Mox::MoxType const> Unit::_fwkType() {
   static auto const type = Mox::typeOf<Unit>("Rack::Unit", Mox::NboAttrLog::typeOperations<Unit>());
   return type;
}

Mox::Ptr<Mox::MoxType const> Unit::fwkType() const {
   return _fwkType();
}

Mox::String8 Unit::attributeString(Mox::AttributeId id) const {
   return Mox::attributeStringOf<Unit>(*this, id);
}

Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> Unit::moxNboAttrLogSaIs(
   Mox::Mox_BitSet flags, unsigned sequence, Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent) {
   return Mox::NboAttrLog::adapterIs<Unit>(*this, flags, sequence, out, parent);
}

} // namespace Rack

namespace {
using X = Rack::Unit;
}

// The delivery passes, one per attribute.
template void Mox::announce<X::Attr::height_t>(X const&);

// The log's templates for this level, compiled here once.
template class Mox::NboAttrLog::LevelSa<Rack::Unit>;
template class Mox::NboAttrLog::LevelFlow<Rack::Unit>;
template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Unit>();
