// SPDX-License-Identifier: Apache-2.0
#include "Types.h"

#include "Attributes.h"
#include "World.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/mox/MoxType.h"
#include "support/Told.h"

#include <stdexcept>
#include <tuple>

namespace Simulation {

using namespace Mox;

namespace {

/// Calls `call` with the entity as what it is.
template <class Call> void asItself(Entity& entity, Call call) {
   bool const isKnown = [&]<class... Xs>(TypeList<Xs...>) {
      auto const* const type = entity.fwkType().get();
      return ((type == Xs::_fwkType().get() && (call(static_cast<Xs&>(entity)), true)) || ...);
   }(AllTypes{});
   if (!isKnown)
      throw std::logic_error(entity.fwkType()->name().str() + " is no type of this simulation");
}

/// Calls `visit` with one of the attributes that `fits` takes. \return whether there are any
template <class X, class Fits, class Visitor> bool withOne(Words& words, Fits, Visitor visit) {
   std::size_t count = 0;
   AllOf<X>::List::forEach([&](auto a) { count += Fits{}(a) ? 1u : 0u; });
   std::size_t left = words.below(count);
   AllOf<X>::List::forEach([&](auto a) {
      if constexpr (Fits{}(decltype(a){}))
         if (left-- == 0)
            visit(a);
   });
   return count != 0;
}
constexpr auto isAny = [](auto) { return true; };
/// A status has over 150 scalars: the other kinds would hardly ever be met.
constexpr auto isRare = [](auto a) { return a.isKeyed || a.kind == Kind::reference || a.kind == Kind::optional; };
constexpr auto hasMembers = [](auto a) { return a.ownsMembers; };
constexpr auto isScalar = [](auto a) { return a.kind == Kind::scalar; };

template <class Key> Key makeKey(Words& words) {
   if constexpr (std::same_as<Key, Name>) {
      if (words.below(500) == 0)
         return Name(std::string(400, static_cast<char>('u' + words.below(3))));
      std::size_t const n = words.below(44);
      return n == 0 ? Name() : n == 1 ? Name("a/b %") : Name("n" + std::to_string(n));
   } else {
      return makeValue<Key>(words);
   }
}

template <class... Key> Cell cellOf(AttributeId id, Key const&... key) {
   return {id, keyText(key...)};
}

template <class T> Ptr<T> pick(Words& words, World& world) {
   std::vector<T*> fitting;
   auto const all = world.targets();
   for (Ptr<Entity> const& e : all)
      if (auto* const t = dynamic_cast<T*>(e.get()))
         fitting.push_back(t);
   return fitting.empty() || words.chance(20) ? Ptr<T>() : Ptr<T>(fitting[words.below(fitting.size())]);
}

/// Calls `call` with what a member of `A` is made with.
template <class A, class Call> void withParameters(Words& words, World& world, Call call) {
   [&]<class... Ps>(TypeList<Ps...>) {
      std::apply(call, std::tuple<typename Ps::Value...>{pick<typename Ps::Target>(words, world)...});
   }(typename A::Entry::MoxParameters{});
}

bool isNoMirror(Entity const& e) {
   return Entity::MoxNboAttrLogSa::mirrorAdapterOf(e) == nullptr;
}

/// Whether nobody else ever told this entity's values: a former mirror may be one again before a silent entry is told.
bool isOurs(Entity const& e) {
   return historyOf(e) == nullptr && isNoMirror(e);
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
   } catch (ReactorFailure const&) {
      // changed, and told to those before the reactor
   }
}

template <class A> void changeScalar(typename A::Owner& e, Words& words, World& world) {
   using Value = typename A::Value;
   write(e, {A::id, {}}, world, [&] {
      if constexpr (A::kind == Kind::optional)
         if (words.chance(30)) {
            A::drop(e);
            return;
         }
      if constexpr (A::kind == Kind::counter)
         if (words.chance(70)) {
            counterInc<A>(e, static_cast<Value>(words.below(3)));
            return;
         }
      if constexpr (A::kind == Kind::reference) {
         A::put(e, pick<typename A::Target>(words, world));
      } else {
         Value const value = words.chance(10) ? A::cell(e) : makeValue<Value>(words);
         A::put(e, value);
      }
   });
}

/// Deletes what an iterator comes to, which stands there while reactors run. One by one, so that a refusal says which.
template <class A> void deleteFrom(typename A::Owner& e, typename A::Key const& key, std::size_t most, World& world) {
   for (typename A::Container::Iterator it(A::cell(e), key); most != 0 && it; --most, it.advance())
      write(e, cellOf(A::id, it.key()), world, [&] { dropAt<A>(e, it); });
}
template <class A> void deleteSome(typename A::Owner& e, Words& words, World& world) {
   auto const key = makeKey<typename A::Key>(words);
   deleteFrom<A>(e, key, 1 + words.below(3), world);
}
template <class A> void deleteAll(typename A::Owner& e, World& world) {
   if (auto const* const first = A::cell(e).first())
      write(e, cellOf(A::id, first->fwkKey()), world, [&] {
         world.wrote(A::cell(e).size());
         dropAll<A>(e);
      });
}
/// An entry was made that nobody was told of. Told where `may` says so by then.
template <class A>
void tellLater(typename A::Owner& e, typename A::Key const& key, World& world, bool (*may)(Entity const&) = isOurs) {
   world.madeSilently([owner = Ptr<typename A::Owner>(&e), key, &world, may] {
      if (may(*owner))
         write(*owner, cellOf(A::id, key), world, [&] { keyNotify<A>(*owner, key); });
   });
}

/// Arrays, maps, and references by the names of their targets.
template <class A> void changeKeyed(typename A::Owner& e, Words& words, World& world) {
   constexpr bool refers = A::kind == Kind::hashReferences;
   auto& held = A::cell(e);
   auto const value = [&] {
      if constexpr (refers)
         return pick<typename A::Target>(words, world);
      else
         return makeValue<typename A::Value>(words);
   }();
   auto const key = [&] {
      if constexpr (refers)
         return value ? value->moxName() : held.empty() ? makeKey<Name>(words) : held.first()->fwkKey();
      else
         return makeKey<typename A::Key>(words);
   }();
   /// As the mutators take it: not null, and with a key where the value has none.
   auto const with = [&](auto const& v, auto call) {
      if constexpr (!refers)
         call(key, v);
      else if (v)
         call(v);
   };
   auto const put = [&](auto const&... argument) { A::put(e, argument...); };
   Cell const cell = cellOf(A::id, key);
   std::size_t const what = words.below(100);
   if (what < 60) {
      write(e, cell, world, [&] { with(value, put); });
   } else if (what < 72) {
      write(e, cell, world, [&] { A::drop(e, key); });
   } else if (what < 78) {
      write(e, cell, world, [&] { keyNotify<A>(e, key); });
   } else if constexpr (!A::hasEntries) {
      auto const same = held[key];
      if (what < 90)
         deleteFrom<A>(e, key, ~std::size_t{0}, world);
      else
         write(e, cell, world, [&] { put(key, same); });
   } else if (what < 82) {
      deleteAll<A>(e, world);
   } else if (what < 90) {
      deleteSome<A>(e, words, world);
   } else if (what < 93) {
      write(e, cell, world, [&] { with(mapValue<A>(e, key), put); });
   } else if (isOurs(e)) {
      with(value, [&](auto const&... argument) { putRaw<A>(e, argument...); });
      tellLater<A>(e, key, world);
   }
}

template <class A> void createMember(typename A::Owner& e, Name const& name, Words& words, World& world) {
   withParameters<A>(words, world, [&](auto const&... p) {
      write(e, cellOf(A::id, name), world, [&] {
         if (auto const member = A::put(e, name, p...))
            world.created(*member);
      });
   });
}

template <class A> void deleteMember(typename A::Owner& e, Name const& name, Words& words, World& world) {
   Ptr<Entity> const member = A::cell(e).find(name);
   write(e, cellOf(A::id, name), world, [&] { A::drop(e, name); });
   if (member)
      world.removed(member, words);
}

/// Makes a member of which nobody is told, in the place of what is there.
template <class A, class Seen>
void createSilently(typename A::Owner& e, Name const& name, Words& words, World& world, Seen seen) {
   withParameters<A>(words, world, [&](auto const&... p) {
      Ptr<Entity> const replaced = A::cell(e).find(name);
      Ptr<Entity> const made = putRaw<A>(e, name, p...);
      seen(*made);
      if (replaced)
         world.removed(replaced, words);
   });
}

template <class A> void changeMembers(typename A::Owner& e, Words& words, World& world) {
   Name const name = makeKey<Name>(words);
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
         createMember<A>(e, makeKey<Name>(words), words, world);
   } else if (what < 90) {
      write(e, cellOf(A::id, name), world, [&] { keyNotify<A>(e, name); });
   } else if (what < 91) {
      deleteAll<A>(e, world);
   } else if (what < 95) {
      deleteSome<A>(e, words, world);
   } else if (isOurs(e)) {
      createSilently<A>(e, name, words, world, [&](Entity& made) { world.created(made); });
      if (words.chance(50))
         write(e, cellOf(A::id, name), world, [&] { keyNotify<A>(e, name); });
      else
         tellLater<A>(e, name, world);
   }
}

