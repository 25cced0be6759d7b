// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/mox/MoxType.h"
#include "kestrel/notify/Delivery.h"
#include "kestrel/notify/Dump.h"
#include "kestrel/notify/Kinds.h"
#include "kestrel/notify/Mutators.h"
#include "kestrel/values/Print.h"

#include <array>
#include <sstream>
#include <string_view>

// What a type's own source is compiled from: the operations of its type object, and its delivery passes.

namespace Mox {

namespace detail {

template <class X> constexpr unsigned ownedCollections() {
   unsigned count = 0;
   X::MoxAttributes::forEach([&](auto a) { count += a.ownsMembers ? 1u : 0u; });
   return count;
}

/// Calls `visit(attribute)` for the collections whose members the level of `X` owns.
template <class X, class Visitor> void forEachOwned(Visitor&& visit) {
   X::MoxAttributes::forEach([&](auto a) {
      if constexpr (a.ownsMembers)
         visit(a);
   });
}

template <class X> void membersDelAll(Entity& entity) {
   FirstException failures;
   forEachOwned<X>([&](auto a) {
      using A = decltype(a);
      auto& owner = static_cast<X&>(entity);
      auto& cell = A::cell(owner);
      for (typename A::Container::Iterator it(cell); it; it.advance())
         failures.run([&] { memberDel<A>(owner, it); });
      // Reactors may have added members at places that the iterator has passed: those must not keep a parent that is
      // gone.
      while (auto* const left = cell.first())
         failures.run([&] { cell.remove(*left)->parentIs(nullptr); });
   });
   failures.rethrow();
}

template <class X> void visitMembers(Entity& entity, void* context, void (*visit)(void*, AttributeId, Entity&)) {
   forEachOwned<X>([&](auto a) {
      using Container = typename decltype(a)::Container;
      for (typename Container::Iterator it(a.cell(static_cast<X&>(entity))); it; it.advance())
         visit(context, a.id, *it.entry());
   });
}

template <class X> unsigned auditLevel(Entity const& entity, unsigned depth) {
   unsigned errors = 0;
   X::MoxAttributes::forEach([&](auto a) {
      if constexpr (a.isKeyed) {
         auto const& cell = a.cell(static_cast<X const&>(entity));
         errors += cell.auditErrors();
         if constexpr (a.ownsMembers)
            for (auto* m = cell.first(); m != nullptr; m = cell.next(*m)) {
               errors += m->moxRawParent() != &entity;
               errors += m->parentAttrId() != a.id;
               if (depth != 0)
                  errors += m->auditErrors(depth - 1);
            }
      }
   });
   return errors;
}

template <class Value> std::string textOf(Value const& value) {
   std::ostringstream text;
   print(text, value);
   return text.str();
}
template <class Target> std::string textOf(Ptr<Target> const& target) {
   bool const travels = target && target->moxHasAttrLogInterface() && !target->fwkType()->operations().isAbstract;
   return std::string(std::string_view(Entity::fullNameOf(travels ? target.get() : nullptr)));
}

template <class X> void dumpLevel(Entity const& entity, std::vector<DumpLine>& lines) {
   X const& object = static_cast<X const&>(entity);
   std::string const prefix = std::string(std::string_view(entity.fullName())) + ".";
   auto const dumpScalar = [&](auto a) { lines.push_back({prefix + std::string(a.name), textOf(a.cell(object))}); };
   X::MoxAttributes::forEach([&](auto a) {
      auto const pathOf = [&](auto const& key) {
         return prefix + std::string(a.name) + "[" + dumpKey(textOf(key)) + "]";
      };
      if constexpr (!a.isKeyed) {
         dumpScalar(a);
      } else if constexpr (!a.hasEntries) {
         a.cell(object).forEach([&](auto key, auto const& v) { lines.push_back({pathOf(key), textOf(v)}); });
      } else {
         auto const& cell = a.cell(object);
         for (auto* entry = cell.first(); entry != nullptr; entry = cell.next(*entry)) {
            std::string const path = pathOf(entry->fwkKey());
            if constexpr (a.ownsMembers) {
               lines.push_back({path, "present"});
               std::vector<DumpLine> const below = Mox::dumpLines(*entry);
               lines.insert(lines.end(), below.begin(), below.end());
            } else {
               lines.push_back({path, textOf(entry->value())});
            }
         }
      }
   });
   X::MoxParameters::forEach([&](auto p) {
      if constexpr (std::is_same_v<typename decltype(p)::Owner, X>)
         dumpScalar(p); // a base's parameter is dumped with the base's level
   });
}

template <class X> EntityOperations operationsOf(NboAttrLog::TypeOperations const* log) {
   EntityOperations operations;
   if constexpr (ownedCollections<X>() != 0) {
      operations.membersDelAll = &membersDelAll<X>;
      operations.visitMembers = &visitMembers<X>;
      operations.collections = ownedCollections<X>();
   }
   operations.attributeName = &attributeNameOf<X>;
   operations.dumpLines = &dumpLevel<X>;
   operations.auditErrors = &auditLevel<X>;
   operations.log = log;
   operations.isAbstract = X::moxIsAbstract;
   return operations;
}

} // namespace detail

/// The type object of `X`, made at the first call; called from `X::_fwkType` alone. `log` is null for a type without an attribute
/// log.
template <class X> Ptr<MoxType const> typeOf(std::string_view qualifiedName, NboAttrLog::TypeOperations const* log) {
   static auto const type = make<MoxType>(qualifiedName, X::MoxBase::_fwkType(), detail::operationsOf<X>(log));
   return type;
}

/// The passes of the attributes that the level of `X` adds. Only the type's own source instantiates this, so the passes
/// are compiled there and other sources link to them. Their addresses are taken because the compiler would otherwise
/// leave out a pass that it has inlined.
template <class X> struct DeliveryPasses {
   template <class A> static constexpr auto addressOf() noexcept {
      if constexpr (A::isKeyed)
         return &X::template moxAnnounce<A, typename A::Key>;
      else
         return &X::template moxAnnounce<A>;
   }
   template <class A> static constexpr auto pass = addressOf<A>();
   template <class... As> static constexpr auto passes(TypeList<As...>) noexcept {
      return std::array<void const*, sizeof...(As)>{&pass<As>...};
   }
   static constexpr auto all = passes(typename X::MoxAttributes{});
};

} // namespace Mox
