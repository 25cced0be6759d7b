// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/BoardReactor.h"
#include "kestrel/notify/Observe.h"

#include <cstdint>
#include <string>
#include <vector>

// A shelf of boards, who changes it, and who watches it.

namespace bench {

using Bench::Board;

namespace detail {

template <unsigned count, class A> void setOne(Board& board, std::uint32_t value) {
   if constexpr (A::id < Mox::firstAttribute<Board> + count)
      A::put(board, value);
}
template <unsigned count, class... A> void setFirst(Board& board, std::uint32_t value, Mox::TypeList<A...>) {
   (setOne<count, A>(board, value), ...);
}

} // namespace detail

/// Changes the first `count` numbers of a board, in the order of their identifiers.
template <unsigned count> void setFirst(Board& board, std::uint32_t value) {
   detail::setFirst<count>(board, value, Board::MoxAttributes{});
}

/// A shelf with boards of its own, named by their numbers.
struct Shelf {
   explicit Shelf(std::size_t count) {
      for (std::size_t i = 0; i < count; ++i)
         boards.push_back(shelf->boardIs(Mox::Name(std::to_string(i))));
   }
   Mox::Ptr<Board> const shelf = Mox::make<Board>("shelf");
   std::vector<Mox::Ptr<Board>> boards;
};

/// One reactor per board, that counts what it is told.
class Told {
public:
   /// The boards 0 to `count` - 1 of a shelf.
   void watch(Board& shelf, std::size_t count) {
      for (std::size_t i = 0; i < count; ++i)
         watch(shelf.board(Mox::Name(std::to_string(i))));
   }
   std::uint64_t count() const noexcept { return count_; }

private:
   class Counter final : public Board::MoxForwarder<Board::NotifieeConst, Counter> {
   public:
      explicit Counter(std::uint64_t& count) : count_(count) {}
      template <class A, class... Key> void forward(A, Key const&...) { ++count_; }

   private:
      std::uint64_t& count_;
   };

   void watch(Mox::Ptr<Board> const& board) {
      auto const reactor = Mox::make<Counter>(count_);
      reactor->notifierIs(Mox::Ptr<Mox::PtrInterface const>(board));
      reactor->isRegisteredNotifieeIs(true);
      counters_.push_back(reactor);
   }

   std::uint64_t count_ = 0;
   std::vector<Mox::Ptr<Counter>> counters_;
};

} // namespace bench
