// The order of virtual functions is part of the binary interface: whoever was compiled against an older header calls by number.

#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusPtrDirReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "mox/Activity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010Status;
using Hardware::ClariPhy::FecHistogram;
using Hardware::Phy::PhyConfig;
using Hardware::Phy::PhyStatus;
using Mox::AttributeId;
using Mox::Entity;
using Mox::Ptr;
using Mox::PtrInterface;

/// Index in the table of virtual functions that a pointer to a member function holds; -1 where the function is not virtual.
template <class Function> int slotOf(Function function) {
   static_assert(sizeof(function) == 2 * sizeof(std::uintptr_t));
   std::uintptr_t word;
   std::memcpy(&word, &function, sizeof word);
   return word % 2 == 0 ? -1 : static_cast<int>((word - 1) / sizeof(void*));
}

/// The functions stand one behind the other from slot `next` on.
template <class... Functions> void follow(int& next, Functions... functions) {
   int number = 0;
   auto const expectNext = [&](int slot) { EXPECT_EQ(slot, next++) << "function " << ++number << " of the list"; };
   (expectNext(slotOf(functions)), ...);
}

// One of several overloads.
template <class N, class Key> auto keyed(void (N::*function)(Key)) {
   return function;
}
template <class N> auto bare(void (N::*function)()) {
   return function;
}

struct Slots : testing::Test {
   void SetUp() override {
#if !defined(__GXX_ABI_VERSION) || !defined(__x86_64__)
      GTEST_SKIP() << "pointers to member functions hold slots only in the Itanium ABI on x86-64";
#endif
   }
   static constexpr int destructors = 2;

   /// Slots of every entity. \return the next
   template <class X> int entity() {
      int next = 0;
      follow(next, &X::hasNotificationActiveIs, &X::moxAuditErrors, &X::auditErrors, &X::zeroReferencesIs, &X::fwkType);
      next += destructors;
      follow(next, &X::name, static_cast<Ptr<Entity const> (X::*)() const>(&X::parent),
             static_cast<Ptr<Entity> (X::*)()>(&X::parent), &X::parentIs, &X::parentAttr, &X::parentAttrId,
             &X::parentAttrIdIs, &X::uriPath, &X::fullName, &X::attributeString, &X::moxNotifieeAdapterIs,
             &X::handleParent);
      using Sa = Entity::MoxNboAttrLogSa;
      using Out = Mox::NboAttrLog::Out;
      follow(
         next, static_cast<Ptr<Sa const> (X::*)(Ptr<Out const> const&) const>(&X::moxNboAttrLogSa),
         &X::moxHasAttrLogInterface, static_cast<Ptr<Sa> (X::*)(Ptr<Out const> const&)>(&X::moxNboAttrLogSa),
         &X::moxNboAttrLogSaForMsgChannel,
         static_cast<Ptr<Sa> (X::*)(Mox::Mox_BitSet, unsigned, Ptr<Out> const&, PtrInterface*)>(&X::moxNboAttrLogSaIs),
         &X::moxNboAttrLogSaDel);
      return next;
   }

   /// Slots of every reactor. \return the next
   int reactor() {
      using N = PtrInterface::NotifieeConst;
      int next = 0;
      follow(next, &N::hasNotificationActiveIs, &N::moxAuditErrors, &N::auditErrors, &N::zeroReferencesIs, &N::fwkType);
      next += destructors;
      follow(next, &N::moxReactor, &N::moxRawReactor, &N::isStreamAdapter, &N::isRegisteredNotifieeIs, &N::mox_bitSetIs,
             &N::name, &N::notifierIs, &N::handleNotification, &N::handleDefault, &N::onAttribute, &N::onNotification,
             &N::onCollectionNotification, bare<N>(&N::onNotificationException),
             keyed<N, AttributeId>(&N::onNotificationException), keyed<N, AttributeId>(&N::handleNotificationException),
             bare<N>(&N::handleNotificationException), &N::onZeroReferences, &N::activityPtr,
             static_cast<Mox::Activity* (N::*)()>(&N::moxFwkActivity),
             static_cast<Mox::Activity const* (N::*)() const>(&N::moxFwkActivity), &N::actsm);
      follow(next, &Entity::NotifieeConst::onParent, &Entity::NotifieeConst::onVersion);
      return next;
   }
   template <class N>
   void directory(int next, void (N::*withKey)(Mox::Name), void (N::*immediate)(), void (N::*plain)()) {
      follow(next, withKey, immediate, plain);
   }
};

