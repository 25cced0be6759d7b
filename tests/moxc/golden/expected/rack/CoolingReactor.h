// Made by moxc from Cooling.toml: change that file, not this one.
#pragma once

#include "rack/Cooling.h"
#include "rack/UnitReactor.h"

namespace Rack {

/// Watches a `Cooling`: override the notifications that matter.
class Cooling::NotifieeConst : public Rack::Unit::NotifieeConst {
public:
   static constexpr Mox::ReactorClass reactorClass{&Rack::Unit::NotifieeConst::reactorClass};
   using MoxNotifier = Cooling;

   virtual void onFan(Mox::Name) {}
   virtual void onFanmoxImmediate() {}
   virtual void onFan() {}
   virtual void onLimit(std::uint8_t) {}
   virtual void onLimitmoxImmediate() {}
   virtual void onLimit() {}
   virtual void onCurve(Mox::Name) {}
   virtual void onCurvemoxImmediate() {}
   virtual void onCurve() {}
   virtual void onPressure(Rack::Zone) {}
   virtual void onPressuremoxImmediate() {}
   virtual void onPressure() {}
   virtual void onWatched() {}
   virtual void onProbe(Mox::Name) {}
   virtual void onProbemoxImmediate() {}
   virtual void onProbe() {}
   virtual void onSpare(Mox::Name) {}
   virtual void onSparemoxImmediate() {}
   virtual void onSpare() {}

   Mox::Ptr<Cooling const> notifier() const noexcept { return notifierOfType<Cooling>(); }

protected:
   NotifieeConst() noexcept { reactorClassIs(reactorClass); }
};

/// The variant for reactors that change the entity they watch.
class Cooling::Notifiee : public Cooling::NotifieeConst {
public:
   Mox::Ptr<Cooling> notifier() const noexcept { return changeable<Cooling>(); }
};

/// Carries every notification to `Derived::forward(attribute, key...)`.
template <class Interface, class Derived>
class Cooling::MoxForwarder : public Rack::Unit::MoxForwarder<Interface, Derived> {
public:
   using Interface::onFan;
   void onFan(Mox::Name key) override { this->self().forward(Attr::fan, key); }
   using Interface::onLimit;
   void onLimit(std::uint8_t key) override { this->self().forward(Attr::limit, key); }
   using Interface::onCurve;
   void onCurve(Mox::Name key) override { this->self().forward(Attr::curve, key); }
   using Interface::onPressure;
   void onPressure(Rack::Zone key) override { this->self().forward(Attr::pressure, key); }
   void onWatched() override { this->self().forward(Attr::watched); }
   using Interface::onProbe;
   void onProbe(Mox::Name key) override { this->self().forward(Attr::probe, key); }
   using Interface::onSpare;
   void onSpare(Mox::Name key) override { this->self().forward(Attr::spare, key); }
};

} // namespace Rack
