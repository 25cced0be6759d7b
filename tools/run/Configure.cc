// SPDX-License-Identifier: Apache-2.0
#include "run/Sides.h"

#include "run/Answers.h"
#include "run/Held.h"
#include "run/Pipe.h"
#include "run/Result.h"
#include "run/Terminal.h"

#include "kestrel/entities/Cl10010Config.h"
#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010Status.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusDirReactor.h"
#include "kestrel/entities/Cl10010StatusReactor.h"
#include "kestrel/net/UnixPath.h"
#include "kestrel/net/UnixServer.h"
#include "kestrel/notify/Observe.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>

#include <unistd.h>

namespace Job {

namespace {

using namespace Hardware::ClariPhy;
using namespace std::chrono_literals;
using Mox::Name;
using Mox::Ptr;

/// How long the other process may do nothing before it counts as lost.
constexpr auto patience = 30s;

std::sig_atomic_t volatile interrupted = 0;
extern "C" void interrupt(int signal) {
   interrupted = signal;
}

/// While this object lives, Ctrl-C, a closing terminal or a supervisor can ask the job to end. A signal that was
/// ignored when the program started, as `nohup` has it, stays ignored.
class Interrupts {
public:
   Interrupts() {
      interrupted = 0;
      for (std::size_t i = 0; i < signals.size(); ++i)
         if ((before_[i] = std::signal(signals[i], interrupt)) == SIG_IGN)
            std::signal(signals[i], SIG_IGN);
   }
   ~Interrupts() {
      for (std::size_t i = 0; i < signals.size(); ++i)
         std::signal(signals[i], before_[i]);
   }
   Interrupts(Interrupts const&) = delete;
   Interrupts& operator=(Interrupts const&) = delete;

private:
   static constexpr std::array signals{SIGINT, SIGTERM, SIGHUP};
   std::array<void (*)(int), signals.size()> before_{};
};

void fill(Cl10010ConfigDir& directory, Line const& line) {
   // The entities that all ports share have no parent, and travel because a configuration refers to them.
   auto const spi = Mox::make<Hardware::Spi::Accelerator>("spi-0");
   spi->clockRateIs(25'000'000);
   spi->readyIs(true);
   auto const pll = Mox::make<Hardware::Dpll::PllStatus>("pll-0");
   pll->lockedIs(true);
   std::uint32_t number = 0;
   for (std::string const& port : line.ports()) {
      auto const config = directory.phyConfigIs(Name(port));
      auto const reset = Mox::make<Fru::Gpo>(Name("reset-" + port));
      reset->assertedIs(number % 2 == 0);
      config->spiAccelIs(spi);
      config->pllStatusIs(pll);
      config->resetUcIs(reset);
      config->refClockIs(644'531'250 + number);
      config->rxSkewHIs(Xcvr::CfpxSkew(0.125 * number));
      config->rxSkewVIs(Xcvr::CfpxSkew(-0.125 * number));
      for (std::uint32_t channel = 0; channel < 4; ++channel) {
         auto const key = Xcvr::CfpxHostChannelInstance((number + channel * 3) % 16);
         config->calibrationIs(key, {1000 + number, channel, number * channel});
         config->initialIngressAmpIs(key, Xcvr::CfpxTiaOutputVoltage(350'000 + number));
      }
      config->wakeupTimeIs(0.25);
      config->diagsModeEpochInc(1);
      config->configReadyIs(true);
      ++number;
   }
}

std::vector<std::string> driverArguments(Options const& options, std::string const& path) {
   std::ostringstream speed;
   speed << options.speed;
   std::vector<std::string> arguments{"run", "--driver", "--socket=" + path, "--seed=" + std::to_string(options.seed),
                                      "--speed=" + speed.str()};
   if (!options.trace.empty())
      arguments.push_back("--trace=" + options.trace);
   if (options.ports != 0)
      arguments.push_back("--ports=" + std::to_string(options.ports));
   if (options.steps != 0)
      arguments.push_back("--steps=" + std::to_string(options.steps));
   return arguments;
}

struct Lost : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// The configuring process from the first connection to the comparison.
class Session {
public:
   /// \param folder of the socket, where it is private: it is removed as soon as the driver has connected
   Session(Options const& options, Line const& line, std::string const& path, std::optional<Mox::PrivateFolder>& folder)
      : steps_(line.steps()),
        watched_(Mox::make<Cl10010StatusPtrDir>("watched")),
        config_(Mox::make<Cl10010ConfigDir>("config")),
        server_(std::in_place, path, "configuring process"),
        progress_(Terminal::of(STDERR_FILENO)) {
      fill(*config_, line);
      server_->onReport([this](std::string const& text) { say(text); });
      server_->onPeer([this, &folder](Mox::PeerEvent const& event) {
         if (event.kind == Mox::PeerEvent::Kind::refused)
            say(event.reason);
         // Others may connect and leave, such as a job that asks whether the socket is alive.
         if (event.process != static_cast<unsigned long>(driver_->process()))
            return;
         if (event.kind == Mox::PeerEvent::Kind::lost)
            lost_ = event.reason;
         else if (event.kind == Mox::PeerEvent::Kind::joined)
            folder.reset();
      });
      server_->exportRoot(config_);
      server_->exportRoot(watched_);
      status_ = server_->mount<Cl10010StatusDir>("status");
      driven_ = server_->mount<Cl10010ConfigPtrDir>("driven");
      answers_.emplace(config_, status_, watched_);
      driver_.emplace(driverArguments(options, path));
   }
   Session(Session const&) = delete;
   Session& operator=(Session const&) = delete;

   /// Ends the driver, if it is still there, after giving it the time to end by itself.
   ~Session() {
      driver_->pipe().sendLine(word::leave);
      server_.reset();
      driver_->end(1s);
   }

   /// \throws Lost, Interrupted
   void run(Result& result) {
      awaitWord(word::played);
      await([this] { return answers_->open() == 0 && server_->quiet(); });
      driver_->pipe().sendLine(word::stop);
      auto const driver = DriverFigures::of(awaitWord(word::stopped));
      await([this] { return server_->quiet(); });
      // Read before the driver may go, because the counts go with the connection.
      Mox::Traffic const traffic = server_->traffic();
      driver_->pipe().sendLine(word::dump);
      std::optional<std::string> theirs;
      await([&] { return (theirs = driver_->pipe().text(50ms)).has_value(); });
      progress_.clear();

      Held const held{config_, driven_, status_, watched_};
      result.differences = differences(held.text("the configuring process"), *theirs, 20);
      result.references = held.references();
      result.comparedLines = static_cast<std::size_t>(std::count(theirs->begin(), theirs->end(), '\n'));
      result.changes = driver.changes;
      result.recordsSent = traffic.recordsSent + driver.recordsSent;
      result.recordsApplied = traffic.recordsApplied + driver.recordsApplied;
      result.bytes = traffic.bytesSent + driver.bytesSent;
      result.worst = answers_->worst();
      result.signalLosses = answers_->signalLosses();
      result.answers = answers_->given();
   }

   std::size_t stepsPlayed() const noexcept { return played_; }

private:
   /// Polls until the driver says a line that begins with `word`; returns what follows that word.
   std::string awaitWord(std::string_view word) {
      std::optional<std::string> line;
      await([&] {
         while ((line = driver_->pipe().line(0ms)) && !line->starts_with(word))
            if (line->starts_with(word::step))
               std::from_chars(line->data() + word::step.size() + 1, line->data() + line->size(), played_);
         return line.has_value();
      });
      return line->substr(std::min(line->size(), word.size() + 1));
   }

   /// Polls until `done()` holds. The driver may take any time as long as bytes of the link or of its pipe arrive.
   template <class Done> void await(Done done) {
      for (auto last = Clock::now();;) {
         auto const before = driver_->pipe().received();
         bool const moved = server_->pollOnce(5ms);
         // Asked before `done()`, which reads what the driver said at its end.
         bool const isGone = lost_ || driver_->end();
         if (done())
            return;
         if (moved || driver_->pipe().received() != before)
            last = Clock::now();
         if (interrupted != 0) {
            progress_.clear();
            throw Interrupted{interrupted};
         }
         if (isGone || Clock::now() - last >= patience)
            lose();
         tell();
      }
   }

   void tell() {
      auto const all = grouped(steps_);
      std::ostringstream text;
      text << std::setw(static_cast<int>(all.size())) << grouped(played_) << " of " << all << " steps, "
           << grouped(server_->traffic().recordsApplied) << " records";
      if (auto const& worst = answers_->worst(); !worst.port.empty())
         text << ", worst " << std::setprecision(2) << worst.errorRate << " at " << worst.port;
      progress_.show(static_cast<double>(played_) / static_cast<double>(steps_), text.str());
   }

   void say(std::string const& text) {
      progress_.clear();
      std::cerr << "run: " << text << '\n';
   }

   [[noreturn]] void lose() {
      progress_.clear();
      auto const how = driver_->end(500ms);
      throw Lost(lossText(lost_, how));
   }

   using Clock = std::chrono::steady_clock;

   std::size_t steps_;
   Ptr<Cl10010StatusPtrDir> watched_;
   Ptr<Cl10010ConfigDir> config_;
   Ptr<Cl10010StatusDir> status_;
   Ptr<Cl10010ConfigPtrDir> driven_;
   std::optional<Mox::UnixServer> server_;
   std::optional<Answers> answers_;
   std::optional<Child> driver_;
   std::optional<std::string> lost_;
   std::size_t played_ = 0;
   ProgressLine progress_;
};

} // namespace

std::string lossText(std::optional<std::string> const& reason, std::optional<std::string> const& end) {
   if (reason && (!end || *reason != Mox::peerClosed))
      return "the driver process was lost: " + *reason + (end ? " (" + *end + ")" : "");
   return end ? "the driver process ended too early: " + *end : "the driver process does not answer";
}

Outcome configure(Options const& options, std::unique_ptr<Line> line, std::size_t badRows) {
   auto const started = std::chrono::steady_clock::now();
   Result result;
   result.line = options.trace.empty() ? "simulated" : options.trace;
   result.seed = options.seed;
   result.ports = line->ports().size();
   result.steps = line->steps();
   result.badRows = badRows;

   Interrupts const interrupts;
   std::signal(SIGPIPE, SIG_IGN);
   std::optional<Mox::PrivateFolder> folder;
   std::string path = options.socket;
   Mox::PrivateFolder::clearAbandoned(); // left by jobs that were killed
   if (path.empty())
      path = folder.emplace().path() + "/link";
   {
      Session session(options, *line, path, folder);
      if (!options.json)
         print(
            "playing " + counted(result.steps, "step") + " of " +
            (options.trace.empty() ? "a simulated line, seed " + std::to_string(options.seed) : shown(options.trace)) +
            ", to " + counted(result.ports, "port") + "\n");
      try {
         session.run(result);
      } catch (Lost const& e) {
         std::cerr << "run: " << e.what() << '\n';
         return Outcome::peerLost;
      } catch (Interrupted const&) {
         std::cerr << "run: interrupted after " << grouped(session.stepsPlayed()) << " of "
                   << counted(result.steps, "step") << '\n';
         throw;
      }
   }
   result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
   print(options.json ? result.json() : result.table(Terminal::of(STDOUT_FILENO)));
   return result.agree() ? Outcome::agree : Outcome::differ;
}

} // namespace Job
