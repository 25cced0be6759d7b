// SPDX-License-Identifier: Apache-2.0
#include "Types.h"

#include "Attributes.h"
#include "Values.h"
#include "World.h"
#include "attrlog/StateAdapter.h"
#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusPtrDirReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "mox/MoxType.h"
#include "siblings/AcceleratorReactor.h"
#include "siblings/EthPhyIntfStatusReactor.h"
#include "siblings/GpoReactor.h"
#include "siblings/IntCtrlReactor.h"
#include "siblings/LedConfigReactor.h"
#include "siblings/PllStatusReactor.h"
#include "siblings/XcvrConfigReactor.h"
#include "siblings/XcvrStatusReactor.h"
#include "support/Allocations.h"

#include <memory>
#include <stdexcept>
#include <tuple>

namespace Simulation {

using namespace Mox;

namespace {

constexpr std::size_t names = 44;

Name makeName(Words& words) {
   if (plays(Expects::longNames) && words.below(500) == 0)
      return Name(std::string(400, static_cast<char>('u' + words.below(3))));
   std::size_t const n = words.below(names);
   return n == 0 ? Name() : n == 1 ? Name("a/b %") : Name("n" + std::to_string(n));
}

template <class Key> Key makeKey(Words& words) {
   if constexpr (std::same_as<Key, Name>)
      return makeName(words);
   else
      return makeValue<Key>(words);
}

template <class... Key> Cell cellOf(AttributeId id, Key const&... key) {
   Cell cell{id, {}};
   ((cell.key = "[" + textOf(key) + "]"), ...);
   return cell;
}

template <class X, class Visitor> void forEachAttribute(Visitor&& visit) {
   AllOf<X>::List::forEach(visit);
}

/// Calls `visit` with one of the attributes that `fits` takes.
template <class X, class Fits, class Visitor> bool withOne(Words& words, Fits fits, Visitor&& visit) {
   std::size_t count = 0;
   forEachAttribute<X>([&](auto a) { count += fits(a) ? 1u : 0u; });
   std::size_t left = words.below(count);
   bool found = false;
   forEachAttribute<X>([&](auto a) {
      if (!found && fits(a) && left-- == 0) {
         found = true;
         visit(a);
      }
   });
   return found;
}

template <class T> Ptr<T> pick(Words& words, World& world) {
   std::vector<T*> fitting;
   auto const all = world.targets();
   for (Ptr<Entity> const& e : all)
      if (auto* const t = dynamic_cast<T*>(e.get()))
         fitting.push_back(t);
   return fitting.empty() || words.chance(20) ? Ptr<T>() : Ptr<T>(fitting[words.below(fitting.size())]);
}

template <class... Ps> auto makeParameters(TypeList<Ps...>, Words& words, World& world) {
   return std::tuple<typename Ps::Value...>{pick<typename Ps::Target>(words, world)...};
}

bool isMirror(Entity const& e) {
   for (auto* r = e.moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (auto* const sa = r->moxRawStateAdapter();
          sa != nullptr && static_cast<Entity::MoxNboAttrLogSa*>(sa)->isMirror())
         return true;
   return false;
}

/// Whether nobody else ever told this entity's values: a former mirror may be one again before a silent entry is told.
bool isOurs(Entity const& e) {
   return historyOf(e) == nullptr && !isMirror(e);
}

/// Runs one mutator, which may be refused because the entity is a mirror.
template <class Call> void write(Entity& entity, Cell const& cell, World& world, Call call) {
   try {
      world.wrote(1);
      call();
   } catch (ReadOnlyException const&) {
      world.refused(entity, cell);
   } catch (NameInUseException const&) {
      // a member that exists with other parameters: nothing has changed
   }
}

template <class A> void changeScalar(typename A::Owner& e, Words& words, World& world) {
   using Value = typename A::Value;
   write(e, {A::id, {}}, world, [&] {
      if constexpr (A::kind == Mox::Kind::optional)
         if (words.chance(30)) {
            optionalDel<A>(e);
            return;
         }
      if constexpr (A::kind == Mox::Kind::counter)
         if (words.chance(70)) {
            counterInc<A>(e, static_cast<Value>(words.below(3)));
            return;
         }
      if constexpr (A::kind == Mox::Kind::reference) {
         A::put(e, pick<typename A::Target>(words, world));
      } else {
         Value const value = words.chance(10) ? A::cell(e) : makeValue<Value>(words);
         A::put(e, value);
      }
   });
}

/// Deletes entries from one key on through an iterator, which stands on what was deleted while reactors run.
template <class A, class Del> void deleteSome(typename A::Owner& e, Words& words, World& world, Del del) {
   typename A::Container::Iterator it(A::cell(e), makeKey<typename A::Key>(words));
   for (std::size_t n = 1 + words.below(3); n != 0 && it; --n, it.advance())
      write(e, cellOf(A::id, it.key()), world, [&] { del(it); });
}

/// An entry was made that nobody was told of.
template <class A> void tellLater(typename A::Owner& e, typename A::Key const& key, World& world) {
   world.madeSilently([owner = Ptr<typename A::Owner>(&e), key] {
      if (isOurs(*owner))
         keyNotify<A>(*owner, key);
   });
}

/// Arrays, maps, and references by the names of their targets.
template <class A> void changeKeyed(typename A::Owner& e, Words& words, World& world) {
   constexpr bool refers = A::kind == Mox::Kind::hashReferences;
   auto& held = A::cell(e);
   auto const value = [&] {
      if constexpr (refers)
         return pick<typename A::Target>(words, world);
      else
         return makeValue<typename A::Value>(words);
   }();
   auto const key = [&] {
      if constexpr (refers)
         return value ? value->moxName() : held.empty() ? makeName(words) : held.first()->fwkKey();
      else
         return makeKey<typename A::Key>(words);
   }();
   auto const set = [&](auto const& v) {
      if constexpr (!refers)
         A::put(e, key, v);
      else if (v)
         A::put(e, v);
   };
   Cell const cell = cellOf(A::id, key);
   std::size_t const what = words.below(100);
   if (what < 60) {
      write(e, cell, world, [&] { set(value); });
   } else if (what < 72) {
      write(e, cell, world, [&] { A::drop(e, key); });
   } else if (what < 78) {
      write(e, cell, world, [&] { keyNotify<A>(e, key); });
   } else if constexpr (!A::hasEntries) {
      if (what < 90) {
         // Element by element, so that a refusal says which one it was.
         for (typename A::Container::Iterator it(held, key); it; it.advance())
            write(e, cellOf(A::id, it.key()), world, [&] { arrayDel<A>(e, it); });
      } else {
         auto const same = held[key];
         write(e, cell, world, [&] { set(same); });
      }
   } else if (what < 82) {
      if (auto const* const first = held.first())
         write(e, cellOf(A::id, first->fwkKey()), world, [&] {
            world.wrote(held.size());
            mapDelAll<A>(e);
         });
   } else if (what < 90) {
      deleteSome<A>(e, words, world, [&](auto& it) { mapDel<A>(e, it); });
   } else if (what < 93) {
      write(e, cell, world, [&] { set(mapValue<A>(e, key)); });
   } else if (isOurs(e)) {
      if constexpr (!refers)
         newMapEntry<A>(e, key, value);
      else if (value)
         newReferenceEntry<A>(e, value);
      tellLater<A>(e, key, world);
   }
}

template <class A> void createMember(typename A::Owner& e, Name const& name, Words& words, World& world) {
   using Parameters = typename A::Entry::MoxParameters;
   std::apply(
      [&](auto const&... p) {
         write(e, cellOf(A::id, name), world, [&] {
            if (auto const member = A::put(e, name, p...))
               world.created(*member);
         });
      },
      makeParameters(Parameters{}, words, world));
}

template <class A> void deleteMember(typename A::Owner& e, Name const& name, Words& words, World& world) {
   Ptr<Entity> const member = A::cell(e).find(name);
   write(e, cellOf(A::id, name), world, [&] { A::drop(e, name); });
   if (member)
      world.removed(member, words);
}

template <class A> void changeMembers(typename A::Owner& e, Words& words, World& world) {
   Name const name = makeName(words);
   std::size_t const what = words.below(100);
   if (what < 45) {
      createMember<A>(e, name, words, world);
   } else if (what < 57) {
      deleteMember<A>(e, name, words, world);
   } else if (what < 70) {
      // The same name, another entity.
      bool const was = A::cell(e).find(name) != nullptr;
      deleteMember<A>(e, name, words, world);
      createMember<A>(e, name, words, world);
      if (was)
         world.recreated();
   } else if (what < 78) {
      for (std::size_t n = 2 + words.below(10); n != 0; --n) {
         Name const brief("brief" + std::to_string(words.below(100)));
         createMember<A>(e, brief, words, world);
         deleteMember<A>(e, brief, words, world);
      }
   } else if (what < 86) {
      for (std::size_t n = 5 + words.below(14); n != 0; --n)
         createMember<A>(e, makeName(words), words, world);
   } else if (what < 90) {
      write(e, cellOf(A::id, name), world, [&] { keyNotify<A>(e, name); });
   } else if (what < 91) {
      if (auto const* const first = A::cell(e).first())
         write(e, cellOf(A::id, first->moxName()), world, [&] {
            world.wrote(A::cell(e).size());
            memberDelAll<A>(e);
         });
   } else if (what < 95) {
      deleteSome<A>(e, words, world, [&](auto& it) { memberDel<A>(e, it); });
   } else if (isOurs(e)) {
      std::apply(
         [&](auto const&... p) {
            Ptr<Entity> const replaced = A::cell(e).find(name);
            world.created(*newMember<A>(e, name, p...));
            if (replaced)
               world.removed(replaced, words);
         },
         makeParameters(typename A::Entry::MoxParameters{}, words, world));
      if (words.chance(50))
         keyNotify<A>(e, name);
      else
         tellLater<A>(e, name, world);
   }
}

/// Puts another one in the place of a mirrored member, which tells nobody: the owner will.
template <class A>
void replaceMirrored(typename A::Owner& truth, typename A::Owner& copy, Name const& name, Words& words, World& owner,
                     World& mirror) {
   std::apply(
      [&](auto const&... p) {
         Ptr<Entity> const replaced = A::cell(copy).find(name);
         Ptr<Entity> const made = newMember<A>(copy, name, p...);
         // Who makes it in silence knows it.
         mirror.seen(*made, true);
         if (History* const history = historyOf(copy))
            history->told.cells[cellOf(A::id, name)] = identityOf(made.get());
         if (replaced)
            mirror.removed(replaced, words);
      },
      makeParameters(typename A::Entry::MoxParameters{}, words, mirror));
   tellLater<A>(truth, name, owner);
}

template <class A>
void contestMember(typename A::Owner& truth, typename A::Owner& copy, Words& words, World& owner, World& mirror,
                   std::function<void()> const& carry) {
   auto const* const first = A::cell(truth).first();
   Name const name = first == nullptr || words.chance(50) ? makeName(words) : first->moxName();
   Cell const cell = cellOf(A::id, name);
   auto const changeIn = [&](typename A::Owner& in, World& world) {
      if (Ptr<Entity> const member = A::cell(in).find(name))
         Type::of(*member).change(*member, words, world);
   };
   for (std::size_t n = 3 + words.below(6); n != 0; --n) {
      std::size_t const what = words.below(100);
      if (what < 25)
         write(truth, cell, owner, [&] { keyNotify<A>(truth, name); });
      else if (what < 33)
         deleteMember<A>(truth, name, words, owner);
      else if (what < 43)
         createMember<A>(truth, name, words, owner);
      else if (what < 50)
         changeIn(truth, owner);
      else if (what < 65)
         deleteMember<A>(copy, name, words, mirror);
      else if (what < 70)
         createMember<A>(copy, name, words, mirror);
      else if (what < 80)
         changeIn(copy, mirror);
      else if (what < 85)
         replaceMirrored<A>(truth, copy, name, words, owner, mirror);
      else
         carry();
   }
}

template <class A> void crowdOf(typename A::Owner& e, Words& words, World& world) {
   std::size_t const most = 90;
   auto const nameOf = [](std::size_t n) { return Name("crowd" + std::to_string(n)); };
   if (A::cell(e).size() < most) {
      for (std::size_t n = 0; n < most; ++n)
         createMember<A>(e, nameOf(n), words, world);
   } else if (words.chance(50)) {
      write(e, cellOf(A::id, nameOf(0)), world, [&] {
         world.wrote(A::cell(e).size());
         memberDelAll<A>(e);
      });
   } else {
      for (std::size_t n = 0; n < most; ++n)
         deleteMember<A>(e, nameOf(n), words, world);
   }
}

template <class X, class A, class... Key>
void snapshotCell(X& e, A, Snapshot& into, EntityText const& entityText, Key const&... key) {
   Cell const cell = cellOf(A::id, key...);
   auto put = [&](Entity* target) {
      into.cells[cell] = entityText(target);
      if (target != nullptr)
         into.entities[cell] = target;
   };
   if constexpr (A::kind == Mox::Kind::reference)
      put(const_cast<Entity*>(static_cast<Entity const*>(A::cell(e).get())));
   else if constexpr (!A::isKeyed)
      into.cells[cell] = textOf(A::cell(e));
   else if constexpr (!A::hasEntries)
      (..., (into.cells[cell] = textOf(A::cell(e)[key])));
   else if (auto* const entry = A::cell(e).find(key...)) {
      if constexpr (A::ownsMembers)
         put(entry);
      else if constexpr (A::kind == Mox::Kind::hashReferences)
         put(const_cast<Entity*>(static_cast<Entity const*>(entry->value().get())));
      else
         into.cells[cell] = textOf(entry->value());
   }
}

/// Calls the world whenever it is notified.
template <class X> class Reactor final : public X::template MoxForwarder<typename X::Notifiee, Reactor<X>> {
public:
   Reactor(int role, U64 word, unsigned budget, World& world)
      : role_(role), word_(word), budget_(budget), world_(world) {}

   template <class A, class... Key> void forward(A, Key const&... key) {
      if constexpr (!std::same_as<typename A::Owner, Entity>) {
         EnoughMemory const here;
         Ptr<X> const entity = this->notifier();
         if (!entity || entity->moxIsDying() || budget_ == 0)
            return;
         Ptr<Entity> member;
         if constexpr (A::ownsMembers)
            member = A::cell(*entity).find(key...);
         world_.reacts(role_, Words(word_ + budget_--).next(), *entity, member.get());
      }
   }

private:
   int role_;
   U64 word_;
   unsigned budget_;
   World& world_;
};

/// Records what it is told.
template <class X>
class Recorder final : public X::template MoxForwarder<typename X::Notifiee, Recorder<X>>, public History {
public:
   explicit Recorder(World& world) : world_(world) {}

   template <class A, class... Key> void forward(A a, Key const&... key) {
      if constexpr (!std::same_as<typename A::Owner, Entity>) {
         EnoughMemory const here;
         Ptr<X> const entity = this->notifier();
         if (!entity)
            return;
         Snapshot now;
         snapshotCell(*entity, a, now, identityOf, key...);
         Cell const cell = cellOf(A::id, key...);
         std::string const text = textIn(now.cells, cell);
         auto const before = told.cells.find(cell);
         world_.told(*entity, cell, before == told.cells.end() ? nullptr : &before->second, text);
         told.cells[cell] = text;
         for (auto const& [where, target] : now.entities)
            world_.seen(*target, A::ownsMembers);
      }
   }

private:
   World& world_;
};

template <class R, class X> Ptr<PtrInterface::NotifieeConst> attach(Ptr<R> const& reactor, X& entity) {
   reactor->isWeakReferenceIs(true);
   reactor->notifierIs(Ptr<PtrInterface const>(&entity));
   reactor->isRegisteredNotifieeIs(true);
   return reactor;
}

template <class X> class TypeOf final : public Type {
public:
   void change(Entity& entity, Words& words, World& world) const override {
      X& e = static_cast<X&>(entity);
      // A status has over 150 scalars: the other kinds would hardly ever be met.
      bool const isRare = words.chance(40);
      auto const fits = [&](auto a) {
         return !isRare || a.isKeyed || a.kind == Mox::Kind::reference || a.kind == Mox::Kind::optional;
      };
      auto const change = [&](auto a) {
         using A = decltype(a);
         if constexpr (A::ownsMembers)
            changeMembers<A>(e, words, world);
         else if constexpr (A::isKeyed)
            changeKeyed<A>(e, words, world);
         else
            changeScalar<A>(e, words, world);
      };
      if (!withOne<X>(words, fits, change))
         withOne<X>(
            words, [](auto) { return true; }, change);
   }

   bool contest(Entity& truth, Entity& copy, Words& words, World& owner, World& mirror,
                std::function<void()> const& carry) const override {
      return withOne<X>(
         words, [](auto a) { return a.ownsMembers; },
         [&](auto a) {
            using A = decltype(a);
            if constexpr (A::ownsMembers)
               contestMember<A>(static_cast<X&>(truth), static_cast<X&>(copy), words, owner, mirror, carry);
         });
   }

   bool crowd(Entity& entity, Words& words, World& world) const override {
      return withOne<X>(
         words, [](auto a) { return a.ownsMembers; },
         [&](auto a) {
            using A = decltype(a);
            if constexpr (A::ownsMembers)
               crowdOf<A>(static_cast<X&>(entity), words, world);
         });
   }

   bool changeWithoutMemory(Entity& entity, Words& words) const override {
      X& e = static_cast<X&>(entity);
      bool happened = false;
      withOne<X>(
         words, [](auto a) { return a.kind == Mox::Kind::scalar; },
         [&](auto a) {
            using A = decltype(a);
            if constexpr (A::kind == Mox::Kind::scalar) {
               auto const value = makeValue<typename A::Value>(words);
               NoMemory const once(true);
               A::put(e, value);
               happened = NoMemory::hasFailed();
            }
         });
      return happened;
   }

   Snapshot snapshot(Entity& entity, EntityText const& entityText) const override {
      X& e = static_cast<X&>(entity);
      Snapshot all;
      forEachAttribute<X>([&](auto a) {
         if constexpr (a.kind == Mox::Kind::array) {
            a.cell(e).forEach([&](auto key, auto const&) { snapshotCell(e, a, all, entityText, key); });
         } else if constexpr (a.isKeyed) {
            for (auto* entry = a.cell(e).first(); entry != nullptr; entry = a.cell(e).next(*entry))
               snapshotCell(e, a, all, entityText, entry->fwkKey());
         } else {
            snapshotCell(e, a, all, entityText);
         }
      });
      X::MoxParameters::forEach([&](auto p) {
         auto* const target = const_cast<Entity*>(static_cast<Entity const*>(p.cell(e).get()));
         all.cells[{p.id, {}}] = entityText(target);
         if (target != nullptr)
            all.entities[{p.id, {}}] = target;
      });
      return all;
   }

   std::size_t mostDirtyKeys(Entity const& entity) const override {
      std::size_t most = 0;
      forEachAttribute<X>([&](auto a) {
         if constexpr (a.hasEntries)
            most += 2 * a.cell(static_cast<X const&>(entity)).size() + 64;
      });
      return most;
   }

   Ptr<PtrInterface::NotifieeConst> react(Entity& entity, int role, U64 word, unsigned budget,
                                          World& world) const override {
      return attach(make<Reactor<X>>(role, word, budget, world), static_cast<X&>(entity));
   }

   Ptr<PtrInterface::NotifieeConst> record(Entity& entity, World& world) const override {
      auto const recorder = make<Recorder<X>>(world);
      recorder->told = snapshot(entity, identityOf);
      for (auto const& [cell, target] : Snapshot(recorder->told).entities)
         world.seen(*target, false);
      return attach(recorder, static_cast<X&>(entity));
   }
};

template <class... Xs> std::map<MoxType const*, std::unique_ptr<Type>> table() {
   std::map<MoxType const*, std::unique_ptr<Type>> types;
   (types.emplace(Xs::_fwkType().get(), std::make_unique<TypeOf<Xs>>()), ...);
   return types;
}

} // namespace

Type const& Type::of(Entity const& entity) {
   using namespace Hardware;
   static auto const types =
      table<ClariPhy::Cl10010Config, ClariPhy::Cl10010Status, ClariPhy::Cl10010ConfigDir, ClariPhy::Cl10010StatusDir,
            ClariPhy::FecHistogram, ClariPhy::Cl10010ConfigPtrDir, ClariPhy::Cl10010StatusPtrDir, Spi::Accelerator,
            Interface::EthPhyIntfStatus, Fru::Gpo, Fru::IntCtrl, Led::LedConfig, Dpll::PllStatus, Xcvr::XcvrConfig,
            Xcvr::XcvrStatus>();
   return *types.at(entity.fwkType().get());
}

std::string identityOf(Entity const* entity) {
   return entity == nullptr ? "null" : std::to_string(reinterpret_cast<std::uintptr_t>(entity));
}

} // namespace Simulation