template <class A>
void contestMember(typename A::Owner& truth, typename A::Owner& copy, Words& words, World& owner, World& mirror,
                   std::function<void()> const& carry) {
   auto const* const first = A::cell(truth).first();
   Name const name = first == nullptr || words.chance(50) ? makeKey<Name>(words) : first->moxName();
   Cell const cell = cellOf(A::id, name);
   for (std::size_t n = 3 + words.below(6); n != 0; --n) {
      std::size_t const what = words.below(100);
      if (what < 25) {
         write(truth, cell, owner, [&] { keyNotify<A>(truth, name); });
      } else if (what < 33) {
         deleteMember<A>(truth, name, words, owner);
      } else if (what < 43) {
         createMember<A>(truth, name, words, owner);
      } else if (what < 50) {
         change(Ptr<Entity>(A::cell(truth).find(name)), words, owner);
      } else if (what < 65) {
         deleteMember<A>(copy, name, words, mirror);
      } else if (what < 70) {
         createMember<A>(copy, name, words, mirror);
      } else if (what < 80) {
         change(Ptr<Entity>(A::cell(copy).find(name)), words, mirror);
      } else if (what < 85) {
         // Nobody is told of another one in the place of a mirrored member: its owner will. Who makes it knows it.
         createSilently<A>(copy, name, words, mirror, [&](Entity& made) {
            mirror.seen(made, true);
            if (History* const history = historyOf(copy))
               history->told.cells[cell] = identityOf(&made);
         });
         tellLater<A>(truth, name, owner);
         tellLater<A>(copy, name, mirror, isNoMirror); // the owner tells nothing of what is no mirror by then
      } else {
         carry();
      }
   }
}