TEST_F(Slots, OfEntitiesAreTheFrameworksAndThenTheBasesMutators) {
   EXPECT_EQ(entity<FecHistogram>(), 25);
   EXPECT_EQ(entity<Hardware::ClariPhy::Cl10010ConfigDir>(), 25);
   EXPECT_EQ(entity<Hardware::ClariPhy::Cl10010StatusDir>(), 25);
   EXPECT_EQ(entity<Hardware::ClariPhy::Cl10010ConfigPtrDir>(), 25);
   EXPECT_EQ(entity<Hardware::ClariPhy::Cl10010StatusPtrDir>(), 25);
   int next = entity<Cl10010Config>();
   using X = PhyConfig;
   follow(next, &X::modelIs, &X::hwRevIs, &X::datasheetRegisterBaseIs, &X::resetIs, &X::interruptCtrlIs,
          &X::xcvrConfigIs, &X::managingMediaIs, &X::linkStatePollIntervalIs, &X::linkStatePollIntIrqLinkUpIs,
          &X::linkStatePollIntIrqLinkDownIs, &X::irqModerationIntervalIs, &X::snapshotIntervalIs,
          &X::xcvrDetectIntervalIs, &X::irqXcvrDetectIntervalIs, &X::domUpdateIntervalIs, &X::domHwAccessIntervalIs,
          &X::maxXcvrIdEepromReadTimeIs, &X::resetDwellTimeIs, &X::wakeupTimeIs, &X::overrideMediaTypeIs,
          &X::ledConfigIs, &X::diagsModeIs, &X::diagsModeEpochIs, &X::diagsModeEpochInc, &X::driverRunModeIs,
          &X::overrideEthIntfConfigIs, &X::overrideEthIntfConfigDel, &X::useOverrideEthIntfConfigIs, &X::loopbackIs,
          &X::debugStateSnapshotRequestIs, &X::maxXauiSyncsUntilAlignIs, &X::configReadyIs);
   EXPECT_EQ(slotOf(&Cl10010Config::rollOffIs), -1) << "a type's own mutators are not virtual";
   next = entity<Cl10010Status>();
   follow(next, &PhyStatus::xcvrStatusIs);
   EXPECT_EQ(slotOf(&Cl10010Status::amplitudeIs), -1);
}

