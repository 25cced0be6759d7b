// SPDX-License-Identifier: Apache-2.0
#include "run/Port.h"

#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/entities/Cl10010StatusReactor.h"
#include "kestrel/entities/FecHistogramReactor.h"

#include <algorithm>

namespace Job {

using namespace Hardware::ClariPhy;
using namespace Hardware::Phy;
using Attr = Cl10010Status::Attr;
using Mox::Name;

namespace {

/// A counter of the chip that stops at its maximum.
U22 stopped(std::uint64_t count) {
   return U22(std::min<std::uint64_t>(count, U22::maximum));
}

} // namespace

/// Stores a condition record. A change is counted and its time is stored; an equal condition leaves both as they are.
template <class A> void DrivenPort::conditionIs(A attribute, bool condition) {
   Kiln::ConditionStat const was = attribute.cell(*status_);
   if (was.condition == condition)
      return;
   attribute.put(*status_, Kiln::ConditionStat{condition, was.count + 1, time_});
   alarmsMoved_ = true;
}

/// As `conditionIs`, for one lane of an array.
template <class A> void DrivenPort::laneConditionIs(A attribute, std::size_t lane, bool condition) {
   typename A::Key const key(lane);
   Kiln::ConditionStat const was = attribute.cell(*status_)[key];
   if (was.condition == condition)
      return;
   attribute.put(*status_, key, Kiln::ConditionStat{condition, was.count + 1, time_});
   alarmsMoved_ = true;
}

/// As `conditionIs`, where count and time are attributes of their own.
template <class A, class Changes, class Last>
void DrivenPort::observedIs(A attribute, Changes changes, Last last, typename A::Value const& value) {
   if (attribute.cell(*status_) == value)
      return;
   attribute.put(*status_, value);
   changes.put(*status_, changes.cell(*status_) + 1);
   last.put(*status_, time_);
   alarmsMoved_ = true;
}

DrivenPort::DrivenPort(std::string const& name, std::uint32_t number, Cl10010ConfigDir& configs,
                       Cl10010StatusDir& statuses, Cl10010ConfigPtrDir& driven, double time)
   : config_(configs.phyConfig(Name(name))),
     interface_(Mox::make<Interface::EthPhyIntfStatus>(Name("ethernet-" + name))),
     module_(Mox::make<Xcvr::XcvrStatus>(Name("module-" + name))),
     time_(time) {
   interface_->intfIdIs(Plex::IntfId(number + 1));
   module_->presentIs(true);
   module_->mediaTypeIs("100G coherent");
   status_ = statuses.phyStatusIs(Name(name), config_, interface_);
   counting_ = Mox::onAny(status_, [this](Cl10010Status&, Mox::AttributeId) { ++changes_; });
   iterations_ = status_->ldpcHistogramsIs("line");
   countingIterations_ = Mox::onAny(iterations_, [this](FecHistogram&, Mox::AttributeId) { ++changes_; });
   driven.phyConfigIs(config_);
   comeUp();
   rollOff_ = Mox::on(config_, Cl10010Config::Attr::rollOff, [this](Cl10010Config&) { follow(); });
   snapshot_ = Mox::on(config_, Cl10010Config::Attr::debugStateSnapshotRequest,
                       [this](Cl10010Config&) { status_->debugStateSnapshotTimestampIs(time_); });
}

void DrivenPort::comeUp() {
   Cl10010Status& s = *status_;
   s.xcvrStatusIs(module_);
   s.phyOuiIs(U22(0x2a51f));
   s.phyModelIs(U6(0x10));
   s.phyRevIs(2);
   s.operSpeedIs(Speed::gbps100);
   s.showIntfPhySupportedIs(true);
   s.resetCountIs(1);
   s.lastResetTimeIs(time_);
   s.phyConfigVersionIs("2");
   s.diagsModeIs(config_->diagsMode());
   s.diagsModeEpochIs(config_->diagsModeEpoch());
   s.loopbackIs(config_->loopback());
   for (auto const valid :
        {&PhyStatus::pmaPmdRxLinkStatusValidIs, &PhyStatus::pmaPmdRxFaultValidIs, &PhyStatus::pmaPmdTxFaultValidIs,
         &PhyStatus::pmaPmdDebugStateValidIs, &PhyStatus::pcsRxLinkStatusValidIs, &PhyStatus::pcsRxFaultValidIs,
         &PhyStatus::pcsTxFaultValidIs, &PhyStatus::pcsErrBlocksValidIs, &PhyStatus::pcsBerValidIs,
         &PhyStatus::pcsHighBerValidIs, &PhyStatus::pcsBlockLockValidIs, &PhyStatus::pcsDeskewStatusValidIs,
         &PhyStatus::pcsAmLockValidIs, &PhyStatus::pcsBipErrorsValidIs, &PhyStatus::pcsDebugStateValidIs})
      (s.*valid)(true);
   observedIs(Attr::phyState, Attr::phyStateChanges, Attr::lastPhyStateChange, PhyState::inReset);
   firmwareIs(booting);
   s.phyConfigVersionInHwIs(s.phyConfigVersion());
   s.rollOffIs(config_->rollOff());
   // The chip has no signal yet: all alarms that report a missing one are raised.
   Reading const dark{.time = time_};
   readHost(dark);
   readLine(dark);
   observedIs(Attr::phyState, Attr::phyStateChanges, Attr::lastPhyStateChange, PhyState::initializing);
   firmwareIs(acquiring);
}

void DrivenPort::read(Reading const& reading) {
   time_ = reading.time;
   alarmsMoved_ = false;
   readHost(reading);
   readLine(reading);
   readCodes(reading);
   readModule(reading);
   status_->currPreFecErrorRateIs(static_cast<float>(reading.errorRatio));
   status_->qFactorFromBerIs(static_cast<float>(reading.qFactor));
   if (reading.light) {
      measure(reading);
      measureLanes(reading);
   }
   firmwareIs(reading.light ? tracking : acquiring);
   bool const up = !reading.lossOfFrame && reading.hostSignal;
   observedIs(Attr::phyState, Attr::phyStateChanges, Attr::lastPhyStateChange,
              up ? PhyState::linkUp : PhyState::linkDown);
   interface_->linkUpIs(up);
   if (alarmsMoved_)
      status_->interruptCountIs(status_->interruptCount() + 1);
}

void DrivenPort::stop() {
   rollOff_.stop();
   snapshot_.stop();
}

void DrivenPort::readLine(Reading const& r) {
   conditionIs(Attr::signalDetectFromXcvr, r.light);
   conditionIs(Attr::signalDetect, r.light);
   conditionIs(Attr::signalDetectSummary, r.light);
   conditionIs(Attr::timingRecoveryLock, r.light);
   conditionIs(Attr::signalLock, r.light);
   conditionIs(Attr::userDefinedSignalLock, r.light && !r.outOfFrame);
   conditionIs(Attr::otl4LaneAligned, std::all_of(r.lanes.begin(), r.lanes.end(), [](auto& l) { return l.aligned; }));
   for (std::size_t i = 0; i < Reading::lineLanes; ++i) {
      laneConditionIs(Attr::laneSignalDetect, i, r.light);
      laneConditionIs(Attr::lineLaneAligned, i, r.lanes[i].aligned);
   }
   conditionIs(Attr::otuLossOfAnyFrame, r.outOfFrame);
   conditionIs(Attr::hostIngressOutOfFrame, r.outOfFrame);
   conditionIs(Attr::hostIngressLossOfMultiFrame, r.outOfFrame);
   conditionIs(Attr::hostIngressLossOfFrame, r.lossOfFrame);
   conditionIs(Attr::hostIngressPcsSignalGood, !r.lossOfFrame);
   conditionIs(Attr::hostIngressDataFifoGood, !r.lossOfFrame);
   for (std::size_t i = 0; i < Reading::hostLanes; ++i)
      laneConditionIs(Attr::hostIngressLaneBlockAligned, i, !r.lossOfFrame);

   observedIs(Attr::pmaPmdRxLinkStatus, Attr::pmaPmdRxLinkStatusChanges, Attr::lastPmaPmdRxLinkStatusChange,
              r.light ? LinkStatus::up : LinkStatus::down);
   observedIs(Attr::pmaPmdRxFault, Attr::pmaPmdRxFaultChanges, Attr::lastPmaPmdRxFaultChange, U1(!r.light));
   observedIs(Attr::pmaPmdRxSignalDetect, Attr::pmaPmdRxSignalDetectChanges, Attr::lastPmaPmdRxSignalDetectChange,
              U1(r.light));
   observedIs(Attr::aggSignalDetect, Attr::aggSignalDetectChanges, Attr::lastAggSignalDetectChange, U1(r.light));
}

void DrivenPort::readHost(Reading const& r) {
   auto const pll = config_->pllStatus();
   conditionIs(Attr::hostPllLocked, r.hostSignal && pll && pll->locked());
   conditionIs(Attr::hostEgressPcsSignalGood, r.hostSignal);
   conditionIs(Attr::hostEgressPcsLaneAligned, r.hostSignal);
   conditionIs(Attr::hostEgressLaneAligned, r.hostSignal);
   conditionIs(Attr::hostEgressDataFifoGood, r.hostSignal);
   conditionIs(Attr::hostEgressOutOfFrameAlarm, !r.hostSignal);
   conditionIs(Attr::hostEgressLossOfFrame, !r.hostSignal);
   for (std::size_t i = 0; i < Reading::hostLanes; ++i) {
      laneConditionIs(Attr::hostEgressLaneBlockAligned, i, r.hostLaneSignals[i]);
      laneConditionIs(Attr::hostEgressLaneLossOfFrame, i, !r.hostLaneSignals[i]);
   }

   observedIs(Attr::pmaPmdTxFault, Attr::pmaPmdTxFaultChanges, Attr::lastPmaPmdTxFaultChange, U1(!r.hostSignal));
   observedIs(Attr::pcsTxFault, Attr::pcsTxFaultChanges, Attr::lastPcsTxFaultChange, U1(!r.hostSignal));
}

/// What the words beyond repair do to the blocks that the host gets.
void DrivenPort::readCodes(Reading const& r) {
   Cl10010Status& s = *status_;
   bool const aligned = !r.lossOfFrame;
   observedIs(Attr::pcsRxLinkStatus, Attr::pcsRxLinkStatusChanges, Attr::lastPcsRxLinkStatusChange,
              aligned ? LinkStatus::up : LinkStatus::down);
   observedIs(Attr::pcsRxFault, Attr::pcsRxFaultChanges, Attr::lastPcsRxFaultChange, U1(!aligned));
   observedIs(Attr::pcsHighBer, Attr::pcsHighBerChanges, Attr::lastPcsHighBerChange, U1(r.light && r.outOfFrame));
   observedIs(Attr::pcsBlockLock, Attr::pcsBlockLockChanges, Attr::lastPcsBlockLockChange, U1(aligned));
   observedIs(Attr::pcsDeskewStatus, Attr::pcsDeskewStatusChanges, Attr::lastPcsDeskewStatusChange, U1(aligned));
   observedIs(Attr::pcsAmLock, Attr::pcsAmLockChanges, Attr::lastPcsAmLockChange, U1(aligned));

   constexpr std::uint64_t blocksOfWord = 494; // of 66 bits
   s.pcsErrBlocksIs(stopped(r.wordErrors * blocksOfWord));
   // One block in 33 differs in its two bits of synchronisation alone.
   s.pcsBerIs(stopped(r.wordErrors * blocksOfWord / 33));
   s.pcsBipErrorsIs(static_cast<std::uint32_t>(std::min<std::uint64_t>(r.wordErrors, 0xffffffff)));
   if (r.wordErrors == 0)
      return;
   s.lastPcsNonzeroErrBlockIs(time_);
   s.pcsNonzeroBerIs(s.pcsNonzeroBer() + 1);
   s.lastPcsNonzeroBerIs(time_);
   s.pcsNonzeroBipIs(s.pcsNonzeroBip() + 1);
   s.lastPcsNonzeroBipIs(time_);
}

void DrivenPort::readModule(Reading const& r) {
   Cl10010Status& s = *status_;
   s.lastDomControlStatusTimeIs(time_);
   if (r.monitorFailed)
      s.domControlStatusFailuresIs(s.domControlStatusFailures() + 1);
   else if (r.monitorBusy)
      s.domControlStatusPendingsIs(s.domControlStatusPendings() + 1);
   else
      s.lastDomUpdateTimeIs(time_);
}

/// Last samples, and beside each its running sum over `performanceMonitorCount` samples.
void DrivenPort::measure(Reading const& r) {
   Cl10010Status& s = *status_;
   s.fecFramesInc(r.frames);
   s.fecErrorsInc(r.bitErrors);
   s.totalLdpcWordsInc(r.words);
   s.ldpcWordErrorsInc(r.wordErrors);
   s.ldpcWordErrorRateIs(static_cast<float>(static_cast<double>(r.wordErrors) / static_cast<double>(r.words)));

   for (std::size_t i = 0; i < r.iterations.size(); ++i) {
      ClariPhyTypes::LdpcHistogramIterNum const number(i);
      using Counter = ClariPhyTypes::LdpcHistogramCounter;
      iterations_->histogramIs(
         number, Counter(std::min<std::uint64_t>(iterations_->histogram(number) + r.iterations[i], Counter::maximum)));
   }

   s.performanceMonitorCountInc(1);
   s.diffGroupDelayIs(r.groupDelay);
   s.cumDiffGroupDelayInc(r.groupDelay);
   s.chromaticDispersionIs(r.dispersion);
   s.cumChromaticDispersionInc(r.dispersion);
   s.polarizationDepLossIs(r.polarisationLoss);
   s.cumPolarizationDepLossInc(r.polarisationLoss);
   s.carrierFreqOffsetIs(r.frequencyOffset);
   s.cumCarrierFreqOffsetInc(r.frequencyOffset);
   s.stateOfPolarizationRateIs(r.polarisationRate);
   s.qFactorHIs(r.qFactorH);
   s.qFactorVIs(r.qFactorV);
   s.cumQFactorHInc(r.qFactorH);
   s.cumQFactorVInc(r.qFactorV);
   s.centerGravityHIs(r.centreH);
   s.centerGravityVIs(r.centreV);
}

void DrivenPort::measureLanes(Reading const& r) {
   Cl10010Status& s = *status_;
   for (std::size_t i = 0; i < Reading::lineLanes; ++i) {
      Reading::LineLane const& lane = r.lanes[i];
      Xcvr::CfpxHostLaneId const key(i);
      s.amplitudeIs(key, lane.amplitude);
      s.agcGainIs(key, lane.gain);
      s.meanSquareErrorIs(key, lane.squareError);
      s.rxSkewIs(key, lane.skew);
      s.adcUnitOffsetIs(key, lane.unitOffset);
      s.adcRowOffsetIs(key, lane.rowOffset);
      s.adcGainErrorIs(key, lane.gainError);
      s.adcTimingErrorIs(key, lane.timingError);
   }
}

void DrivenPort::firmwareIs(Firmware state) {
   observedIs(Attr::firmwareSmState, Attr::firmwareSmStateChanges, Attr::lastFirmwareSmStateChanged, state);
}

/// Gives the line signal the roll-off that is asked for. The firmware leaves its state for that, and returns to it.
void DrivenPort::follow() {
   auto const before = static_cast<Firmware>(status_->firmwareSmState());
   firmwareIs(adjusting);
   status_->rollOffIs(config_->rollOff());
   firmwareIs(before);
}

} // namespace Job
