// Made by moxc from Probe.toml: change that file, not this one.
#include "rack/ProbeLog.h"

#include "attrlog/LevelSaImpl.h"
#include "notify/Delivery.h"
#include "notify/TypeOperations.h"

#include <utility>

namespace Rack {

Probe::Probe(Mox::Name name) : Mox::Entity(std::move(name)) {}

Probe::~Probe() {
   moxEnd();
}

Mox::Ptr<Mox::MoxType const> Probe::_fwkType() {
   static auto const type = Mox::typeOf<Probe>("Rack::Probe", Mox::NboAttrLog::typeOperations<Probe>());
   return type;
}

Mox::Ptr<Mox::MoxType const> Probe::fwkType() const {
   return _fwkType();
}

Mox::String8 Probe::attributeString(Mox::AttributeId id) const {
   return Mox::attributeStringOf<Probe>(*this, id);
}

Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> Probe::moxNboAttrLogSaIs(
   Mox::Mox_BitSet flags, unsigned sequence, Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent) {
   return Mox::NboAttrLog::adapterIs<Probe>(*this, flags, sequence, out, parent);
}

} // namespace Rack

namespace {
using X = Rack::Probe;
}

// The delivery passes, one per attribute.
template void Mox::announce<X::Attr::temperature_t>(X const&);

// The log's templates for this level, compiled here once.
template class Mox::NboAttrLog::LevelSa<Rack::Probe>;
template class Mox::NboAttrLog::LevelFlow<Rack::Probe>;
template Mox::NboAttrLog::TypeOperations const* Mox::NboAttrLog::typeOperations<Rack::Probe>();
