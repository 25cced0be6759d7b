// SPDX-License-Identifier: Apache-2.0
// What does it take to mirror 10,000 boards with 60 numbers each for the first time, and again into an equal mirror? Beside
// it: the same values as bare structs of 32 bytes through buffers of 64 KiB, put into a table; and as one struct per board.
// Times, bytes, and the peak memory of both sides beside what their entities and names take.

#include "Paired.h"
#include "Peer.h"
#include "Shelf.h"

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using bench::Board;
using bench::Peer;
using Clock = std::chrono::steady_clock;

constexpr std::size_t boards = 10'000;
constexpr std::size_t numbers = 60;

struct Value {
   std::uint64_t board;
   std::uint32_t number;
   std::uint32_t value;
   std::uint64_t serial;
   std::uint64_t reserved;
};
struct Card {
   std::array<char, 16> name;
   std::array<std::uint32_t, numbers> values;
};
static_assert(sizeof(Value) == 32 && sizeof(Card) == 256);

/// In bytes; "VmHWM" is the peak, which `forgetPeak` sets to what is in use.
std::size_t memory(std::string_view what) {
   std::ifstream status("/proc/self/status");
   for (std::string line; std::getline(status, line);)
      if (line.starts_with(what))
         return std::stoul(line.substr(what.size() + 1)) * 1024;
   return 0;
}
void forgetPeak() {
   std::ofstream("/proc/self/clear_refs") << '5';
}

/// What two processes took together, in nanoseconds.
struct Ns {
   double passed = 0;
   double busier = 0; ///< processor time of the side that takes more of it
};

class Taken {
public:
   /// \param theirs processor time of the other side, in seconds
   Ns with(double theirs) const {
      return {std::chrono::duration<double, std::nano>(Clock::now() - start_).count(),
              std::max(bench::threadSeconds() - mine_, theirs) * 1e9};
   }

private:
   Clock::time_point start_ = Clock::now();
   double mine_ = bench::threadSeconds();
};

/// Sends `boards` × `perBoard` things that `make` fills in, and waits for the answer.
template <class T> Ns sendBare(Peer& peer, char what, std::size_t perBoard, auto&& make) {
   Taken const taken;
   peer.tell(what, 0);
   std::vector<T> buffer;
   buffer.reserve(64 * 1024 / sizeof(T));
   auto const flush = [&] {
      bench::sendWhole(peer.sockets().bare, buffer.data(), buffer.size() * sizeof(T));
      buffer.clear();
   };
   for (std::size_t b = 0; b < boards; ++b)
      for (std::size_t n = 0; n < perBoard; ++n) {
         buffer.push_back(make(b, n));
         if (buffer.size() == buffer.capacity())
            flush();
      }
   flush();
   return taken.with(peer.answer().seconds);
}

template <class T> void receiveBare(int socket, std::size_t count, auto&& apply) {
   std::vector<T> buffer(64 * 1024 / sizeof(T));
   auto* const bytes = reinterpret_cast<char*>(buffer.data());
   std::size_t have = 0;
   while (count != 0) {
      have += bench::receiveSome(socket, bytes + have, buffer.size() * sizeof(T) - have);
      std::size_t const whole = have / sizeof(T);
      for (std::size_t i = 0; i < whole; ++i)
         apply(buffer[i]);
      count -= whole;
      std::memmove(bytes, bytes + whole * sizeof(T), have - whole * sizeof(T));
      have -= whole * sizeof(T);
   }
}

auto receiver(Peer::Sockets sockets) {
   struct State {
      explicit State(int socket) : pump(end, socket) {}
      Mox::LinkEnd end{"receiver"};
      bench::Pump pump;
      Mox::Ptr<Board> shelf;
      bench::Told told;
      std::size_t before = 0;
   };
   return [sockets, state = std::make_shared<State>(sockets.link)](Peer::Order order) -> std::uint64_t {
      State& s = *state;
      auto const connect = [&] {
         s.end.connected();
         s.pump.until(
            [&] { return s.shelf->board().size() == boards && s.end.state("shelf") == Mox::LinkEnd::State::live; });
         s.pump.until([&] { return s.end.quiet(); });
      };
      switch (order.what) {
      case 'm': // answers with its peak
         forgetPeak();
         s.before = memory("VmRSS");
         s.shelf = s.end.mount<Board>("shelf");
         connect();
         return memory("VmHWM") - s.before;
      case 'w':
         s.told.watch(*s.shelf, boards);
         return s.told.count();
      case 'a': // answers with how often it was told
         s.end.peerGone("again");
         connect();
         return s.told.count();
      case 'v': {
         std::vector<std::array<std::uint32_t, numbers>> table(boards);
         receiveBare<Value>(sockets.bare, boards * numbers, [&](Value const& v) {
            if (auto& cell = table[v.board % boards][v.number % numbers]; cell != v.value)
               cell = v.value;
         });
         return 0;
      }
      default: {
         std::vector<Card> table;
         receiveBare<Card>(sockets.bare, boards, [&](Card const& card) { table.push_back(card); });
         return 0;
      }
      }
   };
}

