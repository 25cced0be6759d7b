// Made by moxc from Unit.toml: change that file, not this one.
#pragma once

#include "notify/EntityReactor.h"
#include "rack/Unit.h"

namespace Rack {

/// Watches a `Unit`: override the notifications that matter.
class Unit::NotifieeConst : public Mox::Entity::NotifieeConst {
public:
   static constexpr Mox::ReactorClass reactorClass{&Mox::Entity::NotifieeConst::reactorClass};
   using MoxNotifier = Unit;

   void isRegisteredNotifieeIs(bool registered) const override {
      Mox::Entity::NotifieeConst::isRegisteredNotifieeIs(registered);
   }
   Mox::Name name() const override { return Mox::Entity::NotifieeConst::name(); }
   void notifierIs(Mox::Ptr<Mox::PtrInterface const> const& n) override { notifierOfTypeIs<Unit>(n); }

   virtual void onHeight() {}

   Mox::Ptr<Unit const> notifier() const noexcept { return notifierOfType<Unit>(); }

protected:
   NotifieeConst() noexcept { reactorClassIs(reactorClass); }
};

/// The variant for reactors that change the entity they watch.
class Unit::Notifiee : public Unit::NotifieeConst {
public:
   Mox::Ptr<Unit> notifier() const noexcept { return changeable<Unit>(); }
};

/// Carries every notification to `Derived::forward(attribute, key...)`.
template <class Interface, class Derived>
class Unit::MoxForwarder : public Mox::Entity::MoxForwarder<Interface, Derived> {
public:
   void onHeight() override { this->self().forward(Attr::height); }
};

} // namespace Rack
