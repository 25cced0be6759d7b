// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010Status.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusPtrDir.h"
#include "kestrel/notify/Observe.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Job {

/// Watches the mirrored status for the configuring process. Where a port's error rate rises, it answers with a wider
/// roll-off, once per rise; where a port loses its frames, it asks for a snapshot of the chip's debug state. It puts a
/// reference to each status that it watches into a directory. It also keeps what people ask for first: which port was
/// worst, and which ports lost their signal.
class Answers {
public:
   struct Answer {
      std::string port;
      std::string what;
      double milliseconds; ///< from the change of the configuration until the status, mirrored here, had followed it
   };
   struct Worst {
      std::string port; ///< empty before any rate was seen
      float errorRate = 0;
      double time = 0; ///< in seconds since 1970
   };

   Answers(Mox::Ptr<Hardware::ClariPhy::Cl10010ConfigDir> config,
           Mox::Ptr<Hardware::ClariPhy::Cl10010StatusDir> const& status,
           Mox::Ptr<Hardware::ClariPhy::Cl10010StatusPtrDir> watched);
   Answers(Answers const&) = delete;
   Answers& operator=(Answers const&) = delete;

   /// In the order in which the status followed them.
   std::vector<Answer> const& given() const noexcept { return given_; }
   /// Answers that were given and that the status has not followed yet.
   std::size_t open() const noexcept { return open_; }
   Worst const& worst() const noexcept { return worst_; }
   /// Ports that have lost their signal at least once.
   std::size_t signalLosses() const noexcept { return signalLosses_; }

   static constexpr float risenAt = 2.5e-3F;
   static constexpr float calmBelow = 2.0e-3F;

private:
   using Clock = std::chrono::steady_clock;

   struct Open {
      std::string what;
      Clock::time_point since;
      std::function<bool(Hardware::ClariPhy::Cl10010Status const&)> isFollowed;
   };
   struct Port {
      std::vector<Mox::Watch> watches;
      std::deque<Open> open;
      bool risen = false;
      bool lostSignal = false;
   };

   void watch(Hardware::ClariPhy::Cl10010StatusDir& directory, Mox::Name const& name);
   void judgeRate(Port& port, Hardware::ClariPhy::Cl10010Status const& status);
   void judgeFrames(Port& port, Hardware::ClariPhy::Cl10010Status const& status);
   void judgeSignal(Port& port, Hardware::ClariPhy::Cl10010Status const& status);
   void settle(Port& port, Hardware::ClariPhy::Cl10010Status const& status);
   void answer(Port& port, Open open);

   Mox::Ptr<Hardware::ClariPhy::Cl10010ConfigDir> config_;
   Mox::Ptr<Hardware::ClariPhy::Cl10010StatusPtrDir> watched_;
   Mox::Watch members_;
   std::map<std::string, Port> ports_;
   std::vector<Answer> given_;
   std::size_t open_ = 0;
   std::size_t signalLosses_ = 0;
   Worst worst_;
};

} // namespace Job