struct Figures {
   Ns first;
   Ns again;
   Ns values;
   Ns cards;
   double bytes = 0;
   double againBytes = 0;
   double sender = 0;
   double receiver = 0;
   std::uint64_t told = 0;
};

Figures once() {
   Figures f;
   Peer peer(receiver);
   forgetPeak();
   std::size_t const before = memory("VmRSS");
   bench::Shelf const ours(boards);
   std::uint32_t value = 0;
   for (auto const& board : ours.boards)
      bench::setFirst<numbers>(*board, ++value);
   Mox::LinkEnd end("sender");
   bench::Pump pump(end, peer.sockets().link);
   end.exportRoot(ours.shelf);

   auto const mirror = [&](char what, auto& answer, Ns& ns, double& bytes) {
      std::uint64_t const sent = pump.sent();
      Taken const taken;
      peer.tell(what, 0);
      end.connected();
      pump.until([&] { return end.quiet() && end.demuxer().footprint().announced > boards; });
      Peer::Answer const theirs = peer.answer();
      ns = taken.with(theirs.seconds);
      bytes = static_cast<double>(pump.sent() - sent);
      answer = static_cast<std::remove_reference_t<decltype(answer)>>(theirs.number);
   };
   mirror('m', f.receiver, f.first, f.bytes);
   f.sender = static_cast<double>(memory("VmHWM") - before);
   peer.tell('w', 0);
   peer.answer();
   end.peerGone("again");
   mirror('a', f.told, f.again, f.againBytes);

   std::uint64_t serial = 0;
   f.values = sendBare<Value>(peer, 'v', numbers, [&](std::size_t b, std::size_t n) {
      return Value{b, static_cast<std::uint32_t>(n), static_cast<std::uint32_t>(b + 1), ++serial, 0};
   });
   f.cards = sendBare<Card>(peer, 'b', 1, [&](std::size_t b, std::size_t) {
      Card card{};
      card.values.fill(static_cast<std::uint32_t>(b + 1));
      std::memcpy(card.name.data(), ours.boards[b]->name().data(), ours.boards[b]->name().size());
      return card;
   });
   return f;
}

/// Measures in a process of its own, because memory that an earlier measurement left in the heap would spoil the
/// figures.
Figures apart() {
   std::array<int, 2> pair;
   if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) != 0)
      bench::fail("socketpair");
   pid_t const process = ::fork();
   if (process < 0)
      bench::fail("fork");
   if (process == 0) {
      Figures const f = once();
      bench::sendWhole(pair[1], &f, sizeof f);
      std::_Exit(0);
   }
   ::close(pair[1]);
   auto const f = bench::receive<Figures>(pair[0]);
   ::close(pair[0]);
   ::waitpid(process, nullptr, 0);
   return f;
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired const paired(argc, argv);
   if (argc != 1) {
      if (paired.asks("FirstMirror", "ours"))
         for (std::size_t i = 0; i < paired.count(0); ++i)
            once();
      return 0;
   }
   std::vector<Figures> all;
   for (int i = 0; i < 11; ++i)
      all.push_back(apart());
   auto const row = [&](std::string_view question, double target, double per, auto&& ours, auto&& base) {
      std::vector<double> ratios, oursEach, baseEach;
      for (Figures const& f : all) {
         oursEach.push_back(ours(f) / per);
         baseEach.push_back(base(f) / per);
         ratios.push_back(ours(f) / base(f));
      }
      bench::Paired::row(question, target, ratios, oursEach, baseEach);
   };
   constexpr double each = boards * numbers;
   std::size_t names = 0;
   for (std::size_t b = 0; b < boards; ++b)
      names += std::to_string(b).size();
   double const entities = static_cast<double>(boards * sizeof(Board) + names);
   row(
      "FirstMirror", 4.0, each, [](auto& f) { return f.first.passed; }, [](auto& f) { return f.values.passed; });
   row(
      "FirstMirror/cpu", 4.0, each, [](auto& f) { return f.first.busier; }, [](auto& f) { return f.values.busier; });
   row(
      "FirstMirror/cpu/cards", 0, each, [](auto& f) { return f.first.busier; }, [](auto& f) { return f.cards.busier; });
   row(
      "EqualMirror", 0, each, [](auto& f) { return f.again.passed; }, [](auto& f) { return f.values.passed; });
   row(
      "EqualMirror/cpu", 0, each, [](auto& f) { return f.again.busier; }, [](auto& f) { return f.values.busier; });
   row(
      "FirstMirror/bytes", 3.0, each, [](auto& f) { return f.bytes; }, [](auto&) { return each * sizeof(Value); });
   row(
      "FirstMirror/bytes/cards", 0, each, [](auto& f) { return f.bytes; },
      [](auto&) { return double{boards * sizeof(Card)}; });
   row(
      "FirstMirror/peak/sender", 3.0, boards, [](auto& f) { return f.sender; }, [&](auto&) { return entities; });
   row(
      "FirstMirror/peak/receiver", 3.0, boards, [](auto& f) { return f.receiver; }, [&](auto&) { return entities; });
   for (Figures const& f : all)
      if (f.told != 0) {
         std::fprintf(stderr, "an equal mirror told its reactors %llu times\n",
                      static_cast<unsigned long long>(f.told));
         return 1;
      }
}
