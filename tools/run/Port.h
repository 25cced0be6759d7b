// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "run/Channel.h"

#include "kestrel/entities/Cl10010Config.h"
#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010ConfigPtrDir.h"
#include "kestrel/entities/Cl10010Status.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/FecHistogram.h"
#include "kestrel/notify/Observe.h"
#include "kestrel/siblings/EthPhyIntfStatus.h"
#include "kestrel/siblings/XcvrStatus.h"

#include <cstdint>
#include <string>

namespace Job {

/// The driver's side of one port: brings the chip up, stores what it reads out in the port's status, and follows the port's
/// configuration.
class DrivenPort {
public:
   /// Makes the port's status, of a chip that has just come out of reset, and puts the port's configuration among the `driven`.
   /// \param configs holds the configuration of the port already
   /// \param time in seconds since 1970
   DrivenPort(std::string const& name, std::uint32_t number, Hardware::ClariPhy::Cl10010ConfigDir& configs,
              Hardware::ClariPhy::Cl10010StatusDir& statuses, Hardware::ClariPhy::Cl10010ConfigPtrDir& driven,
              double time);
   DrivenPort(DrivenPort const&) = delete;
   DrivenPort& operator=(DrivenPort const&) = delete;

   void read(Reading const& reading);
   /// Stops following the configuration: nothing changes until the next `read`.
   void stop();
   /// Changes of the status so far, those of its histogram included.
   std::uint64_t changes() const noexcept { return changes_; }

private:
   /// What the firmware reports that it is doing.
   enum Firmware : std::uint16_t { off = 0, booting = 1, acquiring = 2, tracking = 3, adjusting = 4 };

   void comeUp();
   void readLine(Reading const& reading);
   void readHost(Reading const& reading);
   void readCodes(Reading const& reading);
   void readModule(Reading const& reading);
   void measure(Reading const& reading);
   void measureLanes(Reading const& reading);
   void firmwareIs(Firmware state);
   void follow();

   template <class A> void conditionIs(A attribute, bool condition);
   template <class A> void laneConditionIs(A attribute, std::size_t lane, bool condition);
   template <class A, class Changes, class Last>
   void observedIs(A attribute, Changes changes, Last last, typename A::Value const& value);

   Mox::Ptr<Hardware::ClariPhy::Cl10010Config> config_;
   Mox::Ptr<Hardware::ClariPhy::Cl10010Status> status_;
   Mox::Ptr<Hardware::ClariPhy::FecHistogram> iterations_;
   Mox::Ptr<Interface::EthPhyIntfStatus> interface_;
   Mox::Ptr<Xcvr::XcvrStatus> module_;
   Mox::Watch counting_;
   Mox::Watch countingIterations_;
   Mox::Watch rollOff_;
   Mox::Watch snapshot_;
   double time_; ///< of the last reading, in seconds since 1970
   std::uint64_t changes_ = 0;
   bool alarmsMoved_ = false;
};

} // namespace Job
