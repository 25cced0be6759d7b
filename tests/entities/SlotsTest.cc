// SPDX-License-Identifier: Apache-2.0
// The order of virtual functions is part of the binary interface: whoever was compiled against an older header calls by number.

#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/entities/Cl10010StatusReactor.h"
#include "kestrel/mox/Activity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

// Pointers to member functions hold slots only in the Itanium ABI on x86-64.
#if defined(__GXX_ABI_VERSION) && defined(__x86_64__)

namespace {

using namespace Hardware::ClariPhy;
using Hardware::Phy::PhyConfig;
using Hardware::Phy::PhyStatus;
using Mox::Ptr;

/// Index in the table of virtual functions that a pointer to a member function holds; -1 where the function is not virtual.
template <class Function> int slotOf(Function function) {
   static_assert(sizeof(function) == 2 * sizeof(std::uintptr_t));
   std::uintptr_t word;
   std::memcpy(&word, &function, sizeof word);
   return word % 2 == 0 ? -1 : static_cast<int>((word - 1) / sizeof(void*));
}

/// The functions stand one behind the other from slot `next` on.
template <class... Functions> void follow(int next, Functions... functions) {
   int number = 0;
   auto const expectNext = [&](int slot) { EXPECT_EQ(slot, next++) << "function " << ++number << " of the list"; };
   (expectNext(slotOf(functions)), ...);
}

// A schema's identifiers ascend and its functions stand in the order of its lines: where the first and the last of a type have
// their slots, so have those between.

TEST(Slots, OfEntitiesAndReactorsAreTheFrameworksThenTheBasesThenTheOwn) {
   using E = Mox::Entity;
   using Sa = E::MoxNboAttrLogSa;
   using Out = Mox::NboAttrLog::Out;
   follow(0, &E::hasNotificationActiveIs, &E::moxAuditErrors, &E::auditErrors, &E::zeroReferencesIs, &E::fwkType);
   // Behind two destructors.
   follow(7, &E::name, static_cast<Ptr<E const> (E::*)() const>(&E::parent), static_cast<Ptr<E> (E::*)()>(&E::parent),
          &E::parentIs, &E::parentAttr, &E::parentAttrId, &E::parentAttrIdIs, &E::uriPath, &E::fullName,
          &E::attributeString, &E::moxNotifieeAdapterIs, &E::handleParent,
          static_cast<Ptr<Sa const> (E::*)(Ptr<Out const> const&) const>(&E::moxNboAttrLogSa),
          &E::moxHasAttrLogInterface, static_cast<Ptr<Sa> (E::*)(Ptr<Out const> const&)>(&E::moxNboAttrLogSa),
          &E::moxNboAttrLogSaForMsgChannel, &E::moxNboAttrLogSaIs, &E::moxNboAttrLogSaDel, &PhyConfig::modelIs);
   follow(48, &PhyConfig::diagsModeEpochInc); // behind the mutator of its counter
   follow(56, &PhyConfig::configReadyIs);
   follow(-1, &Cl10010Config::rollOffIs); // a type's own mutators are not virtual

   using N = Mox::PtrInterface::NotifieeConst;
   using Id = Mox::AttributeId;
   using Base = PhyConfig::NotifieeConst;
   using Config = Cl10010Config::NotifieeConst;
   using Status = Cl10010Status::NotifieeConst;
   follow(0, &N::hasNotificationActiveIs, &N::moxAuditErrors, &N::auditErrors, &N::zeroReferencesIs, &N::fwkType);
   follow(7, &N::moxReactor, &N::moxRawReactor, &N::isStreamAdapter, &N::isRegisteredNotifieeIs, &N::mox_bitSetIs,
          &N::name, &N::notifierIs, &N::handleNotification, &N::handleDefault, &N::onAttribute, &N::onNotification,
          &N::onCollectionNotification, static_cast<void (N::*)()>(&N::onNotificationException),
          static_cast<void (N::*)(Id)>(&N::onNotificationException),
          static_cast<void (N::*)(Id)>(&N::handleNotificationException),
          static_cast<void (N::*)()>(&N::handleNotificationException), &N::onZeroReferences, &N::activityPtr,
          static_cast<Mox::Activity* (N::*)()>(&N::moxFwkActivity),
          static_cast<Mox::Activity const* (N::*)() const>(&N::moxFwkActivity), &N::actsm,
          &Mox::Entity::NotifieeConst::onParent, &Mox::Entity::NotifieeConst::onVersion, &Base::onModel);
   follow(59, &Base::onConfigReady, &Config::onSpiAccel);
   follow(63, static_cast<void (Config::*)(Xcvr::CfpxHostChannel)>(&Config::onCalibration),
          &Config::onCalibrationmoxImmediate, static_cast<void (Config::*)()>(&Config::onCalibration));
   follow(72, &Config::onRollOff);
   follow(146, &PhyStatus::NotifieeConst::onPhyConfigVersionInHw, &Status::onDebugStateSnapshotTimestamp);
   follow(236, &Status::onRollOff);
}

} // namespace

#endif
