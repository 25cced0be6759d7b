// SPDX-License-Identifier: Apache-2.0
// Every operation of every attribute in random order, from inside reactors too, against the plain model beside this file.

#include "Plain.h"
#include "kestrel/core/Exceptions.h"
#include "simulation/Attributes.h"
#include "simulation/Words.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>
#include <unordered_set>

namespace {

using Mox::AttributeId;
using Mox::Kind;
using Mox::Name;
using Mox::Ptr;
using Mox::TypeList;
using Plain::Op;
using Plain::Reaction;
using Simulation::keyText;
using Simulation::textOf;
using Simulation::Words;

/// Many are more than a pass has room for in itself, and two passes of them more than the first block behind it.
constexpr std::size_t fewReactors = 4, manyReactors = 40;

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
      return Mox::make<Hardware::ClariPhy::Cl10010Config>(name);
   else if constexpr (std::same_as<X, Hardware::ClariPhy::Cl10010Status>)
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
template <class A> auto parameters([[maybe_unused]] std::uint64_t word) {
   return [&]<class... Ps>(TypeList<Ps...>) {
      return std::tuple<typename Ps::Value...>{target<typename Ps::Target>(std::exchange(word, word / 5))...};
   }(typename A::Entry::MoxParameters{});
}
template <class A> typename A::Value value(std::uint64_t word) {
   Words words(word % 64); // few values, so that equal ones meet
   return Simulation::makeValue<typename A::Value>(words);
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

/// What `put` takes behind the entity.
template <class A, class... Key> auto arguments(std::uint64_t word, Key const&... key) {
   if constexpr (A::kind == Kind::reference || A::kind == Kind::hashReferences)
      return std::tuple(target<typename A::Target>(word));
   else if constexpr (A::ownsMembers)
      return std::tuple_cat(std::tuple(key...), parameters<A>(word));
   else
      return std::tuple(key..., value<A>(word));
}

// The plain state of one attribute.
template <class A>
using Held = std::conditional_t<A::ownsMembers, std::size_t, typename A::Value>; ///< a member's number
template <class A> auto emptyState() {
   if constexpr (A::kind == Kind::array)
      return Plain::Array<typename A::Value>{.values =
                                                std::vector<typename A::Value>(std::size_t{A::Key::maximum} + 1)};
   else if constexpr (!A::isKeyed)
      return typename A::Value{};
   else if constexpr (A::kind == Kind::map || A::kind == Kind::collection)
      return std::map<typename A::Key, Held<A>>{};
   else
      return std::map<typename A::Key, Held<A>, HashOrder>{};
}
template <class A> struct Stored {
   decltype(emptyState<A>()) value = emptyState<A>();
};
template <class List> struct States;
template <class... As> struct States<TypeList<As...>> : Stored<As>... {};

/// What can be done to an attribute. The second of a counter adds; an array has the first five.
enum What : unsigned { puts, drops, dropsAt, dropsAll, notifies, putsRaw, finds };
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
         if constexpr (!a.isKeyed)
            state(a) = a.cell(*entity_);
      });
      plain_.run = [this](Op const& op) { onPlain(op); };
      plain_.reactors.resize(reactors);
      reactors_.resize(reactors);
      for (std::size_t i = 0; i < reactors; ++i) {
         join(i);
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
      std::optional<bool> real;                                  // whether it throws
      if (op.word % 4 == 3 && reactors_.size() == fewReactors) { // a pass over more needs room, and may say so
         noMemory_.emplace();
         try {
            real = throws([&] { onReal(op); });
         } catch (std::bad_alloc const&) {
            ++refusals;
         }
         noMemory_.reset();
         if (!real)
            if (std::string const wrong = difference(); !wrong.empty())
               return "without memory, " + wrong;
      }
      if (!real)
         real = throws([&] { onReal(op); });
      if (*real != throws([&] { onPlain(op); }))
         return *real ? "the entity throws" : "the model throws";
      return difference();
   }
   /// Registers, pauses or lets go of a reactor.
   std::string reactorStep(std::size_t number, std::uint64_t what) {
      if (what % 8 == 7) {
         plain_.drop(number);
         drop(number);
      } else if (!reactors_[number]) {
         join(number);
      } else if (what % 8 < 5) {
         plain_.registeredIs(number, what % 8 != 0);
         registeredIs(number, what % 8 != 0);
      } else {
         plain_.activeIs(number, what % 8 == 5);
         reactors_[number]->hasNotificationActiveIs(what % 8 == 5);
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
         if constexpr (a.ownsMembers)
            Plain::mapDelAll(plain_, a.id, state(a));
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
         run_.log_.push_back(Plain::told(number_, A::id, keyText(key...)));
         Reaction const reaction = Plain::taken(reactions);
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

   void join(std::size_t number) {
      plain_.reactors[number] = std::make_shared<Plain::Subject::Reactor>(Plain::Subject::Reactor{number});
      reactors_[number] = Mox::make<Real>(*this, number);
      reactors_[number]->notifierIs(entity_);
   }

   template <class A> auto& state(A) { return static_cast<Stored<A>&>(states_).value; }
   template <class Call> static bool throws(Call call) {
      try {
         call();
         return false;
      } catch (std::bad_alloc const&) {
         throw;
      } catch (Plain::Thrown const&) {
      } catch (Mox::RangeException const&) {
      } catch (Mox::NameInUseException const&) {
      }
      return true;
   }
   template <class Visitor> static void withAttribute(Op const& op, Visitor visit) {
      unsigned i = 0;
      List::forEach([&](auto a) {
         if (i++ == op.attribute % List::size)
            visit(a, op.what % operationCount<decltype(a)>());
      });
   }
   /// Calls `arrives` with the keys that come while an iterator stands somewhere: sometimes as many as make a collection grow
   /// twice.
   template <class A, class Arrives> static void forEachArrival(Op const& op, Arrives arrives) {
      if constexpr (A::hasEntries && A::kind != Kind::hashReferences)
         for (std::uint64_t i = 0; i < op.word % 16 * 3; ++i)
            arrives(keyOf<typename A::Key>(keyWords + i));
   }

   void onReal(Op const& op) {
      withAttribute(op, [&](auto a, unsigned what) {
         using A = decltype(a);
         covered.insert({A::id, what}); // allocates once: an operation may be short of memory
         auto& e = static_cast<typename A::Owner&>(it_);
         auto const put = [&](auto const&... argument) { A::put(e, argument...); };
         if constexpr (!A::isKeyed) {
            if (what == puts)
               std::apply(put, arguments<A>(op.word));
            else if constexpr (A::kind == Kind::counter)
               Mox::counterInc<A>(e, value<A>(op.word));
            else if constexpr (A::kind == Kind::optional)
               A::drop(e);
         } else {
            auto const key = keyOf<typename A::Key>(op.word >> 32);
            [[maybe_unused]] auto const putRaw = [&](auto const&... argument) {
               Simulation::putRaw<A>(e, argument...);
            };
            if (what == puts) {
               std::apply(put, arguments<A>(op.word, key));
            } else if (what == drops) {
               A::drop(e, key);
            } else if (what == dropsAt) {
               typename A::Container::Iterator it(A::cell(e));
               while (it && !(it.key() == key))
                  it.advance();
               forEachArrival<A>(op, [&](auto const& k) { std::apply(putRaw, arguments<A>(op.word, k)); });
               Simulation::dropAt<A>(e, it);
            } else if (what == dropsAll) {
               Simulation::dropAll<A>(e);
            } else if (what == notifies) {
               Mox::keyNotify<A>(e, key);
            } else if constexpr (A::hasEntries) {
               if (what == putsRaw)
                  std::apply(putRaw, arguments<A>(op.word, key));
               else if constexpr (A::ownsMembers)
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
            auto const v = std::get<0>(arguments<A>(op.word));
            if constexpr (A::kind == Kind::counter)
               if (what == 1) {
                  Plain::increment(plain_, A::id, cell, v);
                  return;
               }
            Plain::set(plain_, A::id, cell, what == drops ? typename A::Value{} : v);
         } else {
            auto const key = keyOf<typename A::Key>(op.word >> 32);
            if (what == notifies) {
               plain_.pass(A::id, keyText(key));
            } else if constexpr (A::kind == Kind::array) {
               auto const v = what == puts ? value<A>(op.word) : typename A::Value{};
               for (std::size_t i = 0; i < cell.values.size(); ++i)
                  if (what == dropsAll || i == key)
                     cell.store(plain_, A::id, i, v, what != puts);
            } else if (what == drops || what == dropsAt) {
               if (what == dropsAt)
                  forEachArrival<A>(op, [&](auto const& k) { cell[k] = held<A>(op.word); });
               Plain::mapDel(plain_, A::id, cell, key);
            } else if (what == dropsAll) {
               Plain::mapDelAll(plain_, A::id, cell);
            } else if (what == finds) {
               ++plain_.touches;
            } else {
               onPlainEntry<A>(cell, key, what, op.word);
            }
         }
      });
   }
   template <class A, class Cell>
   void onPlainEntry(Cell& cell, typename A::Key key, unsigned what, std::uint64_t word) {
      auto const entry = held<A>(word);
      if constexpr (A::kind == Kind::hashReferences) {
         if (!entry)
            throw Plain::Thrown{};
         key = entry->name();
      }
      if constexpr (A::ownsMembers)
         if (auto const at = cell.find(key); what == puts && at != cell.end()) {
            if (parameters<A>(at->second) != parameters<A>(word))
               throw Plain::Thrown{};
            ++plain_.changes;
            return;
         }
      if (what == puts)
         Plain::mapSet(plain_, A::id, cell, {key, entry});
      else
         cell[key] = entry;
   }
   /// Members are known by the word that they were made with: of that come their parameters.
   template <class A> static Held<A> held(std::uint64_t word) {
      if constexpr (A::ownsMembers)
         return A::Entry::MoxParameters::size == 0 ? 0 : word % 25;
      else if constexpr (A::kind == Kind::hashReferences)
         return target<typename A::Target>(word);
      else
         return value<A>(word);
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
      auto const expect = [&](std::string const& what, auto const& real, auto const& plain) {
         auto const said = [](auto const& v) {
            if constexpr (requires { v.get(); })
               return std::to_string(reinterpret_cast<std::uintptr_t>(v.get()));
            else
               return textOf(v);
         };
         if (text.empty() && said(real) != said(plain))
            text = what + " is " + said(real) + " and should be " + said(plain);
      };
      expect("the change count", entity_->changeCount() - before_.first, plain_.changes);
      expect("the touch count", entity_->touchCount() - before_.second, plain_.touches);
      expect("the audit", entity_->auditErrors(2), 0u);
      List::forEach([&](auto a) {
         using A = decltype(a);
         if (!text.empty())
            return;
         auto const& real = A::cell(*entity_);
         auto const& plain = state(a);
         std::string const name(A::name);
         if constexpr (A::kind == Kind::array) {
            real.forEach([&](auto key, auto const& v) { expect(name + keyText(key), v, plain.values[key]); });
            expect("the size of " + name, std::size_t{real.size()}, plain.isPopulated ? plain.values.size() : 0);
            expect("the version of " + name, real.version(), plain.stores);
         } else if constexpr (!A::isKeyed) {
            expect(name, real, plain);
         } else {
            Plain::Log keys[2];
            for (auto* entry = real.first(); entry != nullptr; entry = real.next(*entry)) {
               keys[0].push_back(keyText(entry->fwkKey()));
               if constexpr (A::ownsMembers)
                  members_.insert(Ptr<Mox::Entity>(const_cast<typename A::Entry*>(entry)));
            }
            for (auto const& [key, v] : plain) {
               keys[1].push_back(keyText(key));
               if constexpr (!A::ownsMembers)
                  if (auto* const entry = real.find(key))
                     expect(name + keys[1].back(), entry->value(), v);
            }
            expect("the keys of " + name, joined(keys[0]), joined(keys[1]));
            if constexpr (A::ownsMembers)
               for (auto const& member : members_)
                  expect("being the parent of a member", member->parent() == entity_,
                         real.find(member->name()) == member.get());
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

/// What differs first, and behind which step; empty for nothing.
template <class X> std::string failure(std::uint64_t seed) {
   Run<X> run(reactorsOf(seed));
   int number = 0;
   for (Step const& s : sequence(seed)) {
      ++number;
      auto const wrong = s.isReactor ? run.reactorStep(s.reactor, s.op.word) : run.step(s.op, s.reactor, s.reaction);
      if (!wrong.empty())
         return "step " + std::to_string(number) + ", attribute " +
                std::to_string(s.op.attribute % Run<X>::List::size) + ": " + wrong;
   }
   return run.end();
}

template <class List> struct AsTestTypes;
template <class... Xs> struct AsTestTypes<TypeList<Xs...>> {
   using Types = testing::Types<Xs...>;
};
template <class X> struct Model : testing::Test {
   /// The order of hash collections is part of what a seed fixes.
   static void SetUpTestSuite() { Mox::nameHashKeyIs(1); }
};
TYPED_TEST_SUITE(Model, AsTestTypes<Simulation::AllTypes>::Types);

TYPED_TEST(Model, AndEntityDoTheSame) {
   for (std::uint64_t seed = 1; seed <= 1000; ++seed)
      ASSERT_EQ(failure<TypeParam>(seed), "") << "seed " << seed;
   std::size_t pairs = 0;
   bool needsMemory = false;
   auto const entity = made<TypeParam>("it");
   Run<TypeParam>::List::forEach([&](auto a) {
      pairs += operationCount<decltype(a)>();
      needsMemory |= a.hasEntries;
      EXPECT_EQ(entity->attributeString(a.id), a.name);
   });
   EXPECT_EQ(Run<TypeParam>::covered.size(), pairs) << "operations of attributes";
   EXPECT_TRUE(!needsMemory || Run<TypeParam>::refusals > 0);
}

} // namespace
