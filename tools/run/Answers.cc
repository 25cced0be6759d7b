// SPDX-License-Identifier: Apache-2.0
#include "run/Answers.h"

#include "run/Trace.h"

#include "kestrel/entities/Cl10010Config.h"
#include "kestrel/entities/Cl10010StatusDirReactor.h"
#include "kestrel/entities/Cl10010StatusReactor.h"

#include <sstream>
#include <utility>

namespace Job {

using namespace Hardware::ClariPhy;
using Mox::Name;
using Mox::Ptr;

Answers::Answers(Ptr<Cl10010ConfigDir> config, Ptr<Cl10010StatusDir> const& status, Ptr<Cl10010StatusPtrDir> watched)
   : config_(std::move(config)), watched_(std::move(watched)) {
   members_ = Mox::on(status, Cl10010StatusDir::Attr::phyStatus,
                      [this](Cl10010StatusDir& directory, Name const& name) { watch(directory, name); });
}

void Answers::watch(Cl10010StatusDir& directory, Name const& name) {
   std::string const key(name);
   auto const status = directory.phyStatus(name);
   if (!status) {
      watched_->phyStatusDel(name);
      if (auto const at = ports_.find(key); at != ports_.end()) {
         open_ -= at->second.open.size();
         ports_.erase(at);
      }
      return;
   }
   watched_->phyStatusIs(status);
   Port& port = ports_[key];
   using Attr = Cl10010Status::Attr;
   port.watches.clear();
   port.watches.push_back(
      Mox::on(status, Attr::currPreFecErrorRate, [this, &port](Cl10010Status& s) { judgeRate(port, s); }));
   port.watches.push_back(
      Mox::on(status, Attr::otuLossOfAnyFrame, [this, &port](Cl10010Status& s) { judgeFrames(port, s); }));
   port.watches.push_back(
      Mox::on(status, Attr::signalDetect, [this, &port](Cl10010Status& s) { judgeSignal(port, s); }));
   port.watches.push_back(Mox::on(status, Attr::rollOff, [this, &port](Cl10010Status& s) { settle(port, s); }));
   port.watches.push_back(
      Mox::on(status, Attr::debugStateSnapshotTimestamp, [this, &port](Cl10010Status& s) { settle(port, s); }));
}

void Answers::judgeRate(Port& port, Cl10010Status const& status) {
   float const rate = status.currPreFecErrorRate();
   if (rate >= static_cast<float>(noSignalFrom))
      return; // no light: no roll-off helps, and the rate says nothing
   if (rate > worst_.errorRate)
      worst_ = {std::string(status.name()), rate, status.lastDomControlStatusTime()};
   if (!port.risen && rate >= risenAt) {
      if (auto const config = config_->phyConfig(status.name())) {
         float const now = config->rollOff();
         float const wider = now < 0.975F ? now + 0.025F : 0.2F;
         std::ostringstream what;
         what << "roll-off " << wider;
         // A status that is slow to follow may skip a value; then it follows several answers at once.
         answer(port, {what.str(), Clock::now(),
                       [config](Cl10010Status const& s) { return s.rollOff() == config->rollOff(); }});
         config->rollOffIs(wider);
      }
   }
   port.risen = rate >= (port.risen ? calmBelow : risenAt);
}

void Answers::judgeFrames(Port& port, Cl10010Status const& status) {
   Kiln::ConditionStat const lost = status.otuLossOfAnyFrame();
   // The first loss is the state of a chip that has just been reset.
   if (!lost.condition || lost.count == 1)
      return;
   if (auto const config = config_->phyConfig(status.name())) {
      answer(port, {"debug snapshot", Clock::now(),
                    [asked = lost.time](Cl10010Status const& s) { return s.debugStateSnapshotTimestamp() >= asked; }});
      config->debugStateSnapshotRequestIs(lost.time);
   }
}

void Answers::judgeSignal(Port& port, Cl10010Status const& status) {
   // The first change is the arrival of the signal. A mirror that is slow to follow may miss the second one and see the
   // third.
   if (status.signalDetect().count > 1 && !std::exchange(port.lostSignal, true))
      ++signalLosses_;
}

void Answers::answer(Port& port, Open open) {
   port.open.push_back(std::move(open));
   ++open_;
}

void Answers::settle(Port& port, Cl10010Status const& status) {
   std::erase_if(port.open, [&](Open const& o) {
      if (!o.isFollowed(status))
         return false;
      --open_;
      std::chrono::duration<double, std::milli> const took = Clock::now() - o.since;
      given_.push_back({std::string(status.name()), o.what, took.count()});
      return true;
   });
}

} // namespace Job
