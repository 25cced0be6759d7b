// SPDX-License-Identifier: Apache-2.0
// What does a directory of 100,000 states take, built, found by name, walked and destroyed? Beside it: a map of the standard
// library from names to structs with the same fields. And how large is an entity of each type beside its attributes?

#include "Paired.h"

#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010ConfigPtrDir.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusPtrDir.h"

#include <array>
#include <concepts>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include <malloc.h>

namespace {

using namespace Hardware::ClariPhy;
using Mox::Kind;
using Mox::TypeList;

// The struct is made of the schema: one field per attribute and readable parameter, of the same type. An array is inline, as
// it is in the entity, and the collection of histograms a map. The fields stand in the order of their alignment, so that the
// struct loses nothing between them.

template <class A> struct FieldOf {
   using Type = typename A::Value;
};
template <class A>
   requires(A::kind == Kind::array)
struct FieldOf<A> {
   using Type = std::array<typename A::Value, std::size_t{A::Key::maximum} + 1>;
};
template <class A>
   requires(A::hasEntries)
struct FieldOf<A> {
   using Type = std::map<std::string, std::unique_ptr<typename A::Value>>;
};
template <class A> struct Field {
   typename FieldOf<A>::Type value{};
};

template <class...> struct Joined {
   using List = TypeList<>;
};
template <class... As, class... Lists> struct Joined<TypeList<As...>, Lists...> {
   template <class... Bs> static TypeList<As..., Bs...> with(TypeList<Bs...>);
   using List = decltype(with(typename Joined<Lists...>::List{}));
};
template <std::size_t alignment, class List> struct Aligned;
template <std::size_t alignment, class... As> struct Aligned<alignment, TypeList<As...>> {
   using List = typename Joined<std::conditional_t<alignof(Field<As>) == alignment, TypeList<As>, TypeList<>>...>::List;
};
template <class X> struct Attributes {
   using List = typename Joined<typename Attributes<typename X::MoxBase>::List, typename X::MoxAttributes>::List;
};
template <> struct Attributes<Mox::Entity> {
   using List = TypeList<>;
};

template <class List> struct Fields;
template <class... As> struct Fields<TypeList<As...>> : Field<As>... {
   static constexpr std::size_t bytes = (sizeof(Field<As>) + ... + 0);
};
using Every = Joined<Attributes<Cl10010Status>::List, Cl10010Status::MoxParameters>::List;
struct Plain : Fields<Joined<Aligned<8, Every>::List, Aligned<4, Every>::List, Aligned<2, Every>::List,
                             Aligned<1, Every>::List>::List> {};
static_assert(sizeof(Plain) == (Plain::bytes + 7) / 8 * 8, "nothing is lost between the fields");

using Ours = Mox::Ptr<Cl10010StatusDir>;
using Theirs = std::unordered_map<std::string, std::unique_ptr<Plain>>;

constexpr std::size_t count = 100'000;

/// Bytes that are allocated now, the allocator's own beside each piece included.
double inUse() {
   struct mallinfo2 const info = mallinfo2();
   return static_cast<double>(info.uordblks + info.hblkhd);
}

enum Phase : std::size_t { build, find, walk, destroy, phases };
/// What one side took: seconds of each phase, and what was allocated in between.
struct Taken {
   std::array<double, phases> seconds{};
   double bytes = 0;
};

class Statuses {
public:
   Statuses() {
      for (std::size_t i = 0; i < count; ++i)
         names_.push_back("port-" + std::to_string(i));
      sought_ = names_;
      std::shuffle(sought_.begin(), sought_.end(), std::mt19937(1));
   }

   Taken ours() const {
      Taken taken;
      double const before = inUse();
      Ours directory;
      phase(taken, build, [&] {
         directory = Mox::make<Cl10010StatusDir>("statuses");
         for (std::string const& name : names_)
            directory->phyStatusIs(name, nullptr, nullptr)->firmwareSmStateIs(1);
      });
      taken.bytes = inUse() - before;
      phase(taken, find, [&] {
         for (std::string const& name : sought_)
            sum_ += directory->phyStatus().find(name)->firmwareSmState();
      });
      phase(taken, walk, [&] {
         for (auto const& status : std::as_const(*directory).phyStatus())
            sum_ += status.firmwareSmState();
      });
      phase(taken, destroy, [&] { directory = nullptr; });
      return taken;
   }
   Taken baseline() const {
      Taken taken;
      double const before = inUse();
      std::unique_ptr<Theirs> map;
      auto const state = [](auto& plain) -> auto& {
         return plain.Field<Cl10010Status::Attr::firmwareSmState_t>::value;
      };
      phase(taken, build, [&] {
         map = std::make_unique<Theirs>();
         for (std::string const& name : names_)
            state(*map->try_emplace(name, std::make_unique<Plain>()).first->second) = 1;
      });
      taken.bytes = inUse() - before;
      phase(taken, find, [&] {
         for (std::string const& name : sought_)
            sum_ += state(*map->find(name)->second);
      });
      phase(taken, walk, [&] {
         for (auto const& [name, plain] : *map)
            sum_ += state(*plain);
      });
      phase(taken, destroy, [&] { map = nullptr; });
      return taken;
   }
   /// A sum over what both sides have found and walked.
   std::size_t sum() const noexcept { return sum_; }

private:
   static void phase(Taken& taken, Phase which, auto&& run) {
      taken.seconds[which] = bench::secondsOf([&](std::size_t) { run(); }, 1);
   }