TEST_F(Slots, OfReactorsAreTheFrameworksThenTheBasesThenTheOwn) {
   int next = reactor();
   EXPECT_EQ(next, 30);
   {
      using namespace Hardware::ClariPhy;
      using H = FecHistogram::NotifieeConst;
      directory<Cl10010ConfigDir::NotifieeConst>(next, &Cl10010ConfigDir::NotifieeConst::onPhyConfig,
                                                 &Cl10010ConfigDir::NotifieeConst::onPhyConfigmoxImmediate,
                                                 &Cl10010ConfigDir::NotifieeConst::onPhyConfig);
      directory<Cl10010ConfigPtrDir::NotifieeConst>(next, &Cl10010ConfigPtrDir::NotifieeConst::onPhyConfig,
                                                    &Cl10010ConfigPtrDir::NotifieeConst::onPhyConfigmoxImmediate,
                                                    &Cl10010ConfigPtrDir::NotifieeConst::onPhyConfig);
      directory<Cl10010StatusDir::NotifieeConst>(next, &Cl10010StatusDir::NotifieeConst::onPhyStatus,
                                                 &Cl10010StatusDir::NotifieeConst::onPhyStatusmoxImmediate,
                                                 &Cl10010StatusDir::NotifieeConst::onPhyStatus);
      directory<Cl10010StatusPtrDir::NotifieeConst>(next, &Cl10010StatusPtrDir::NotifieeConst::onPhyStatus,
                                                    &Cl10010StatusPtrDir::NotifieeConst::onPhyStatusmoxImmediate,
                                                    &Cl10010StatusPtrDir::NotifieeConst::onPhyStatus);
      int own = next;
      follow(own, keyed<H, ClariPhyTypes::LdpcHistogramIterNum>(&H::onHistogram), &H::onHistogrammoxImmediate,
             bare<H>(&H::onHistogram));
   }
   int const first = next;
   {
      using N = PhyConfig::NotifieeConst;
      follow(next, &N::onModel, &N::onHwRev, &N::onDatasheetRegisterBase, &N::onReset, &N::onInterruptCtrl,
             &N::onXcvrConfig, &N::onManagingMedia, &N::onLinkStatePollInterval, &N::onLinkStatePollIntIrqLinkUp,
             &N::onLinkStatePollIntIrqLinkDown, &N::onIrqModerationInterval, &N::onSnapshotInterval,
             &N::onXcvrDetectInterval, &N::onIrqXcvrDetectInterval, &N::onDomUpdateInterval, &N::onDomHwAccessInterval,
             &N::onMaxXcvrIdEepromReadTime, &N::onResetDwellTime, &N::onWakeupTime, &N::onOverrideMediaType,
             &N::onLedConfig, &N::onDiagsMode, &N::onDiagsModeEpoch, &N::onDriverRunMode, &N::onOverrideEthIntfConfig,
             &N::onUseOverrideEthIntfConfig, &N::onLoopback, &N::onDebugStateSnapshotRequest,
             &N::onMaxXauiSyncsUntilAlign, &N::onConfigReady);
      EXPECT_EQ(next - first, 30);
   }
   {
      using N = Cl10010Config::NotifieeConst;
      follow(next, &N::onSpiAccel, &N::onResetUc, &N::onRefClock, keyed<N, Xcvr::CfpxHostChannel>(&N::onCalibration),
             &N::onCalibrationmoxImmediate, bare<N>(&N::onCalibration), &N::onRxSkewH, &N::onRxSkewV, &N::onPllStatus,
             keyed<N, Xcvr::CfpxHostChannel>(&N::onInitialIngressAmp), &N::onInitialIngressAmpmoxImmediate,
             bare<N>(&N::onInitialIngressAmp), &N::onRollOff);
      EXPECT_EQ(next - first, 30 + 13);
   }
   next = first;
   {
      using N = PhyStatus::NotifieeConst;
      follow(next, &N::onXcvrStatus, &N::onPhyState, &N::onOperSpeed, &N::onPhyOui, &N::onPhyModel, &N::onPhyRev,
             &N::onDomControlStatusFailures, &N::onDomControlStatusPendings, &N::onLastDomControlStatusTime,
             &N::onLastDomUpdateTime, &N::onResetCount, &N::onLastResetTime, &N::onPhyStateChanges,
             &N::onLastPhyStateChange, &N::onInterruptCount, &N::onPmaPmdRxLinkStatus, &N::onPmaPmdRxLinkStatusChanges,
             &N::onLastPmaPmdRxLinkStatusChange, &N::onPmaPmdRxLinkStatusValid, &N::onPmaPmdRxFault,
             &N::onPmaPmdRxFaultChanges, &N::onLastPmaPmdRxFaultChange, &N::onPmaPmdRxFaultValid, &N::onPmaPmdTxFault,
             &N::onPmaPmdTxFaultChanges, &N::onLastPmaPmdTxFaultChange, &N::onPmaPmdTxFaultValid,
             &N::onPmaPmdDebugStateValid, &N::onPmaPmdRxSignalDetect, &N::onPmaPmdRxSignalDetectChanges,
             &N::onLastPmaPmdRxSignalDetectChange, &N::onPmaPmdDebugSignalDetectValid, &N::onAggSignalDetect,
             &N::onAggSignalDetectChanges, &N::onLastAggSignalDetectChange, &N::onTenGBaseTDebugState,
             &N::onPcsRxLinkStatus, &N::onPcsRxLinkStatusChanges, &N::onLastPcsRxLinkStatusChange,
             &N::onPcsRxLinkStatusValid, &N::onPcsRxFault, &N::onPcsRxFaultChanges, &N::onLastPcsRxFaultChange,
             &N::onPcsRxFaultValid, &N::onPcsTxFault, &N::onPcsTxFaultChanges, &N::onLastPcsTxFaultChange,
             &N::onPcsTxFaultValid, &N::onPcsErrBlocks, &N::onLastPcsNonzeroErrBlock, &N::onPcsErrBlocksValid,
             &N::onPcsBer, &N::onPcsNonzeroBer, &N::onLastPcsNonzeroBer, &N::onPcsBerValid, &N::onPcsHighBer,
             &N::onPcsHighBerChanges, &N::onLastPcsHighBerChange, &N::onPcsHighBerValid, &N::onPcsBlockLock,
             &N::onPcsBlockLockChanges, &N::onLastPcsBlockLockChange, &N::onPcsBlockLockValid, &N::onPcsRxLpiReceived,
             &N::onPcsRxLpiChanges, &N::onLastPcsRxLpiChange, &N::onPcsRxLpiValid, &N::onPcsSyncStatus,
             &N::onPcsSyncStatusChanges, &N::onLastPcsSyncStatusChange, &N::onPcsSyncStatusValid, &N::onPcsDeskewStatus,
             &N::onPcsDeskewStatusChanges, &N::onLastPcsDeskewStatusChange, &N::onPcsDeskewStatusValid, &N::onPcsAmLock,
             &N::onPcsAmLockChanges, &N::onLastPcsAmLockChange, &N::onPcsAmLockValid, &N::onPcsBipErrors,
             &N::onPcsNonzeroBip, &N::onLastPcsNonzeroBip, &N::onPcsBipErrorsValid, &N::onPcsDebugStateValid,
             &N::onPhyXsTxLinkStatus, &N::onPhyXsTxLinkStatusChanges, &N::onLastPhyXsTxLinkStatusChange,
             &N::onPhyXsRxFault, &N::onPhyXsRxFaultChanges, &N::onLastPhyXsRxFaultChange, &N::onPhyXsTxFault,
             &N::onPhyXsTxFaultChanges, &N::onLastPhyXsTxFaultChange, &N::onPhyXsLane0To3Sync,
             &N::onPhyXsLane0To3SyncChanges, &N::onLastPhyXsLane0To3SyncChange, &N::onPhyXsLaneAlignmentStatus,
             &N::onPhyXsLaneAlignmentStatusChanges, &N::onLastPhyXsLaneAlignmentStatusChange,
             &N::onPhyXsDebugStateValid, &N::onAnegDebugState, &N::onXcvrEepromReadTimeouts,
             &N::onLastXcvrEepromReadTimeout, &N::onPhantomXcvrDetections, &N::onLastPhantomXcvrDetection,
             &N::onDiagsMode, &N::onDiagsModeEpoch, &N::onLoopback, &N::onNextPhyEntityFullName,
             &N::onShowIntfPhySupported, &N::onXauiSyncsUntilAlignHwm, &N::onLastXauiSyncsUntilAlignHwmIncrement,
             &N::onExcessiveXauiSyncUntilAlign, &N::onLastExcessiveXauiSyncUntilAlign, &N::onResetAndReInitRequired,
             &N::onPhyConfigVersion, &N::onPhyConfigVersionInHw);
      EXPECT_EQ(next - first, 117);
   }
   {
      using N = Cl10010Status::NotifieeConst;
      follow(next, &N::onDebugStateSnapshotTimestamp, &N::onHostEgressPcsSignalGood, &N::onHostEgressPcsLaneAligned,
             keyed<N, ClariPhyTypes::HostLane>(&N::onHostEgressLaneBlockAligned),
             &N::onHostEgressLaneBlockAlignedmoxImmediate, bare<N>(&N::onHostEgressLaneBlockAligned),
             &N::onHostPllLocked, &N::onHostEgressDataFifoGood, &N::onHostEgressOutOfFrameAlarm,
             &N::onHostEgressLossOfFrame, &N::onHostEgressLaneAligned,
             keyed<N, ClariPhyTypes::HostLane>(&N::onHostEgressLaneLossOfFrame),
             &N::onHostEgressLaneLossOfFramemoxImmediate, bare<N>(&N::onHostEgressLaneLossOfFrame),
             &N::onHostIngressPcsSignalGood, keyed<N, ClariPhyTypes::HostLane>(&N::onHostIngressLaneBlockAligned),
             &N::onHostIngressLaneBlockAlignedmoxImmediate, bare<N>(&N::onHostIngressLaneBlockAligned),
             &N::onOtuLossOfAnyFrame, &N::onHostIngressDataFifoGood, &N::onHostIngressLossOfMultiFrame,
             &N::onHostIngressLossOfFrame, &N::onHostIngressOutOfFrame, &N::onOtl4LaneAligned,
             keyed<N, Xcvr::CfpxHostLaneId>(&N::onLineLaneAligned), &N::onLineLaneAlignedmoxImmediate,
             bare<N>(&N::onLineLaneAligned), &N::onTimingRecoveryLock, &N::onSignalDetectFromXcvr, &N::onSignalDetect,
             &N::onUserDefinedSignalLock, &N::onSignalLock, keyed<N, Xcvr::CfpxHostLaneId>(&N::onLaneSignalDetect),
             &N::onLaneSignalDetectmoxImmediate, bare<N>(&N::onLaneSignalDetect), &N::onSignalDetectSummary,
             keyed<N, Xcvr::CfpxHostLaneId>(&N::onAmplitude), &N::onAmplitudemoxImmediate, bare<N>(&N::onAmplitude),
             keyed<N, Xcvr::CfpxHostLaneId>(&N::onMeanSquareError), &N::onMeanSquareErrormoxImmediate,
             bare<N>(&N::onMeanSquareError), keyed<N, Xcvr::CfpxHostLaneId>(&N::onAgcGain), &N::onAgcGainmoxImmediate,
             bare<N>(&N::onAgcGain), keyed<N, Xcvr::CfpxHostLaneId>(&N::onRxSkew), &N::onRxSkewmoxImmediate,
             bare<N>(&N::onRxSkew), &N::onCenterGravityH, &N::onCenterGravityV,
             keyed<N, Xcvr::CfpxHostLaneId>(&N::onAdcUnitOffset), &N::onAdcUnitOffsetmoxImmediate,
             bare<N>(&N::onAdcUnitOffset), keyed<N, Xcvr::CfpxHostLaneId>(&N::onAdcRowOffset),
             &N::onAdcRowOffsetmoxImmediate, bare<N>(&N::onAdcRowOffset),
             keyed<N, Xcvr::CfpxHostLaneId>(&N::onAdcGainError), &N::onAdcGainErrormoxImmediate,
             bare<N>(&N::onAdcGainError), keyed<N, Xcvr::CfpxHostLaneId>(&N::onAdcTimingError),
             &N::onAdcTimingErrormoxImmediate, bare<N>(&N::onAdcTimingError), &N::onFecFrames, &N::onFecErrors,
             &N::onCurrPreFecErrorRate, &N::onFirmwareSmState, &N::onFirmwareSmStateChanges,
             &N::onLastFirmwareSmStateChanged, &N::onPerformanceMonitorCount, &N::onDiffGroupDelay,
             &N::onCumDiffGroupDelay, &N::onChromaticDispersion, &N::onCumChromaticDispersion,
             &N::onPolarizationDepLoss, &N::onCumPolarizationDepLoss, &N::onCarrierFreqOffset,
             &N::onCumCarrierFreqOffset, &N::onStateOfPolarizationRate, &N::onQFactorFromBer, &N::onQFactorH,
             &N::onQFactorV, &N::onCumQFactorH, &N::onCumQFactorV, &N::onLdpcWordErrorRate, &N::onLdpcWordErrors,
             &N::onTotalLdpcWords, keyed<N, Mox::Name>(&N::onLdpcHistograms), &N::onLdpcHistogramsmoxImmediate,
             bare<N>(&N::onLdpcHistograms), &N::onRollOff);
      EXPECT_EQ(next - first, 117 + 90);
   }
}

} // namespace
