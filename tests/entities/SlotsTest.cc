// SPDX-License-Identifier: Apache-2.0
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

using namespace Hardware::ClariPhy;
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
             &N::onCollectionNotification, static_cast<void (N::*)()>(&N::onNotificationException),
             static_cast<void (N::*)(AttributeId)>(&N::onNotificationException),
             static_cast<void (N::*)(AttributeId)>(&N::handleNotificationException),
             static_cast<void (N::*)()>(&N::handleNotificationException), &N::onZeroReferences, &N::activityPtr,
             static_cast<Mox::Activity* (N::*)()>(&N::moxFwkActivity),
             static_cast<Mox::Activity const* (N::*)() const>(&N::moxFwkActivity), &N::actsm);
      follow(next, &Entity::NotifieeConst::onParent, &Entity::NotifieeConst::onVersion);
      return next;
   }
};

// A schema's identifiers ascend and its functions stand in the order of its lines: where the first and the last of a type have
// their slots, so have those between.

TEST_F(Slots, OfEntitiesAreTheFrameworksAndThenTheBasesMutators) {
   for (int const slots :
        {entity<FecHistogram>(), entity<Cl10010ConfigDir>(), entity<Cl10010StatusDir>(), entity<Cl10010ConfigPtrDir>(),
         entity<Cl10010StatusPtrDir>(), entity<Cl10010Config>(), entity<Cl10010Status>()})
      EXPECT_EQ(slots, 25);
   EXPECT_EQ(slotOf(&PhyConfig::modelIs), 25);
   EXPECT_EQ(slotOf(&PhyConfig::diagsModeEpochInc), 25 + 23) << "behind the mutator of its counter";
   EXPECT_EQ(slotOf(&PhyConfig::overrideEthIntfConfigDel), 25 + 26);
   EXPECT_EQ(slotOf(&PhyConfig::configReadyIs), 25 + 31);
   EXPECT_EQ(slotOf(&PhyStatus::xcvrStatusIs), 25);
   EXPECT_EQ(slotOf(&Cl10010Config::rollOffIs), -1) << "a type's own mutators are not virtual";
   EXPECT_EQ(slotOf(&Cl10010Status::amplitudeIs), -1);
}

/// The three functions of a keyed attribute.
template <class N, class Key>
void expectKeyed(int slot, void (N::*withKey)(Key), void (N::*immediate)(), void (N::*plain)()) {
   follow(slot, withKey, immediate, plain);
}

TEST_F(Slots, OfReactorsAreTheFrameworksThenTheBasesThenTheOwn) {
#define EXPECT_KEYED(slot, Type, Key, function)                                                                        \
   expectKeyed<Type::NotifieeConst, Key>(slot, &Type::NotifieeConst::function,                                         \
                                         &Type::NotifieeConst::function##moxImmediate, &Type::NotifieeConst::function)
   EXPECT_EQ(reactor(), 30);
   EXPECT_KEYED(30, Cl10010ConfigDir, Mox::Name, onPhyConfig);
   EXPECT_KEYED(30, Cl10010ConfigPtrDir, Mox::Name, onPhyConfig);
   EXPECT_KEYED(30, Cl10010StatusDir, Mox::Name, onPhyStatus);
   EXPECT_KEYED(30, Cl10010StatusPtrDir, Mox::Name, onPhyStatus);
   EXPECT_KEYED(30, FecHistogram, ClariPhyTypes::LdpcHistogramIterNum, onHistogram);
   EXPECT_EQ(slotOf(&PhyConfig::NotifieeConst::onModel), 30);
   EXPECT_EQ(slotOf(&PhyConfig::NotifieeConst::onConfigReady), 30 + 29);
   EXPECT_EQ(slotOf(&Cl10010Config::NotifieeConst::onSpiAccel), 60);
   EXPECT_KEYED(63, Cl10010Config, Xcvr::CfpxHostChannel, onCalibration);
   EXPECT_EQ(slotOf(&Cl10010Config::NotifieeConst::onRollOff), 60 + 12);
   EXPECT_EQ(slotOf(&PhyStatus::NotifieeConst::onXcvrStatus), 30);
   EXPECT_EQ(slotOf(&PhyStatus::NotifieeConst::onPhyConfigVersionInHw), 30 + 116);
   EXPECT_EQ(slotOf(&Cl10010Status::NotifieeConst::onDebugStateSnapshotTimestamp), 147);
   EXPECT_KEYED(147 + 86, Cl10010Status, Mox::Name, onLdpcHistograms);
   EXPECT_EQ(slotOf(&Cl10010Status::NotifieeConst::onRollOff), 147 + 89);
}

} // namespace
