// Made by moxc from Unit.toml: change that file, not this one.
#pragma once

#include "core/Ptr.h"
#include "core/String8.h"
#include "mox/Entity.h"
#include "notify/Mutators.h"

#include <cstdint>
#include <string_view>

namespace Rack {

/// Base of what fits into a rack.
class Unit : public Mox::Entity {
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
   static constexpr bool moxIsAbstract = true;

   Unit(Mox::Name name, std::uint8_t slot);
   ~Unit() override;

   static Mox::Ptr<Mox::MoxType const> _fwkType();
   Mox::Ptr<Mox::MoxType const> fwkType() const override;
   Mox::String8 attributeString(Mox::AttributeId id) const override;
   bool moxHasAttrLogInterface() const override { return true; }
   using MoxBase::moxNboAttrLogSaIs;
   Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> moxNboAttrLogSaIs(Mox::Mox_BitSet flags, unsigned sequence,
                                                            Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                            Mox::PtrInterface* parent) override;

   /// Slot that the unit sits in.
   std::uint8_t slot() const noexcept { return slot_; }
   /// Height, in rack units.
   std::uint16_t height() const noexcept { return height_; }
   virtual void heightIs(std::uint16_t v) { Mox::scalarIs<Attr::height_t>(*this, v); }

   /// The attributes as values, for `Mox::on` and its like.
   struct Attr : MoxBase::Attr {
      static constexpr struct height_t : Mox::ScalarAttribute<Unit, 258, std::uint16_t> {
         static constexpr std::string_view name = "height";
         static auto& cell(auto& e) noexcept { return e.height_; }
         static void put(auto& e, auto const& v) { e.heightIs(v); }
         static void fire(auto& to) { to.onHeight(); }
      } height{};
   };
   /// The level's own changeable attributes, in the order of their identifiers.
   using MoxAttributes = Mox::TypeList<Attr::height_t>;
   /// Constructor parameters behind the name that can be read back, in order.
   using MoxParameters = Mox::TypeList<>;

private:
   std::uint16_t height_{};
   std::uint8_t slot_;
};

} // namespace Rack

// The delivery passes are compiled with the type, so that nobody else needs its reactor interface.
extern template void Mox::announce<Rack::Unit::Attr::height_t>(Rack::Unit const&);
