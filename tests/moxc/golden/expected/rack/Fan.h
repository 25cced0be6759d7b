// Made by moxc from Fan.toml: change that file, not this one.
#pragma once

#include "core/Identifiers.h"
#include "core/Ptr.h"
#include "core/String8.h"
#include "mox/Entity.h"
#include "notify/Mutators.h"

#include <string_view>

namespace Rack {

/// A fan of a rack.
class Fan : public Mox::Entity {
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
   static constexpr Mox::AttributeId moxFirstAttribute = 259;
   static constexpr Mox::AttributeId moxLastAttribute = 263;
   /// Whether the log cannot create the type, because its constructor takes what the log does not carry.
   static constexpr bool moxIsAbstract = false;

   Fan(Mox::Name name, Mox::Ptr<Rack::Fan> const& twin);
   ~Fan() override;

   static Mox::Ptr<Mox::MoxType const> _fwkType();
   Mox::Ptr<Mox::MoxType const> fwkType() const override;
   Mox::String8 attributeString(Mox::AttributeId id) const override;
   bool moxHasAttrLogInterface() const override { return true; }
   using MoxBase::moxNboAttrLogSaIs;
   Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> moxNboAttrLogSaIs(Mox::Mox_BitSet flags, unsigned sequence,
                                                            Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                            Mox::PtrInterface* parent) override;

   /// Fan that takes over when this one fails, or null.
   Mox::Ptr<Rack::Fan> const& twin() const noexcept { return twin_; }
   /// Whether it turns.
   bool running() const noexcept { return running_; }
   void runningIs(bool v) { Mox::scalarIs<Attr::running_t>(*this, v); }
   /// Speed, in turns per minute.
   double speed() const noexcept { return speed_; }
   void speedIs(double const& v) { Mox::scalarIs<Attr::speed_t>(*this, v); }
   /// Turns so far.
   Mox::U64 turns() const noexcept { return turns_; }
   void turnsIs(Mox::U64 const& v) { Mox::scalarIs<Attr::turns_t>(*this, v); }
   Mox::U64 turnsInc(Mox::U64 const& delta) { return Mox::counterInc<Attr::turns_t>(*this, delta); }
   /// What is written on it.
   Mox::String8 const& label() const noexcept { return label_; }
   void labelIs(Mox::String8 const& v) { Mox::scalarIs<Attr::label_t>(*this, v); }
   Mox::String8 labelDel() { return Mox::optionalDel<Attr::label_t>(*this); }

   // The link of the directory's hash bucket.
   Mox::Name const& fwkKey() const noexcept { return moxName(); }
   Mox::Ptr<Fan> const& moxNext() const noexcept { return moxNext_; }
   void moxNextIs(Mox::Ptr<Fan> const& next) {
      moxNext_ = next;
      moxChangeCountInc();
   }

   /// The attributes as values, for `Mox::on` and its like.
   struct Attr : MoxBase::Attr {
      static constexpr struct twin_t : Mox::ParameterAttribute<Fan, 258, Rack::Fan> {
         static constexpr std::string_view name = "twin";
         static auto& cell(auto& e) noexcept { return e.twin_; }
      } twin{};
      static constexpr struct running_t : Mox::ScalarAttribute<Fan, 259, bool> {
         static constexpr std::string_view name = "running";
         static auto& cell(auto& e) noexcept { return e.running_; }
         static void put(auto& e, auto const& v) { e.runningIs(v); }
         static void fire(auto& to) { to.onRunning(); }
      } running{};
      static constexpr struct speed_t : Mox::ScalarAttribute<Fan, 260, double> {
         static constexpr std::string_view name = "speed";
         static auto& cell(auto& e) noexcept { return e.speed_; }
         static void put(auto& e, auto const& v) { e.speedIs(v); }
         static void fire(auto& to) { to.onSpeed(); }
      } speed{};
      static constexpr struct turns_t : Mox::CounterAttribute<Fan, 262, Mox::U64> {
         static constexpr std::string_view name = "turns";
         static auto& cell(auto& e) noexcept { return e.turns_; }
         static void put(auto& e, auto const& v) { e.turnsIs(v); }
         static void fire(auto& to) { to.onTurns(); }
      } turns{};
      static constexpr struct label_t : Mox::OptionalAttribute<Fan, 263, Mox::String8> {
         static constexpr std::string_view name = "label";
         static auto& cell(auto& e) noexcept { return e.label_; }
         static void put(auto& e, auto const& v) { e.labelIs(v); }
         static void fire(auto& to) { to.onLabel(); }
         static void drop(auto& e) { e.labelDel(); }
      } label{};
   };
   /// The level's own changeable attributes, in the order of their identifiers.
   using MoxAttributes = Mox::TypeList<Attr::running_t, Attr::speed_t, Attr::turns_t, Attr::label_t>;
   /// Constructor parameters behind the name that can be read back, in order.
   using MoxParameters = Mox::TypeList<Attr::twin_t>;

private:
   Mox::Ptr<Rack::Fan> twin_;
   double speed_{1200.0};
   Mox::U64 turns_{};
   Mox::String8 label_{};
   Mox::Ptr<Fan> moxNext_;
   bool running_{};
};

} // namespace Rack

// The delivery passes are compiled with the type, so that nobody else needs its reactor interface.
extern template void Mox::announce<Rack::Fan::Attr::running_t>(Rack::Fan const&);
extern template void Mox::announce<Rack::Fan::Attr::speed_t>(Rack::Fan const&);
extern template void Mox::announce<Rack::Fan::Attr::turns_t>(Rack::Fan const&);
extern template void Mox::announce<Rack::Fan::Attr::label_t>(Rack::Fan const&);