template <class A> void crowdOf(typename A::Owner& e, Words& words, World& world) {
   bool const deletes = A::cell(e).size() >= 90;
   if (deletes && words.chance(50)) {
      deleteAll<A>(e, world);
      return;
   }
   for (std::size_t n = 0; n < 90; ++n) {
      Name const name("crowd" + std::to_string(n));
      deletes ? deleteMember<A>(e, name, words, world) : createMember<A>(e, name, words, world);
   }
}

template <class X, class A, class... Key>
void snapshotCell(X& e, A, Snapshot& into, EntityText const& entityText, Key const&... key) {
   Cell const cell = cellOf(A::id, key...);
   auto const putEntity = [&](Entity const* target) {
      into.cells[cell] = entityText(target);
      if (target != nullptr)
         into.entities[cell] = const_cast<Entity*>(target);
   };
   auto const put = [&](auto const& value) {
      if constexpr (requires { value.get(); })
         putEntity(value.get());
      else
         into.cells[cell] = textOf(value);
   };
   if constexpr (!A::isKeyed)
      put(A::cell(e));
   else if constexpr (!A::hasEntries)
      (..., put(A::cell(e)[key]));
   else if (auto* const entry = A::cell(e).find(key...)) {
      if constexpr (A::ownsMembers)
         putEntity(entry);
      else
         put(entry->value());
   }
}

/// Hands what it is told to a listener.
template <class X, class Listener>
class Hearer final : public X::template MoxForwarder<typename X::Notifiee, Hearer<X, Listener>>, public Listener {
public:
   explicit Hearer(Listener const& listener) : Listener(listener) {}

   template <class A, class... Key> void forward(A a, Key const&... key) {
      if constexpr (!std::same_as<typename A::Owner, Entity>) {
         EnoughMemory const here;
         if (Ptr<X> const entity = this->notifier())
            this->hear(*entity, a, key...);
      }
   }
   void onNotificationException(AttributeId) override {
      if (Ptr<X> const entity = this->notifier(); entity && this->letsPass(*entity))
         throw;
   }
};

/// Calls the world whenever it is notified.
struct Caller {
   int role;
   U64 word;
   unsigned budget;
   bool wasRecorded;
   World& world;

   template <class X, class A, class... Key> void hear(X& entity, A, Key const&... key) {
      if (entity.moxIsDying() || budget == 0)
         return;
      Ptr<Entity> member;
      if constexpr (A::ownsMembers)
         member = A::cell(entity).find(key...);
      world.reacts(role, Words(word + budget--).next(), entity, member.get());
   }
   /// Whether what it throws reaches whoever changed the entity, the log included. Not past a recorder that came later.
   bool letsPass(Entity const& entity) const { return word % 2 == 0 && (wasRecorded || historyOf(entity) == nullptr); }
};

struct Recorder : History {
   World& world;

