// Made by moxc from Probe.toml: change that file, not this one.
#pragma once

#include "notify/EntityReactor.h"
#include "rack/Probe.h"

namespace Rack {

/// Watches a `Probe`: override the notifications that matter.
class Probe::NotifieeConst : public Mox::Entity::NotifieeConst {
public:
   static constexpr Mox::ReactorClass reactorClass{&Mox::Entity::NotifieeConst::reactorClass};
   using MoxNotifier = Probe;

   void isRegisteredNotifieeIs(bool registered) const override {
      Mox::Entity::NotifieeConst::isRegisteredNotifieeIs(registered);
   }
   Mox::Name name() const override { return Mox::Entity::NotifieeConst::name(); }
   void notifierIs(Mox::Ptr<Mox::PtrInterface const> const& n) override { notifierOfTypeIs<Probe>(n); }

   virtual void onTemperature() {}

   Mox::Ptr<Probe const> notifier() const noexcept { return notifierOfType<Probe>(); }

protected:
   NotifieeConst() noexcept { reactorClassIs(reactorClass); }
};

/// The variant for reactors that change the entity they watch.
class Probe::Notifiee : public Probe::NotifieeConst {
public:
   Mox::Ptr<Probe> notifier() const noexcept { return changeable<Probe>(); }
};

/// Carries every notification to `Derived::forward(attribute, key...)`.
template <class Interface, class Derived>
class Probe::MoxForwarder : public Mox::Entity::MoxForwarder<Interface, Derived> {
public:
   void onTemperature() override { this->self().forward(Attr::temperature); }
};

} // namespace Rack
