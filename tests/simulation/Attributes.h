// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Values.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010ConfigPtrDirReactor.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/entities/Cl10010StatusDirReactor.h"
#include "kestrel/entities/Cl10010StatusPtrDirReactor.h"
#include "kestrel/entities/Cl10010StatusReactor.h"
#include "kestrel/entities/FecHistogramReactor.h"
#include "kestrel/siblings/AcceleratorReactor.h"
#include "kestrel/siblings/EthPhyIntfStatusReactor.h"
#include "kestrel/siblings/GpoReactor.h"
#include "kestrel/siblings/IntCtrlReactor.h"
#include "kestrel/siblings/LedConfigReactor.h"
#include "kestrel/siblings/PllStatusReactor.h"
#include "kestrel/siblings/XcvrConfigReactor.h"
#include "kestrel/siblings/XcvrStatusReactor.h"

#include <string>

namespace Simulation {

using namespace Hardware;
using Mox::Kind;

/// Every type that has attributes.
using AllTypes = Mox::TypeList<ClariPhy::Cl10010Config, ClariPhy::Cl10010Status, ClariPhy::FecHistogram,
                               ClariPhy::Cl10010ConfigDir, ClariPhy::Cl10010StatusDir, ClariPhy::Cl10010ConfigPtrDir,
                               ClariPhy::Cl10010StatusPtrDir, Spi::Accelerator, Interface::EthPhyIntfStatus, Fru::Gpo,
                               Fru::IntCtrl, Led::LedConfig, Dpll::PllStatus, Xcvr::XcvrConfig, Xcvr::XcvrStatus>;

template <class A, class B> struct Joined;
template <class... As, class... Bs> struct Joined<Mox::TypeList<As...>, Mox::TypeList<Bs...>> {
   using List = Mox::TypeList<As..., Bs...>;
};
/// Every attribute of `X` and its bases.
template <class X> struct AllOf {
   using List = typename Joined<typename AllOf<typename X::MoxBase>::List, typename X::MoxAttributes>::List;
};
template <> struct AllOf<Mox::Entity> {
   using List = Mox::TypeList<>;
};

/// Of no key, or one: the empty name is a key, too.
template <class... Key> std::string keyText(Key const&... key) {
   return (std::string() + ... + ("[" + textOf(key) + "]"));
}

// What the mutators of each kind call by a name of their own.

/// Deletes the entry or element that an iterator stands on.
template <class A> void dropAt(typename A::Owner& e, typename A::Container::Iterator& it) {
   if constexpr (A::kind == Kind::array)
      Mox::arrayDel<A>(e, it);
   else if constexpr (A::ownsMembers)
      Mox::memberDel<A>(e, it);
   else
      Mox::mapDel<A>(e, it);
}
template <class A> void dropAll(typename A::Owner& e) {
   if constexpr (A::kind == Kind::array)
      Mox::arrayDelAll<A>(e);
   else if constexpr (A::ownsMembers)
      Mox::memberDelAll<A>(e);
   else
      Mox::mapDelAll<A>(e);
}
/// An entry of which nobody is told, from what `put` takes.
template <class A, class... Arguments> auto putRaw(typename A::Owner& e, Arguments const&... arguments) {
   if constexpr (A::kind == Kind::hashReferences)
      return Mox::newReferenceEntry<A>(e, arguments...);
   else if constexpr (A::ownsMembers)
      return Mox::newMember<A>(e, arguments...);
   else
      return Mox::newMapEntry<A>(e, arguments...);
}

} // namespace Simulation
