// Made by moxc from Fan.toml: change that file, not this one.
#pragma once

#include "notify/EntityReactor.h"
#include "rack/Fan.h"

namespace Rack {

/// Watches a `Fan`: override the notifications that matter.
class Fan::NotifieeConst : public Mox::Entity::NotifieeConst {
public:
   static constexpr Mox::ReactorClass reactorClass{&Mox::Entity::NotifieeConst::reactorClass};
   using MoxNotifier = Fan;

   void isRegisteredNotifieeIs(bool registered) const override {
      Mox::Entity::NotifieeConst::isRegisteredNotifieeIs(registered);
   }
   Mox::Name name() const override { return Mox::Entity::NotifieeConst::name(); }
   void notifierIs(Mox::Ptr<Mox::PtrInterface const> const& n) override { notifierOfTypeIs<Fan>(n); }

   virtual void onRunning() {}
   virtual void onSpeed() {}
   virtual void onTurns() {}
   virtual void onLabel() {}

   Mox::Ptr<Fan const> notifier() const noexcept { return notifierOfType<Fan>(); }

protected:
   NotifieeConst() noexcept { reactorClassIs(reactorClass); }
};

/// The variant for reactors that change the entity they watch.
class Fan::Notifiee : public Fan::NotifieeConst {
public:
   Mox::Ptr<Fan> notifier() const noexcept { return changeable<Fan>(); }
};

/// Carries every notification to `Derived::forward(attribute, key...)`.
template <class Interface, class Derived>
class Fan::MoxForwarder : public Mox::Entity::MoxForwarder<Interface, Derived> {
public:
   void onRunning() override { this->self().forward(Attr::running); }
   void onSpeed() override { this->self().forward(Attr::speed); }
   void onTurns() override { this->self().forward(Attr::turns); }
   void onLabel() override { this->self().forward(Attr::label); }
};

} // namespace Rack
