// SPDX-License-Identifier: Apache-2.0
// How many changes a second go from one process to another? 100 boards with 40 numbers each, changed in turn; in the other
// process one reactor per mirrored board. Beside it: bare structs of 32 bytes through buffers of 64 KiB, applied to a table
// with one virtual call each. Both ways on a unix socket: through the sockets of the library, and through the three calls of
// a link end on a blocking one.

#include "Paired.h"
#include "Peer.h"
#include "Shelf.h"
#include "Watchers.h"

#include "kestrel/net/UnixClient.h"
#include "kestrel/net/UnixPath.h"
#include "kestrel/net/UnixServer.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace std::chrono_literals;
using bench::Board;
using bench::Peer;
using Clock = std::chrono::steady_clock;

constexpr std::size_t boards = 100;
constexpr std::size_t numbers = 40;
/// Boards between two looks at the socket: few enough that the buffer stays below its limit, so that changes become
/// records and leave no marks.
constexpr std::size_t together = 20;
constexpr std::size_t bufferSize = 64 * 1024;

struct Bare {
   std::uint64_t board = 0;
   std::uint32_t number = 0;
   std::uint32_t value = 0;
   std::uint64_t serial = 0;
   std::uint64_t reserved = 0;
};
static_assert(sizeof(Bare) == 32 && bufferSize % sizeof(Bare) == 0);

struct Row {
   std::array<std::uint32_t, numbers> values{};
   std::unique_ptr<bench::Observer> observer = bench::makeObserver();
};

/// The shelf's owner: after all rounds one more board says that they are over.
class Owner : public bench::Shelf {
public:
   Owner() : Shelf(::boards + 1) {}

   void rounds(std::uint64_t count, auto&& carry) {
      for (std::uint64_t r = 0; r < count; ++r) {
         ++value_;
         for (std::size_t b = 0; b < ::boards; ++b) {
            bench::setFirst<numbers>(*boards[b], value_);
            if (b % together == together - 1)
               carry();
         }
      }
   }
   void over() { boards.back()->a0Is(++overs_); }

private:
   std::uint32_t value_ = 0;
   std::uint32_t overs_ = 0;
};

/// The other side of it.
class Mirror {
public:
   template <class End> explicit Mirror(End& end) : shelf_(end.template mount<Board>("shelf")) {}

   void watch() {
      told_.watch(*shelf_, boards);
      auto const last = shelf_->board(Mox::Name(std::to_string(boards)));
      over_ = Mox::on(last, Board::Attr::a0, [this](Board&) { isOver_ = true; });
   }
   bool isOver() const { return isOver_; }
   std::uint64_t take() {
      isOver_ = false;
      return told_.count() - std::exchange(before_, told_.count());
   }

private:
   Mox::Ptr<Board> shelf_;
   bench::Told told_;
   Mox::Watch over_;
   bool isOver_ = false;
   std::uint64_t before_ = 0;
};

void sendBare(int socket, std::uint64_t rounds) {
   static std::array<std::array<std::uint32_t, numbers>, boards> table{};
   static std::array<char, bufferSize> buffer;
   static std::uint32_t value = 0;
   std::size_t used = 0;
   auto const put = [&](Bare const& bare) {
      std::memcpy(buffer.data() + used, &bare, sizeof bare);
      if ((used += sizeof bare) == buffer.size()) {
         bench::sendWhole(socket, buffer.data(), used);
         used = 0;
      }
   };
   std::uint64_t serial = 0;
   for (std::uint64_t r = 0; r < rounds; ++r) {
      ++value;
      for (std::uint32_t b = 0; b < boards; ++b)
         for (std::uint32_t n = 0; n < numbers; ++n) {
            if (table[b][n] != value) {
               table[b][n] = value;
               put({b, n, value, ++serial, 0});
            }
            bench::forget();
         }
   }
   put({boards, 0, 0, 0, 0});
   bench::sendWhole(socket, buffer.data(), used);
}

std::uint64_t receiveBare(int socket, std::vector<Row>& table) {
   static std::array<char, bufferSize> buffer;
   std::size_t have = 0;
   for (std::uint64_t applied = 0;;) {
      have += bench::receiveSome(socket, buffer.data() + have, buffer.size() - have);
      std::size_t at = 0;
      for (; have - at >= sizeof(Bare); at += sizeof(Bare)) {
         Bare bare;
         std::memcpy(&bare, buffer.data() + at, sizeof bare);
         if (bare.board >= table.size())
            return applied;
         Row& row = table[bare.board];
         if (std::uint32_t& cell = row.values[bare.number % numbers]; cell != bare.value) {
            cell = bare.value;
            row.observer->onValue(bare.value);
         }
         ++applied;
         bench::forget();
      }
      std::memmove(buffer.data(), buffer.data() + at, have - at);
      have -= at;
   }
}