   std::vector<std::string> names_;
   std::vector<std::string> sought_;
   mutable std::size_t sum_ = 0;
};

void compare(bench::Paired const& paired) {
   Statuses const statuses;
   constexpr std::size_t repetitions = 15;
   std::array<std::vector<double>, phases + 2> ratios, ours, theirs; // the phases, their sum, bytes
   auto const note = [&](std::size_t row, double mine, double other) {
      ours[row].push_back(mine / count);
      theirs[row].push_back(other / count);
      ratios[row].push_back(mine / other);
   };
   for (std::size_t i = 0; i < paired.count(repetitions); ++i) {
      malloc_trim(0); // both begin without memory that the other has left
      Taken const mine = paired.asks("Statuses", "ours") ? statuses.ours() : Taken{};
      malloc_trim(0);
      Taken const other = paired.asks("Statuses", "baseline") ? statuses.baseline() : Taken{};
      double mineNs = 0;
      double otherNs = 0;
      for (std::size_t p = 0; p < phases; ++p) {
         note(p, mine.seconds[p] * 1e9, other.seconds[p] * 1e9);
         mineNs += mine.seconds[p] * 1e9;
         otherNs += other.seconds[p] * 1e9;
      }
      note(phases, mineNs, otherNs);
      note(phases + 1, mine.bytes, other.bytes);
   }
   if (!paired.asks("Statuses", "ours") || !paired.asks("Statuses", "baseline"))
      return;
   constexpr std::string_view rows[] = {"Statuses/build",   "Statuses/find", "Statuses/walk",
                                        "Statuses/destroy", "Statuses",      "Statuses/bytes"};
   constexpr double targets[] = {0, 0, 0, 0, 1.3, 1.2};
   for (std::size_t row = 0; row < std::size(rows); ++row)
      bench::Paired::row(rows[row], targets[row], ratios[row], ours[row], theirs[row]);
}

/// One row: what an entity takes, what its attributes do, and where the rest is.
template <class X> void size(std::string_view name) {
   using List = typename Joined<typename Attributes<X>::List, typename X::MoxParameters>::List;
   std::size_t attributes = 0;
   std::size_t arrays = 0;
   List::forEach([&](auto a) {
      using A = decltype(a);
      std::size_t const cell = sizeof(std::remove_cvref_t<decltype(A::cell(std::declval<typename A::Owner&>()))>);
      if constexpr (A::kind == Kind::array) {
         attributes += sizeof(typename FieldOf<A>::Type);
         arrays += cell - sizeof(typename FieldOf<A>::Type);
      } else {
         attributes += cell;
      }
   });
   std::size_t links = 0;
   if constexpr (requires(X& x) { x.moxTreeLinks(); })
      links = sizeof(Mox::RbTreeLinks<X>);
   else if constexpr (requires(X& x) { x.moxNext(); })
      links = sizeof(Mox::Ptr<X>);
   // Parameters that cannot be told from outside are no attributes, and are stored.
   std::size_t parameters = 0;
   if constexpr (std::derived_from<X, Hardware::Phy::PhyConfig>)
      parameters = sizeof(Mox::Ptr<MdioQuay::QuayDesc>) + 2 * sizeof(Mox::String8);
   else if constexpr (std::derived_from<X, Hardware::Phy::PhyStatus>)
      parameters = sizeof(Hardware::Phy::MdioClause);
   std::size_t const known = attributes + parameters + arrays + links + sizeof(Mox::Entity);
   std::printf("%-24.*s %7zu %10zu %10zu %6zu %7zu %5zu %9zu\n", static_cast<int>(name.size()), name.data(), sizeof(X),
               attributes, parameters, sizeof(Mox::Entity), arrays, links, sizeof(X) - known);
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired const paired(argc, argv);
   compare(paired);
   if (argc != 1)
      return 0;
   std::printf("\n%-24s %7s %10s %10s %6s %7s %5s %9s\n", "bytes of an entity", "sizeof", "attributes", "parameters",
               "base", "arrays", "links", "alignment");
   size<Cl10010Config>("Cl10010Config");
   size<Cl10010Status>("Cl10010Status");
   size<FecHistogram>("FecHistogram");
   size<Cl10010ConfigDir>("Cl10010ConfigDir");
   size<Cl10010StatusDir>("Cl10010StatusDir");
   size<Cl10010ConfigPtrDir>("Cl10010ConfigPtrDir");
   size<Cl10010StatusPtrDir>("Cl10010StatusPtrDir");
   std::printf("a struct of the fields of Cl10010Status: %zu\n", sizeof(Plain));
}
