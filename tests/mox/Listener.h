// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "siblings/GpoReactor.h"
#include "support/Told.h"

#include <functional>
#include <utility>

/// Writes down its title when it is told; may do something when what it listens to goes. It always says that it is an adapter's;
/// what counts is the object that it answers.
class Listener : public Fru::Gpo::Notifiee {
public:
   Listener(Log& log, std::string title, bool isAdapter = false) : log_(log), title_(std::move(title)) {
      if (isAdapter)
         object_ = Mox::make<StateAdapter>();
   }
   bool isStreamAdapter() const override { return true; }
   Mox::Ptr<Mox::PtrInterface> moxReactor() const override { return object_ ? object_ : Notifiee::moxReactor(); }
   void onAsserted() override { log_.push_back(title_); }
   void onZeroReferences() override {
      log_.push_back(title_ + " sees " + name().str() + " go");
      if (onGoing)
         onGoing();
   }
   void listensTo(Mox::Ptr<Fru::Gpo> const& gpo) {
      notifierIs(gpo);
      isRegisteredNotifieeIs(true);
   }
   std::function<void()> onGoing;

private:
   struct StateAdapter : Mox::PtrInterface {
      StateAdapter() noexcept : PtrInterface(stateAdapterKind) {}
   };
   Log& log_;
   std::string title_;
   Mox::Ptr<Mox::PtrInterface> object_;
};
