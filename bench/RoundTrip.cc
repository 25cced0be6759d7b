// SPDX-License-Identifier: Apache-2.0
// How long does a change take that the other process answers by a change? Beside it: 32 bytes there and back. All of it
// blocks: through the sockets of the library, and through the three calls of a link end on a blocking socket.

#include "Paired.h"
#include "Peer.h"
#include "Shelf.h"

#include "kestrel/net/UnixClient.h"
#include "kestrel/net/UnixPath.h"
#include "kestrel/net/UnixServer.h"

#include <chrono>
#include <memory>
#include <string>

namespace {

using namespace std::chrono_literals;
using bench::Board;
using bench::Peer;
using Clock = std::chrono::steady_clock;
using Bytes = std::array<char, 32>;

/// Asks on a board of its own, and sees the answer on the mirror of the other's.
class Asker {
public:
   template <class End> explicit Asker(End& end) : answers_(end.template mount<Board>("answers")) {
      end.exportRoot(questions_);
   }
   void ask() { questions_->a0Is(++asked_); }
   bool isAnswered() const { return answers_->a0() == asked_; }

private:
   Mox::Ptr<Board> questions_ = Mox::make<Board>("questions");
   Mox::Ptr<Board> answers_;
   std::uint32_t asked_ = 0;
};

class Answerer {
public:
   template <class End> explicit Answerer(End& end) : questions_(end.template mount<Board>("questions")) {
      end.exportRoot(answers_);
      watch_ = Mox::on(questions_, Board::Attr::a0, [this](Board& questions) { answers_->a0Is(questions.a0()); });
   }
   std::uint32_t answered() const { return answers_->a0(); }

private:
   Mox::Ptr<Board> answers_ = Mox::make<Board>("answers");
   Mox::Ptr<Board> questions_;
   Mox::Watch watch_;
};

auto answerer(std::string const& path, Peer::Sockets sockets) {
   struct State {
      explicit State(int socket) : pump(end, socket), called(end), polled(client) { end.connected(); }
      Mox::LinkEnd end{"answerer"};
      bench::Pump pump;
      Answerer called;
      Mox::UnixClient client{"answerer"};
      Answerer polled;
      std::uint32_t calledUntil = 0;
      std::uint32_t polledUntil = 0;
   };
   return [path, sockets, state = std::make_shared<State>(sockets.link)](Peer::Order order) -> std::uint64_t {
      State& s = *state;
      auto const count = static_cast<std::uint32_t>(order.count);
      switch (order.what) {
      case 'm':
         s.client.connect(path);
         return 0;
      case 'c':
         s.calledUntil += count;
         s.pump.until([&] { return s.called.answered() == s.calledUntil; });
         return 0;
      case 'p':
         s.polledUntil += count;
         while (s.polled.answered() != s.polledUntil)
            s.client.pollOnce(1s);
         return 0;
      default:
         for (std::uint32_t i = 0; i < count; ++i) {
            auto const bytes = bench::receive<Bytes>(sockets.bare);
            bench::sendWhole(sockets.bare, bytes.data(), bytes.size());
         }
         return 0;
      }
   };
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired const paired(argc, argv);
   Mox::PrivateFolder const folder;
   std::string const path = folder.path() + "/bench";
   Peer peer([&](Peer::Sockets sockets) { return answerer(path, sockets); });

   Mox::LinkEnd end("asker");
   Asker called(end);
   end.connected();
   bench::Pump pump(end, peer.sockets().link);
   Mox::UnixServer server(path, "asker");
   Asker polled(server);
   peer.tell('m', 0);
   peer.answer();

   /// Median of single round trips, in nanoseconds.
   auto const ns = [&](char what, std::uint64_t count, auto&& one) {
      peer.tell(what, count);
      std::vector<double> each;
      for (std::uint64_t i = 0; i < count; ++i) {
         auto const start = Clock::now();
         one();
         each.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
      }
      peer.answer();
      return bench::Paired::median(each);
   };
   auto const viaCalls = [&](std::uint64_t count) {
      return ns('c', count, [&] {
         called.ask();
         pump.until([&] { return called.isAnswered(); });
      });
   };
   auto const viaSockets = [&](std::uint64_t count) {
      return ns('p', count, [&] {
         polled.ask();
         while (!polled.isAnswered())
            server.pollOnce(1s);
      });
   };
   auto const bare = [&](std::uint64_t count) {
      return ns('b', count, [&] {
         Bytes const bytes{};
         bench::sendWhole(peer.sockets().bare, bytes.data(), bytes.size());
         bench::receive<Bytes>(peer.sockets().bare);
      });
   };

   auto const ask = [&](std::string_view question, double target, auto&& ours) {
      if (argc != 1) {
         if (paired.asks(question, "ours"))
            ours(paired.count(0));
         if (paired.asks(question, "baseline"))
            bare(paired.count(0));
         return;
      }
      std::vector<double> ratios, oursNs, bareNs;
      ours(200);
      for (int i = 0; i < 51; ++i) {
         oursNs.push_back(ours(400));
         bareNs.push_back(bare(400));
         ratios.push_back(oursNs.back() / bareNs.back());
      }
      bench::Paired::row(question, target, ratios, oursNs, bareNs);
   };
   ask("RoundTrip", 1.5, viaSockets);
   ask("RoundTrip/calls", 1.5, viaCalls);
}
