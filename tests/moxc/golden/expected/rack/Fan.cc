// Made by moxc from Fan.toml: change that file, not this one.
#include "rack/FanLog.h"

#include "attrlog/LevelSaImpl.h"
#include "notify/Delivery.h"
#include "notify/TypeOperations.h"

#include <utility>

namespace Rack {

Fan::Fan(Mox::Name name, Mox::Ptr<Rack::Fan> const& twin) : Mox::Entity(std::move(name)), twin_(twin) {}

Fan::~Fan() {
   moxEnd();
}

Mox::Ptr<Mox::MoxType const> Fan::_fwkType() {
   static auto const type = Mox::typeOf<Fan>("Rack::Fan", Mox::NboAttrLog::typeOperations<Fan>());
   return type;
}

Mox::Ptr<Mox::MoxType const> Fan::fwkType() const {
   return _fwkType();
}

Mox::String8 Fan::attributeString(Mox::AttributeId id) const {
   return Mox::attributeStringOf<Fan>(*this, id);
}

Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> Fan::moxNboAttrLogSaIs(
   Mox::Mox_BitSet flags, unsigned sequence, Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent) {
   return Mox::NboAttrLog::adapterIs<Fan>(*this, flags, sequence, out, parent);
}

} // namespace Rack

namespace {
using X = Rack::Fan;
}

// The delivery passes, one per attribute.
template void Mox::announce<X::Attr::running_t>(X const&);
template void Mox::announce<X::Attr::speed_t>(X const&);
template void Mox::announce<X::Attr::turns_t>(X const&);
template void Mox::announce<X::Attr::label_t>(X const&);

// The log's templates for this level, compiled here once.
template class Mox::NboAttrLog::LevelSa<Rack::Fan>;
template class Mox::NboAttrLog::LevelFlow<Rack::Fan>;
template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Fan>();
