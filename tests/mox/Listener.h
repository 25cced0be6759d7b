#pragma once

#include "siblings/GpoReactor.h"
#include "support/Told.h"

#include <functional>
#include <utility>

/// Writes down its title when it is told; may do something when what it listens to goes.
class Listener : public Fru::Gpo::Notifiee {
public:
   Listener(Log& log, std::string title, bool isAdapter = false)
      : log_(log), title_(std::move(title)), isAdapter_(isAdapter) {}
   bool isStreamAdapter() const override { return isAdapter_; }
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
   Log& log_;
   std::string title_;
   bool isAdapter_;
};