auto receiver(std::string const& path, Peer::Sockets sockets) {
   struct State {
      explicit State(int socket) : pump(end, socket), called(end), polled(client) { end.connected(); }
      Mox::LinkEnd end{"receiver"};
      bench::Pump pump;
      Mirror called;
      Mox::UnixClient client{"receiver"};
      Mirror polled;
      std::vector<Row> table{boards};
   };
   return [path, sockets, state = std::make_shared<State>(sockets.link)](Peer::Order order) -> std::uint64_t {
      State& s = *state;
      switch (order.what) {
      case 'm': // mirrors first
         s.pump.until([&] { return s.end.state("shelf") == Mox::LinkEnd::State::live && s.end.quiet(); });
         s.called.watch();
         s.client.connect(path);
         while (s.client.state("shelf") != Mox::LinkEnd::State::live || !s.client.quiet())
            s.client.pollOnce(1s);
         s.polled.watch();
         return 0;
      case 'c':
         s.pump.until([&] { return s.called.isOver(); });
         return s.called.take();
      case 'p':
         while (!s.polled.isOver() || !s.client.quiet())
            s.client.pollOnce(1s);
         return s.polled.take();
      default:
         return receiveBare(sockets.bare, s.table);
      }
   };
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired const paired(argc, argv);
   Mox::PrivateFolder const folder;
   std::string const path = folder.path() + "/bench";
   Peer peer([&](Peer::Sockets sockets) { return receiver(path, sockets); });

   Owner called;
   Mox::LinkEnd end("sender");
   end.exportRoot(called.shelf);
   end.connected();
   bench::Pump pump(end, peer.sockets().link);
   Owner polled;
   Mox::UnixServer server(path, "sender");
   server.exportRoot(polled.shelf);
   peer.tell('m', 0);
   pump.until([&] { return end.quiet() && end.demuxer().footprint().announced > boards; });
   while (!peer.hasAnswered())
      server.pollOnce(10ms);
   peer.answer();

   auto const viaCalls = [&](std::uint64_t rounds) {
      peer.tell('c', 0);
      called.rounds(rounds, [&] {
         pump.send();
         while (pump.take(MSG_DONTWAIT)) {
         }
      });
      called.over();
      pump.until([&] { return end.quiet(); });
   };
   /// A sender that never rests outruns the reader, and several of its changes are told as one.
   auto const polledBy = [&](bool rests) {
      return [&, rests](std::uint64_t rounds) {
         auto const settle = [&] {
            while (!server.quiet())
               server.pollOnce(1s);
         };
         unsigned carried = 0;
         peer.tell('p', 0);
         polled.rounds(rounds, [&] {
            server.pollOnce(0ms);
            if (rests && ++carried % 5 == 0)
               settle();
         });
         settle();
         polled.over();
         settle();
      };
   };
   auto const bare = [&](std::uint64_t rounds) {
      peer.tell('b', 0);
      sendBare(peer.sockets().bare, rounds);
   };
   /// `passed` and `busier` are per change that was told there, `made` per change that was made here. A change to a
   /// value that has not been sent yet replaces it, and both are told as one.
   struct Ns {
      double passed;
      double busier; ///< processor time of the side that takes more of it
      double made;
   };
   auto const measure = [&](auto&& run, std::uint64_t rounds) {
      auto const start = Clock::now();
      double const mine = bench::threadSeconds();
      run(rounds);
      double const busy = bench::threadSeconds() - mine;
      Peer::Answer const answer = peer.answer();
      double const passed = std::chrono::duration<double>(Clock::now() - start).count();
      double const each = 1e9 / static_cast<double>(answer.number);
      double const made = static_cast<double>(rounds * boards * numbers);
      return Ns{passed * each, std::max(busy, answer.seconds) * each, passed * 1e9 / made};
   };

   auto const ask = [&](std::string const& question, double target, auto&& ours) {
      if (argc != 1) {
         if (paired.asks(question, "ours"))
            measure(ours, paired.count(0));
         if (paired.asks(question, "baseline"))
            measure(bare, paired.count(0));
         return;
      }
      struct Row {
         std::vector<double> ratios, ours, bare;
         void add(double o, double b) {
            ours.push_back(o);
            bare.push_back(b);
            ratios.push_back(o / b);
         }
      } passed, busier, made;
      measure(ours, 10);
      measure(bare, 100);
      for (int i = 0; i < 31; ++i) {
         Ns const o = measure(ours, 100);
         Ns const b = measure(bare, 500);
         passed.add(o.passed, b.passed);
         busier.add(o.busier, b.busier);
         made.add(o.made, b.made);
      }
      bench::Paired::row(question, target, passed.ratios, passed.ours, passed.bare);
      bench::Paired::row(question + "/cpu", target, busier.ratios, busier.ours, busier.bare);
      if (question == "Throughput")
         bench::Paired::row(question + "/made", 0, made.ratios, made.ours, made.bare);
   };
   ask("Throughput", 2.0, polledBy(false));
   ask("Throughput/calls", 2.0, viaCalls);
   ask("Throughput/resting", 0, polledBy(true));
}