   explicit Recorder(World& w) : world(w) {}
   template <class X, class A, class... Key> void hear(X& entity, A a, Key const&... key) {
      Snapshot now;
      snapshotCell(entity, a, now, identityOf, key...);
      Cell const cell = cellOf(A::id, key...);
      std::string const text = textIn(now.cells, cell);
      auto const before = told.cells.find(cell);
      auto const* const mirror = Entity::MoxNboAttrLogSa::mirrorAdapterOf(entity);
      bool isOwed = mirror != nullptr && mirror->hasUntold();
      if (isOwed) {
         auto const& untold = mirror->notes()->untold;
         auto const note = untold.find(NboAttrLog::Mark(A::id, key...));
         isOwed = note != untold.end() && !note->second.isTold;
      }
      world.told(entity, cell, before == told.cells.end() ? nullptr : &before->second, text, isOwed);
      told.cells[cell] = text;
      for (auto const& [where, target] : now.entities)
         world.seen(*target, A::ownsMembers);
   }
   bool letsPass(Entity const&) const { return false; }
};

template <class Listener> Reactor attach(Entity& entity, Listener const& listener) {
   Reactor attached;
   asItself(entity, [&]<class X>(X& e) {
      attached = listening<Hearer<X, Listener>>(Ptr<PtrInterface const>(&e), true, listener);
   });
   return attached;
}

} // namespace

void change(Ptr<Entity> const& entity, Words& words, World& world) {
   if (!entity)
      return;
   asItself(*entity, [&]<class X>(X& e) {
      auto const changed = [&](auto a) {
         using A = decltype(a);
         if constexpr (A::ownsMembers)
            changeMembers<A>(e, words, world);
         else if constexpr (A::isKeyed)
            changeKeyed<A>(e, words, world);
         else
            changeScalar<A>(e, words, world);
      };
      if (!words.chance(40) || !withOne<X>(words, isRare, changed))
         withOne<X>(words, isAny, changed);
   });
}

void contest(Entity& truth, Entity& copy, Words& words, World& owner, World& mirror,
             std::function<void()> const& carry) {
   asItself(truth, [&]<class X>(X& e) {
      withOne<X>(words, hasMembers,
                 [&](auto a) { contestMember<decltype(a)>(e, static_cast<X&>(copy), words, owner, mirror, carry); });
   });
}

void crowd(Entity& entity, Words& words, World& world) {
   asItself(entity, [&]<class X>(X& e) {
      withOne<X>(words, hasMembers, [&](auto a) { crowdOf<decltype(a)>(e, words, world); });
   });
}

bool changeWithoutMemory(Entity& entity, Words& words) {
   bool happened = false;
   asItself(entity, [&]<class X>(X& e) {
      withOne<X>(words, isScalar, [&](auto a) {
         auto const value = makeValue<typename decltype(a)::Value>(words);
         NoMemory const once(true);
         a.put(e, value);
         happened = NoMemory::hasFailed();
      });
   });
   return happened;
}

Snapshot snapshotOf(Entity& entity, EntityText const& entityText) {
   Snapshot all;
   asItself(entity, [&]<class X>(X& e) {
      AllOf<X>::List::forEach([&](auto a) {
         if constexpr (a.kind == Kind::array) {
            a.cell(e).forEach([&](auto key, auto const&) { snapshotCell(e, a, all, entityText, key); });
         } else if constexpr (a.isKeyed) {
            for (auto* entry = a.cell(e).first(); entry != nullptr; entry = a.cell(e).next(*entry))
               snapshotCell(e, a, all, entityText, entry->fwkKey());
         } else {
            snapshotCell(e, a, all, entityText);
         }
      });
      X::MoxParameters::forEach([&](auto p) { snapshotCell(e, p, all, entityText); });
   });
   return all;
}

std::string textIn(std::map<Cell, std::string> const& cells, Cell const& cell) {
   auto const at = cells.find(cell);
   return at == cells.end() ? "absent" : at->second;
}

std::string identityOf(Entity const* entity) {
   return entity == nullptr ? "null" : std::to_string(reinterpret_cast<std::uintptr_t>(entity));
}

Reactor react(Entity& entity, int role, U64 word, unsigned budget, World& world) {
   return attach(entity, Caller{role, word, budget, historyOf(entity) != nullptr, world});
}

Reactor record(Entity& entity, World& world) {
   Recorder recorder(world);
   recorder.told = snapshotOf(entity, identityOf);
   for (auto const& [cell, target] : Snapshot(recorder.told).entities)
      world.seen(*target, false);
   return attach(entity, recorder);
}

History* historyOf(Entity const& entity) {
   for (auto* r = entity.moxReactors().first(); r != nullptr; r = r->moxNextInList())
      if (auto* const history = dynamic_cast<History*>(r))
         return history;
   return nullptr;
}

} // namespace Simulation
