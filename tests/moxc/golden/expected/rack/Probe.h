// Made by moxc from Probe.toml: change that file, not this one.
#pragma once

#include "containers/RbTreeMap.h"
#include "core/Ptr.h"
#include "core/String8.h"
#include "mox/Entity.h"
#include "notify/Mutators.h"

#include <string_view>

namespace Rack {

/// A probe of the temperature.
class Probe : public Mox::Entity {
public:
   class NotifieeConst;
   class Notifiee;
   template <class Interface, class Derived> class MoxForwarder;
   class MoxNboAttrLogSa;
   class GenericIf_;
   class _Type;
   using MoxBase = Mox::Entity;
   static constexpr unsigned moxLevel = 2;
   /// Lowest and highest identifier among the level's own attributes.
   static constexpr Mox::AttributeId moxFirstAttribute = 258;
   static constexpr Mox::AttributeId moxLastAttribute = 258;
   /// Whether the log cannot create the type, because its constructor takes what the log does not carry.
   static constexpr bool moxIsAbstract = false;

   explicit Probe(Mox::Name name);
   ~Probe() override;

   static Mox::Ptr<Mox::MoxType const> _fwkType();
   Mox::Ptr<Mox::MoxType const> fwkType() const override;
   Mox::String8 attributeString(Mox::AttributeId id) const override;
   bool moxHasAttrLogInterface() const override { return true; }
   using MoxBase::moxNboAttrLogSaIs;
   Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> moxNboAttrLogSaIs(Mox::Mox_BitSet flags, unsigned sequence,
                                                            Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                            Mox::PtrInterface* parent) override;

   /// Temperature, in degrees Celsius.
   float temperature() const noexcept { return temperature_; }
   void temperatureIs(float v) { Mox::scalarIs<Attr::temperature_t>(*this, v); }

   // The links of the collection's tree.
   Mox::Name const& fwkKey() const noexcept { return moxName(); }
   Mox::RbTreeLinks<Probe>& moxTreeLinks() noexcept { return moxTreeLinks_; }

   /// The attributes as values, for `Mox::on` and its like.
   struct Attr : MoxBase::Attr {
      static constexpr struct temperature_t : Mox::ScalarAttribute<Probe, 258, float> {
         static constexpr std::string_view name = "temperature";
         static auto& cell(auto& e) noexcept { return e.temperature_; }
         static void put(auto& e, auto const& v) { e.temperatureIs(v); }
         static void fire(auto& to) { to.onTemperature(); }
      } temperature{};
   };
   /// The level's own changeable attributes, in the order of their identifiers.
   using MoxAttributes = Mox::TypeList<Attr::temperature_t>;
   /// Constructor parameters behind the name that can be read back, in order.
   using MoxParameters = Mox::TypeList<>;

private:
   Mox::RbTreeLinks<Probe> moxTreeLinks_;
   float temperature_{};
};

} // namespace Rack

// The delivery passes are compiled with the type, so that nobody else needs its reactor interface.
extern template void Mox::announce<Rack::Probe::Attr::temperature_t>(Rack::Probe const&);
