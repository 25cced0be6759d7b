// SPDX-License-Identifier: Apache-2.0
#include "run/Sides.h"

#include "run/Held.h"
#include "run/Pipe.h"
#include "run/Port.h"

#include "kestrel/net/SocketException.h"
#include "kestrel/net/UnixClient.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iostream>
#include <optional>
#include <sstream>

#include <unistd.h>

namespace Job {

namespace {

using namespace Hardware::ClariPhy;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Mox::Name;
using Mox::Ptr;

struct Lost : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct Dismissed {};

class Driver {
public:
   Driver(Options const& options, Line& line)
      : line_(line),
        seed_(options.seed),
        speed_(options.speed),
        pipe_(STDIN_FILENO, STDOUT_FILENO),
        driven_(Mox::make<Cl10010ConfigPtrDir>("driven")),
        status_(Mox::make<Cl10010StatusDir>("status")) {
      client_.onPeer([this](Mox::PeerEvent const& event) {
         if (event.kind == Mox::PeerEvent::Kind::lost)
            lost_ = event.reason;
      });
      client_.onReport([](std::string const& text) { std::cerr << "run: driver: " << text << '\n'; });
      client_.exportRoot(status_);
      client_.exportRoot(driven_);
      config_ = client_.mount<Cl10010ConfigDir>("config");
      watched_ = client_.mount<Cl10010StatusPtrDir>("watched");
      try {
         client_.connect(options.socket);
      } catch (Mox::SocketException const& e) {
         lose(e.what());
      }
   }

   void run() {
      awaitConfiguration();
      play();
      // The configuring process still answers what it has seen last.
      settle();
      say(word::played);
      awaitWord(word::stop);
      for (auto& port : ports_)
         port->driven.stop();
      settle();
      say(std::string(word::stopped) + ' ' + figures().text());
      awaitWord(word::dump);
      pipe_.sendText(Held{config_, driven_, status_, watched_}.text("the driver"));
   }

private:
   struct Port {
      Port(std::string const& name, std::uint32_t number, std::uint64_t seed, Driver& driver, double time)
         : channel(seed, number), driven(name, number, *driver.config_, *driver.status_, *driver.driven_, time) {}
      Channel channel;
      DrivenPort driven;
   };

   void awaitConfiguration() {
      auto const ready = [this] {
         return std::all_of(line_.ports().begin(), line_.ports().end(), [this](std::string const& port) {
            auto const config = config_->phyConfig(Name(port));
            return config && config->configReady();
         });
      };
      while (client_.state("config") != Mox::LinkEnd::State::live || !ready())
         poll(20ms);
   }

   /// Steps are due at equal distances from the first one; a late one does not put off the next.
   void play() {
      auto const start = Clock::now();
      ports_.resize(line_.ports().size());
      for (std::size_t step = 0; step < line_.steps(); ++step) {
         if (speed_ > 0) {
            auto const due = start + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(static_cast<double>(step) / speed_));
            for (auto now = Clock::now(); now < due; now = Clock::now())
               pollAndTell(std::min(std::chrono::ceil<std::chrono::milliseconds>(due - now), 50ms), step);
         }
         for (std::size_t p = 0; p < ports_.size(); ++p) {
            if (auto const sample = line_.next(p, step))
               read(p, *sample);
            // With many ports a step takes long, and the peer must get bytes in between.
            if (p % 64 == 63)
               pollAndTell(0ms, step);
         }
         pollAndTell(0ms, step + 1);
      }
   }

   /// Says now and then how far it is, also while nothing happens: the peer takes silence for a death.
   void pollAndTell(std::chrono::milliseconds timeout, std::size_t steps) {
      poll(timeout);
      if (auto const now = Clock::now(); now - told_ >= 100ms) {
         told_ = now;
         say(std::string(word::step) + ' ' + std::to_string(steps));
      }
   }

   void settle() {
      while (!client_.quiet())
         poll(5ms);
   }

   /// A port begins with its first sample.
   void read(std::size_t number, Sample const& sample) {
      auto& port = ports_[number];
      if (!port)
         port = std::make_unique<Port>(line_.ports()[number], static_cast<std::uint32_t>(number), seed_, *this,
                                       static_cast<double>(sample.minute) * 60 - line_.interval());
      port->driven.read(port->channel.next(sample, line_.interval()));
   }

   DriverFigures figures() const {
      DriverFigures f;
      for (auto const& port : ports_)
         f.changes += port ? port->driven.changes() : 0;
      Mox::Traffic const traffic = client_.traffic();
      f.recordsSent = traffic.recordsSent;
      f.recordsApplied = traffic.recordsApplied;
      f.bytesSent = traffic.bytesSent;
      return f;
   }

   void poll(Mox::SocketLoop::Milliseconds timeout) {
      client_.pollOnce(timeout);
      if (lost_)
         lose(*lost_);
   }

   [[noreturn]] void lose(std::string const& how) {
      // Where the configuring process asked this one to end, it has closed the connection too, and nothing is lost.
      while (auto const line = pipe_.line(0ms))
         if (*line == word::leave)
            throw Dismissed();
      throw Lost("the configuring process was lost: " + how);
   }

   void say(std::string_view text) {
      if (!pipe_.sendLine(text))
         throw Lost("the configuring process was lost: it reads no more");
   }

   void awaitWord(std::string_view expected) {
      for (;;) {
         auto const line = pipe_.line(0ms);
         if (line && *line == word::leave)
            throw Dismissed();
         if (line && *line == expected)
            return;
         if (pipe_.ended())
            throw Lost("the configuring process was lost: it says no more");
         poll(5ms);
      }
   }

   Line& line_;
   std::uint64_t seed_;
   double speed_; ///< steps in a second; 0 for as fast as it goes
   Pipe pipe_;
   Ptr<Cl10010ConfigPtrDir> driven_;
   Ptr<Cl10010StatusDir> status_;
   Ptr<Cl10010ConfigDir> config_;
   Ptr<Cl10010StatusPtrDir> watched_;
   Mox::UnixClient client_{"driver process"};
   std::vector<std::unique_ptr<Port>> ports_; ///< null before the port's first sample
   std::optional<std::string> lost_;
   Clock::time_point told_{};
};

} // namespace

std::string DriverFigures::text() const {
   std::ostringstream out;
   out << changes << ' ' << recordsSent << ' ' << recordsApplied << ' ' << bytesSent;
   return out.str();
}

DriverFigures DriverFigures::of(std::string const& text) {
   DriverFigures f;
   std::istringstream in(text);
   if (!(in >> f.changes >> f.recordsSent >> f.recordsApplied >> f.bytesSent))
      return {};
   return f;
}

Outcome drive(Options const& options, std::unique_ptr<Line> line) {
   // Ctrl-C and a terminal that closes reach both processes. The other one decides what follows; this one is asked to
   // leave, or sees the other one go.
   std::signal(SIGINT, SIG_IGN);
   std::signal(SIGHUP, SIG_IGN);
   std::signal(SIGPIPE, SIG_IGN);
   try {
      Driver(options, *line).run();
   } catch (Dismissed) {
   } catch (Lost const& e) {
      std::cerr << "run: driver: " << e.what() << '\n';
      return Outcome::peerLost;
   }
   return Outcome::agree;
}

} // namespace Job
