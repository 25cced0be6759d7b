// SPDX-License-Identifier: Apache-2.0
// Every operation of every attribute in random order, from inside reactors too, against the plain model beside this file.

#include "Plain.h"
#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusPtrDirReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "notify/EntityReactor.h"
#include "siblings/AcceleratorReactor.h"
#include "siblings/EthPhyIntfStatusReactor.h"
#include "siblings/GpoReactor.h"
#include "siblings/IntCtrlReactor.h"
#include "siblings/LedConfigReactor.h"
#include "siblings/PllStatusReactor.h"
#include "siblings/XcvrConfigReactor.h"
#include "siblings/XcvrStatusReactor.h"
#include "simulation/Attributes.h"
#include "simulation/Shrink.h"
#include "simulation/Values.h"
#include "simulation/Words.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>
#include <unordered_set>

namespace {

using namespace Hardware::ClariPhy;
using Mox::AttributeId;
using Mox::Kind;
using Mox::Name;
using Mox::Ptr;
using Mox::TypeList;
using Plain::Op;
using Plain::Reaction;
using Simulation::makeValue;
using Simulation::textOf;
using Simulation::Words;

constexpr std::size_t fewReactors = 4, manyReactors = 20; ///< many are more than a pass has room for in itself

/// The order of hash collections: by the name's hash, its bits reversed, then by the key.
struct HashOrder {
   template <class K> bool operator()(K const& a, K const& b) const {
      using Mox::baseHash;
      return std::pair(Mox::bitReversed(baseHash(a)), a) < std::pair(Mox::bitReversed(baseHash(b)), b);
   }
};

template <class T> Ptr<T> made(char const* name) {
   using X = std::remove_const_t<T>;
   if constexpr (std::same_as<X, Hardware::Phy::PhyConfig>)
      return Mox::make<Cl10010Config>(name);
   else if constexpr (std::same_as<X, Cl10010Status>)
      return Mox::make<X>(name, nullptr, nullptr);
   else
      return Mox::make<X>(name);
}
/// Null, or one of a few that are always the same; two of them have one name.
constexpr std::uint64_t targetCount = 5;
template <class T> Ptr<T> const& target(std::uint64_t word) {
   static Ptr<T> const targets[targetCount] = {nullptr, made<T>("n1"), made<T>("n2"), made<T>("n2"), made<T>("")};
   return targets[word % targetCount];
}

constexpr std::uint64_t keyWords = 12; ///< operations name keys by the words below

/// Few keys for the words of operations, so that they meet, and one for each word behind.
template <class K> K keyOf(std::uint64_t word) {
   std::uint64_t const number = word < keyWords ? word % 6 : word;
   if constexpr (std::same_as<K, Name>) {
      static std::vector<Name> const names = [] { // made before an operation finds no memory
         std::vector<Name> all(1);
         while (all.size() < 64)
            all.emplace_back("n" + std::to_string(all.size()));
         return all;
      }();
      return names.at(number);
   } else if constexpr (std::is_enum_v<K>)
      return static_cast<K>(number);
   else
      return K(word % (std::uint64_t{K::maximum} + 1));
}
/// How many entries come while an iterator stands somewhere: sometimes as many as make a collection grow twice.
constexpr std::uint64_t arrivals(std::uint64_t word) {
   return word % 16 * 3;
}
template <class K> std::string textOfKey(K const& key) {
   return "[" + textOf(key) + "]";
}

// The plain state of one attribute.
template <class A, bool isEntry = A::hasEntries> struct State {
   using Type = typename A::Value;
};
template <class A>
   requires(A::kind == Kind::array)
struct State<A, false> {
   using Type = Plain::Array<typename A::Value>;
};
template <class A> struct State<A, true> {
   static constexpr bool isHashed = A::kind != Kind::map && A::kind != Kind::collection;
   using Held = std::conditional_t<A::ownsMembers, std::size_t, typename A::Value>; ///< of a member its number
   using Type =
      std::conditional_t<isHashed, std::map<typename A::Key, Held, HashOrder>, std::map<typename A::Key, Held>>;
};
template <class A> struct Stored {
   typename State<A>::Type value{};
};
template <class List> struct States;
template <class... As> struct States<TypeList<As...>> : Stored<As>... {};

template <class A> constexpr unsigned operationCount() {
   bool const isPair = A::kind == Kind::counter || A::kind == Kind::optional;
   return A::ownsMembers ? 7 : A::hasEntries ? 6 : A::isKeyed ? 5 : isPair ? 2 : 1;
}

/// An entity, its model, and the reactors of both.
template <class X> class Run {
public:
   using List = typename Simulation::AllOf<X>::List;

   explicit Run(std::size_t reactors) {
      List::forEach([&](auto a) {
         if constexpr (a.kind == Kind::array)
            state(a).values.resize(std::size_t{decltype(a)::Key::maximum} + 1);
         else if constexpr (!a.isKeyed)
            state(a) = a.cell(*entity_);
      });
      plain_.run = [this](Op const& op) { onPlain(op); };
      for (std::size_t i = 0; i < reactors; ++i) {
         plain_.reactors.push_back(std::make_shared<Plain::Subject::Reactor>(Plain::Subject::Reactor{i}));
         reactors_.push_back(Mox::make<Real>(*this, i));
         reactors_[i]->notifierIs(entity_);
         if (reactors > fewReactors) {
            plain_.registeredIs(i, true);
            registeredIs(i, true);
         }
      }
      before_ = {entity_->changeCount(), entity_->touchCount()};
   }

   /// Runs one operation on both. \return what differs; empty for nothing
   std::string step(Op const& op, std::size_t reactor, std::optional<Reaction> const& reaction) {
      if (reaction && reactors_[reactor]) {
         reactors_[reactor]->reactions.push_back(*reaction);
         plain_.reactors[reactor]->reactions.push_back(*reaction);
      }
      bool isDone = false;
      bool real = false;
      if (op.word % 4 == 3 && reactors_.size() == fewReactors) { // a pass over more needs room, and may say so
         noMemory_.emplace();
         try {
            real = throws([&] { onReal(op); });
            isDone = true;
         } catch (std::bad_alloc const&) {
            ++refusals;
         }
         noMemory_.reset();
         if (!isDone)
            if (std::string const wrong = difference(); !wrong.empty())
               return "without memory, " + wrong;
      }
      if (!isDone)
         real = throws([&] { onReal(op); });
      bool const plain = throws([&] { onPlain(op); });
      if (real != plain)
         return real ? "the entity throws" : "the model throws";
      return difference();
   }
   /// Registers, pauses or lets go of a reactor.
   std::string reactorStep(std::size_t number, std::uint64_t what) {
      auto& real = reactors_[number];
      if (what % 8 == 7) {
         plain_.drop(number);
         real = nullptr;
      } else if (!real) {
         plain_.reactors[number] = std::make_shared<Plain::Subject::Reactor>(Plain::Subject::Reactor{number});
         real = Mox::make<Real>(*this, number);
         real->notifierIs(entity_);
      } else if (what % 8 < 5) {
         plain_.registeredIs(number, what % 8 != 0);
         real->isRegisteredNotifieeIs(what % 8 != 0);
      } else {
         plain_.activeIs(number, what % 8 == 5);
         real->hasNotificationActiveIs(what % 8 == 5);
      }
      return difference();
   }

   /// Lets go of the entity, under the eyes of all who are left. \return what differs
   std::string end() {
      for (std::size_t i = 0; i < reactors_.size(); ++i) {
         if (!reactors_[i])
            continue;
         reactors_[i]->isWeakReferenceIs(true);
         // What leaves a dying entity is swallowed: the model knows nothing of it.
         for (auto* const reactions : {&reactors_[i]->reactions, &plain_.reactors[i]->reactions})
            std::erase_if(*reactions, [](Reaction const& r) { return r.what == Reaction::rethrows; });
      }
      entity_ = nullptr;
      List::forEach([&](auto a) {
         if constexpr (decltype(a)::ownsMembers)
            Plain::mapDelAll(plain_, a.id, state(a), [](auto const& k) { return textOfKey(k); });
      });
      if (std::string wrong = differenceOfLogs(); !wrong.empty())
         return wrong;
      for (auto const& member : members_)
         if (member->parent() != nullptr)
            return "a member has outlived its parent and still has it";
      members_.clear();
      states_ = {};
      std::string wrong;
      List::forEach([&](auto a) {
         if constexpr (requires { typename decltype(a)::Target; })
            for (std::uint64_t word = 1; word < targetCount; ++word)
               if (target<typename decltype(a)::Target>(word)->references() != 1)
                  wrong = "a reference of " + std::string(a.name) + " is still held";
      });
      return wrong;
   }

   // What a reactor does.
   void run(Op const& op) { onReal(op); }
   void registeredIs(std::size_t number, bool registered) {
      if (auto const reactor = reactors_[number])
         reactor->isRegisteredNotifieeIs(registered);
   }
   void drop(std::size_t number) { reactors_[number] = nullptr; }

   static inline std::set<std::pair<AttributeId, unsigned>> covered;
   static inline std::size_t refusals = 0; ///< operations that threw because there was no memory

private:
   class Real : public X::template MoxForwarder<typename X::Notifiee, Real> {
   public:
      Real(Run& run, std::size_t number) : run_(run), number_(number) {}

      template <class A, class... Key> void forward(A, Key const&... key) {
         run_.noMemory_.reset(); // the mutator has done what it needs memory for
         run_.log_.push_back(Plain::told(number_, A::id, (std::string() + ... + textOfKey(key))));
         Reaction reaction;
         if (!reactions.empty()) {
            reaction = reactions.front();
            reactions.pop_front();
         }
         rethrows_.push_back(reaction.what == Reaction::rethrows);
         Plain::react(reaction, run_);
         rethrows_.pop_back();
      }
      void onNotificationException(AttributeId id) override {
         run_.log_.push_back(Plain::threw(number_, id));
         bool const rethrows = rethrows_.back();
         rethrows_.pop_back();
         if (rethrows)
            throw Plain::Thrown{};
      }
      std::deque<Reaction> reactions;

   private:
      Run& run_;
      std::size_t number_;
      std::vector<bool> rethrows_;
   };

   template <class A> auto& state(A) { return static_cast<Stored<A>&>(states_).value; }
   template <class Call> static bool throws(Call call) {
      try {
         call();
         return false;
      } catch (Plain::Thrown const&) {
         return true;
      } catch (Mox::RangeException const&) {
         return true;
      } catch (Mox::NameInUseException const&) {
         return true;
      }
   }
   template <class Visitor> static void withAttribute(Op const& op, Visitor visit) {
      unsigned i = 0;
      List::forEach([&](auto a) {
         if (i++ == op.attribute % List::size)
            visit(a, op.what % operationCount<decltype(a)>());
      });
   }

   template <class A> static auto iterator(typename A::Container& cell, typename A::Key const& key) {
      typename A::Container::Iterator it(cell);
      while (it && !(it.key() == key))
         it.advance();
      return it;
   }

   template <class A> static void createReal(typename A::Owner& e, typename A::Key const& key, std::uint64_t word) {
      if constexpr (A::ownsMembers)
         std::apply([&](auto const&... p) { Mox::newMember<A>(e, key, p...); }, parameters<A>(word));
      else
         Mox::newMapEntry<A>(e, key, value<A>(word));
   }

   void onReal(Op const& op) {
      withAttribute(op, [&](auto a, unsigned what) {
         using A = decltype(a);
         covered.insert({A::id, what}); // allocates once: an operation may be short of memory
         auto& e = static_cast<typename A::Owner&>(it_);
         if constexpr (!A::isKeyed) {
            if constexpr (A::kind == Kind::reference) {
               A::put(e, target<typename A::Target>(op.word));
            } else {
               auto const v = value<A>(op.word);
               if constexpr (A::kind == Kind::counter) {
                  if (what == 1) {
                     Mox::counterInc<A>(e, v);
                     return;
                  }
               } else if constexpr (A::kind == Kind::optional) {
                  if (what == 1) {
                     A::drop(e);
                     return;
                  }
               }
               A::put(e, v);
            }
         } else {
            auto const key = keyOf<typename A::Key>(op.word >> 32);
            if (what == 0) {
               if constexpr (A::kind == Kind::hashReferences)
                  A::put(e, target<typename A::Target>(op.word));
               else if constexpr (A::ownsMembers)
                  std::apply([&](auto const&... p) { A::put(e, key, p...); }, parameters<A>(op.word));
               else
                  A::put(e, key, value<A>(op.word));
            } else if (what == 1) {
               A::drop(e, key);
            } else if (what == 2) {
               auto it = [&] {
                  if constexpr (A::kind == Kind::array)
                     return typename A::Container::Iterator(A::cell(e), key);
                  else
                     return iterator<A>(A::cell(e), key);
               }();
               if constexpr (A::hasEntries && A::kind != Kind::hashReferences)
                  for (std::uint64_t i = 0; i < arrivals(op.word); ++i)
                     createReal<A>(e, keyOf<typename A::Key>(keyWords + i), op.word);
               if constexpr (A::kind == Kind::array)
                  Mox::arrayDel<A>(e, it);
               else if constexpr (A::ownsMembers)
                  Mox::memberDel<A>(e, it);
               else
                  Mox::mapDel<A>(e, it);
            } else if (what == 3) {
               if constexpr (A::kind == Kind::array)
                  Mox::arrayDelAll<A>(e);
               else if constexpr (A::ownsMembers)
                  Mox::memberDelAll<A>(e);
               else
                  Mox::mapDelAll<A>(e);
            } else if (what == 4) {
               Mox::keyNotify<A>(e, key);
            } else if (what == 5) {
               if constexpr (A::kind == Kind::hashReferences)
                  Mox::newReferenceEntry<A>(e, target<typename A::Target>(op.word));
               else if constexpr (A::hasEntries)
                  createReal<A>(e, key, op.word);
            } else if constexpr (A::ownsMembers) {
               Mox::memberFind<A>(e, key);
            }
         }
      });
   }

   void onPlain(Op const& op) {
      withAttribute(op, [&](auto a, unsigned what) {
         using A = decltype(a);
         auto& cell = state(a);
         if constexpr (!A::isKeyed) {
            if constexpr (A::kind == Kind::reference) {
               Plain::set(plain_, A::id, cell, typename A::Value(target<typename A::Target>(op.word)));
            } else {
               auto const v = value<A>(op.word);
               if constexpr (A::kind == Kind::counter) {
                  if (what == 1) {
                     Plain::increment(plain_, A::id, cell, v, std::make_unsigned_t<typename A::Value>{});
                     return;
                  }
               }
               Plain::set(plain_, A::id, cell, A::kind == Kind::optional && what == 1 ? typename A::Value{} : v);
            }
         } else {
            using Key = typename A::Key;
            auto const key = keyOf<Key>(op.word >> 32);
            auto const text = textOfKey(key);
            if (what == 4) {
               plain_.pass(A::id, text);
            } else if constexpr (A::kind == Kind::array) { // NOLINT(bugprone-branch-clone): not for this kind alone
               if (what == 0)
                  Plain::arraySet(plain_, A::id, cell, key, value<A>(op.word), text);
               else if (what == 3)
                  Plain::arrayDelAll(plain_, A::id, cell, [](std::size_t i) { return textOfKey(Key(i)); });
               else
                  Plain::arrayDel(plain_, A::id, cell, key, text);
            } else if (what == 1 || what == 2) {
               if constexpr (A::kind != Kind::hashReferences)
                  for (std::uint64_t i = 0; what == 2 && i < arrivals(op.word); ++i)
                     cell[keyOf<Key>(keyWords + i)] = held<A>(op.word);
               Plain::mapDel(plain_, A::id, cell, key, text);
            } else if (what == 3) {
               Plain::mapDelAll(plain_, A::id, cell, [](Key const& k) { return textOfKey(k); });
            } else if constexpr (A::kind == Kind::hashReferences) {
               auto const t = target<typename A::Target>(op.word);
               if (!t)
                  throw Plain::Thrown{};
               if (what == 0)
                  Plain::mapSet(plain_, A::id, cell, t->name(), t, textOfKey(t->name()));
               else
                  cell[t->name()] = t;
            } else if constexpr (A::ownsMembers) {
               onPlainMember<A>(cell, key, text, what, op.word);
            } else if (what == 0) {
               Plain::mapSet(plain_, A::id, cell, key, value<A>(op.word), text);
            } else {
               cell[key] = held<A>(op.word);
            }
         }
      });
   }
   /// Members are known by the word that they were made with: of that come their parameters.
   template <class A> static typename State<A>::Held held(std::uint64_t word) {
      if constexpr (A::ownsMembers)
         return A::Entry::MoxParameters::size == 0 ? 0 : word % 25;
      else
         return value<A>(word);
   }
   template <class A, class Cell>
   void onPlainMember(Cell& cell, Name const& key, std::string const& text, unsigned what, std::uint64_t word) {
      if (what == 6) {
         ++plain_.touches;
      } else if (what == 5) {
         cell[key] = held<A>(word);
      } else if (auto const at = cell.find(key); at != cell.end()) {
         if (parameters<A>(at->second) != parameters<A>(word))
            throw Plain::Thrown{};
         ++plain_.changes;
      } else {
         cell[key] = held<A>(word);
         plain_.changed(A::id, text);
      }
   }

   template <class A> static typename A::Value value(std::uint64_t word) {
      Words words(word % 64); // few values, so that equal ones meet
      return makeValue<typename A::Value>(words);
   }
   template <class A> static auto parameters(std::uint64_t word) {
      return parametersOf(typename A::Entry::MoxParameters{}, word);
   }
   template <class... Ps> static auto parametersOf(TypeList<Ps...>, [[maybe_unused]] std::uint64_t word) {
      return std::tuple<typename Ps::Value...>{target<typename Ps::Target>(std::exchange(word, word / 5))...};
   }

   static std::string joined(Plain::Log const& log) {
      std::string all;
      for (auto const& line : log)
         all += "\n   " + line;
      return all;
   }
   std::string differenceOfLogs() {
      std::string const real = joined(std::exchange(log_, {}));
      std::string const plain = joined(std::exchange(plain_.log, {}));
      return real == plain ? std::string() : "the log is " + real + " and should be " + plain;
   }
   std::string difference() {
      std::string text = differenceOfLogs();
      auto const expect = [&](std::string const& what, std::string const& real, std::string const& plain) {
         if (text.empty() && real != plain)
            text = what + " is " + real + " and should be " + plain;
      };
      expect("the change count", std::to_string(entity_->changeCount() - before_.first),
             std::to_string(plain_.changes));
      expect("the touch count", std::to_string(entity_->touchCount() - before_.second), std::to_string(plain_.touches));
      expect("the audit", std::to_string(entity_->auditErrors(2)), "0");
      List::forEach([&](auto a) {
         using A = decltype(a);
         if (!text.empty())
            return;
         auto const& real = A::cell(*entity_);
         auto const& plain = state(a);
         auto const valueText = [](auto const& v) {
            if constexpr (requires { v.get(); })
               return std::to_string(reinterpret_cast<std::uintptr_t>(v.get()));
            else
               return textOf(v);
         };
         std::string const name(A::name);
         if constexpr (A::kind == Kind::array) {
            real.forEach(
               [&](auto key, auto const& v) { expect(name + textOfKey(key), textOf(v), textOf(plain.values[key])); });
            expect("the size of " + name, std::to_string(real.size()),
                   std::to_string(plain.isPopulated ? plain.values.size() : 0));
            expect("the version of " + name, std::to_string(real.version()), std::to_string(plain.stores));
         } else if constexpr (!A::isKeyed) {
            expect(name, valueText(real), valueText(plain));
         } else {
            Plain::Log keys[2];
            for (auto* entry = real.first(); entry != nullptr; entry = real.next(*entry)) {
               keys[0].push_back(textOfKey(entry->fwkKey()));
               if constexpr (A::ownsMembers)
                  members_.insert(Ptr<Mox::Entity>(const_cast<typename A::Entry*>(entry)));
            }
            if constexpr (A::ownsMembers)
               for (auto const& member : members_) {
                  bool const isIn = real.find(member->name()) == member.get();
                  expect("the parent of a member", member->parent() == entity_ ? "here" : "none",
                         isIn ? "here" : "none");
               }
            for (auto const& [key, v] : plain) {
               keys[1].push_back(textOfKey(key));
               if constexpr (!A::ownsMembers)
                  if (auto* const entry = real.find(key))
                     expect(name + keys[1].back(), valueText(entry->value()), valueText(v));
            }
            expect("the keys of " + name, joined(keys[0]), joined(keys[1]));
         }
      });
      return text;
   }

   Ptr<X> entity_ = made<X>("it");
   X& it_ = *entity_; ///< also while it goes
   States<List> states_;
   Plain::Subject plain_;
   Plain::Log log_;
   std::vector<Ptr<Real>> reactors_;
   std::optional<NoMemory> noMemory_;
   std::unordered_set<Ptr<Mox::Entity>> members_; ///< all that ever were
   std::pair<std::uint32_t, std::uint32_t> before_;
};

/// One step of a sequence.
struct Step {
   bool isReactor;
   std::size_t reactor;
   Op op;
   std::optional<Reaction> reaction;
};

Op makeOp(Words& words) {
   // Keys and values from few words, so that operations meet.
   std::uint64_t const word = words.next() % 64 | words.next() % 12 << 32;
   return {static_cast<unsigned>(words.next() >> 32), static_cast<unsigned>(words.next() >> 32), word};
}
/// One seed in eight has many reactors.
std::size_t reactorsOf(std::uint64_t seed) {
   return seed % 8 == 0 ? manyReactors : fewReactors;
}
std::vector<Step> sequence(std::uint64_t seed) {
   Words words(seed);
   std::size_t const reactors = reactorsOf(seed);
   std::vector<Step> steps;
   unsigned const hot = static_cast<unsigned>(words.next() >> 32);
   for (std::size_t n = 10 + words.below(50); n != 0; --n) {
      Step step{words.chance(20), words.below(reactors), makeOp(words), {}};
      if (words.chance(50)) // one attribute gets half of the operations: its entries pile up
         step.op.attribute = hot;
      if (words.chance(40)) {
         step.reaction =
            Reaction{static_cast<Reaction::What>(words.below(Reaction::count)), makeOp(words), words.below(reactors)};
         if (words.chance(70))
            step.reaction->op.attribute = step.op.attribute;
      }
      steps.push_back(step);
   }
   return steps;
}

template <class X> std::string failure(std::vector<Step> const& steps, std::size_t reactors) {
   Run<X> run(reactors);
   for (Step const& s : steps) {
      std::string wrong = s.isReactor ? run.reactorStep(s.reactor, s.op.word) : run.step(s.op, s.reactor, s.reaction);
      if (!wrong.empty())
         return wrong;
   }
   return run.end();
}

template <class X> std::string shrunk(std::vector<Step> steps, std::size_t reactors) {
   auto const fails = [&](std::vector<Step> const& fewer) { return !failure<X>(fewer, reactors).empty(); };
   steps = Simulation::shrink(std::move(steps), fails);
   for (Step& s : steps)
      if (auto const reaction = std::exchange(s.reaction, {}); !fails(steps))
         s.reaction = reaction;
   std::string text = failure<X>(steps, reactors) + ", with " + std::to_string(reactors) + " reactors\n";
   for (Step const& s : steps) {
      auto const op = [](Op const& o) {
         return "{" + std::to_string(o.attribute) + "u, " + std::to_string(o.what) + "u, " + std::to_string(o.word) +
                "u}";
      };
      text += std::string("   {") + (s.isReactor ? "true, " : "false, ") + std::to_string(s.reactor) + ", " + op(s.op) +
              ", ";
      text += s.reaction ? "Reaction{Reaction::What{" + std::to_string(s.reaction->what) + "}, " + op(s.reaction->op) +
                              ", " + std::to_string(s.reaction->other) + "}},\n"
                         : "{}},\n";
   }
   return text;
}

template <class X> struct Model : testing::Test {
   /// The order of hash collections is part of what a seed fixes.
   static void SetUpTestSuite() { Mox::nameHashKeyIs(1); }
};
using Types =
   testing::Types<Cl10010Config, Cl10010Status, FecHistogram, Cl10010ConfigDir, Cl10010StatusDir, Cl10010ConfigPtrDir,
                  Cl10010StatusPtrDir, Hardware::Spi::Accelerator, Interface::EthPhyIntfStatus, Fru::Gpo, Fru::IntCtrl,
                  Hardware::Led::LedConfig, Hardware::Dpll::PllStatus, Xcvr::XcvrConfig, Xcvr::XcvrStatus>;
TYPED_TEST_SUITE(Model, Types);

TYPED_TEST(Model, AndEntityDoTheSame) {
   char const* const given = std::getenv("MODEL_SEEDS");
   std::uint64_t const seeds = given != nullptr ? std::strtoull(given, nullptr, 10) : 1000;
   for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
      auto const steps = sequence(seed);
      if (std::size_t const reactors = reactorsOf(seed); !failure<TypeParam>(steps, reactors).empty())
         FAIL() << "seed " << seed << ": " << shrunk<TypeParam>(steps, reactors);
   }
   std::size_t pairs = 0;
   bool needsMemory = false;
   auto const entity = made<TypeParam>("it");
   Run<TypeParam>::List::forEach([&](auto a) {
      pairs += operationCount<decltype(a)>();
      needsMemory |= decltype(a)::hasEntries;
      EXPECT_EQ(entity->attributeString(a.id), a.name);
   });
   std::cout << "attributes " << Run<TypeParam>::List::size << ", pairs " << Run<TypeParam>::covered.size() << " of "
             << pairs << '\n';
   if (given == nullptr) {
      EXPECT_EQ(Run<TypeParam>::covered.size(), pairs);
      EXPECT_TRUE(!needsMemory || Run<TypeParam>::refusals > 0);
   }
}

} // namespace
