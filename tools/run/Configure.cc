#include "run/Sides.h"

#include "run/Pipe.h"

#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010Status.h"
#include "entities/Cl10010StatusDir.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "net/UnixPath.h"
#include "net/UnixServer.h"
#include "notify/Dump.h"
#include "notify/Observe.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>

namespace Job {

namespace {

using namespace Hardware::ClariPhy;
using namespace std::chrono_literals;
using Mox::Name;
using Mox::Ptr;

/// How long the other process may do nothing before it counts as lost.
constexpr auto patience = 30s;

std::sig_atomic_t volatile interrupted = 0;
extern "C" void interrupt(int) {
   interrupted = 1;
}

/// Answers a rising error rate of a port by widening its roll-off, once per rise.
class Answers {
public:
   explicit Answers(Ptr<Cl10010ConfigDir> config, Ptr<Cl10010StatusDir> const& status) : config_(std::move(config)) {
      members_ = Mox::on(status, Cl10010StatusDir::Attr::phyStatus,
                         [this](Cl10010StatusDir& directory, Name const& name) { follow(directory, name); });
   }

   unsigned given() const noexcept { return given_; }
   double highestRatio() const noexcept { return highest_; }
   std::string const& highestPort() const noexcept { return highestPort_; }

private:
   static constexpr float risenAt = 2.5e-3F;
   static constexpr float calmBelow = 2.0e-3F;

   struct Port {
      Mox::Watch watch;
      bool risen = false;
   };

   void follow(Cl10010StatusDir& directory, Name const& name) {
      auto const status = directory.phyStatus(name);
      if (!status) {
         ports_.erase(std::string(name));
         return;
      }
      ports_[std::string(name)].watch =
         Mox::on(status, Cl10010Status::Attr::currPreFecErrorRate, [this](Cl10010Status& s) { judge(s); });
      judge(*status);
   }

   void judge(Cl10010Status const& status) {
      float const ratio = status.currPreFecErrorRate();
      std::string const name(status.name());
      if (ratio > highest_) {
         highest_ = ratio;
         highestPort_ = name;
      }
      bool& risen = ports_[name].risen;
      if (!risen && ratio >= risenAt) {
         if (auto const config = config_->phyConfig(name)) {
            float const now = config->rollOff();
            config->rollOffIs(now < 0.975F ? now + 0.025F : 0.2F);
            ++given_;
         }
      }
      risen = ratio >= (risen ? calmBelow : risenAt);
   }

   Ptr<Cl10010ConfigDir> config_;
   Mox::Watch members_;
   std::map<std::string, Port> ports_;
   unsigned given_ = 0;
   double highest_ = 0;
   std::string highestPort_ = "none";
};

void fill(Cl10010ConfigDir& directory, Trace const& trace) {
   // What every port shares is made here, has no parent, and travels because a configuration refers to it.
   auto const spi = Mox::make<Hardware::Spi::Accelerator>("spi-0");
   spi->clockRateIs(25'000'000);
   spi->readyIs(true);
   auto const pll = Mox::make<Hardware::Dpll::PllStatus>("pll-0");
   pll->lockedIs(true);
   std::uint32_t number = 0;
   for (PortTrace const& port : trace.ports) {
      auto const config = directory.phyConfigIs(Name(port.name()));
      auto const reset = Mox::make<Fru::Gpo>(Name("reset-" + port.name()));
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
      config->configReadyIs(true);
      ++number;
   }
}

std::vector<std::string> driverArguments(Options const& options, std::string const& path) {
   std::vector<std::string> arguments{"run", "--driver", "--socket", path, "--seed", std::to_string(options.seed)};
   if (!options.trace.empty())
      arguments.insert(arguments.end(), {"--trace", options.trace});
   if (options.ports != 0)
      arguments.insert(arguments.end(), {"--ports", std::to_string(options.ports)});
   if (options.steps != 0)
      arguments.insert(arguments.end(), {"--steps", std::to_string(options.steps)});
   return arguments;
}

struct Lost : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// The configuring process from the first connection to the comparison.
class Session {
public:
   Session(Mox::UnixServer& server, Child& driver) : server_(server), driver_(driver) {
      server_.onPeer([this](Mox::PeerEvent const& event) {
         if (event.kind == Mox::PeerEvent::Kind::lost)
            lost_ = event.reason;
         else if (event.kind == Mox::PeerEvent::Kind::refused)
            std::cerr << "run: " << event.reason << '\n';
      });
   }

   /// Polls until the driver says a line that begins with `word`; returns what stands behind it. \throws Lost
   std::string awaitWord(std::string_view word) {
      std::optional<std::string> line;
      await([&] {
         line = driver_.pipe().line(0ms);
         return line && line->starts_with(word);
      });
      return line->substr(std::min(line->size(), word.size() + 1));
   }

   /// Polls until the driver has said that it has everything. \throws Lost
   void awaitQuiet() {
      await([this] { return server_.quiet(); });
   }

   void say(std::string_view word) {
      if (!driver_.pipe().sendLine(word))
         check(false);
   }

   [[noreturn]] void lose() {
      auto const how = driver_.end(500ms);
      throw Lost(how     ? "the driver process ended too early: " + *how
                 : lost_ ? "the driver process was lost: " + *lost_
                         : "the driver process does not answer");
   }

private:
   /// The driver may take its time, as long as something moves: bytes on the link, or words.
   template <class Done> void await(Done done) {
      auto last = std::chrono::steady_clock::now();
      while (!done()) {
         if (server_.pollOnce(5ms))
            last = std::chrono::steady_clock::now();
         check(std::chrono::steady_clock::now() - last < patience);
      }
   }

   void check(bool alive) {
      if (interrupted != 0)
         throw Lost("interrupted");
      if (!alive || lost_ || driver_.end())
         lose();
   }

   Mox::UnixServer& server_;
   Child& driver_;
   std::optional<std::string> lost_;
};

std::string dumped(Mox::Entity const& entity) {
   std::ostringstream text;
   Mox::dump(entity, text);
   return text.str();
}

} // namespace

Outcome configure(Options const& options, Trace const& trace, std::size_t badRows) {
   std::signal(SIGINT, interrupt);
   std::signal(SIGTERM, interrupt);
   std::signal(SIGPIPE, SIG_IGN);
   std::optional<Mox::PrivateFolder> folder;
   std::string path = options.socket;
   if (path.empty())
      path = folder.emplace().path() + "/link";

   auto const started = std::chrono::steady_clock::now();
   auto const config = Mox::make<Cl10010ConfigDir>("config");
   fill(*config, trace);
   Mox::UnixServer server(path, "configuring process");
   server.onReport([](std::string const& text) { std::cerr << "run: " << text << '\n'; });
   server.exportRoot(config);
   auto const status = server.mount<Cl10010StatusDir>("status");
   Answers const answers(config, status);

   std::string figures, ours, theirs;
   try {
      Child driver(driverArguments(options, path));
      Session session(server, driver);
      figures = session.awaitWord(word::played);
      session.say(word::stop);
      session.awaitWord(word::stopped);
      session.awaitQuiet();
      session.say(word::dump);
      auto const text = driver.pipe().text(patience);
      if (!text)
         session.lose();
      theirs = *text;
      ours = dumped(*config) + dumped(*status);
   } catch (Lost const& e) {
      std::cerr << "run: " << e.what() << '\n';
      return Outcome::peerLost;
   }

   auto const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
   std::cout << "ports " << trace.ports.size() << ", bad rows " << badRows << ", " << figures << ", seconds " << seconds
             << '\n'
             << "highest error ratio " << answers.highestRatio() << " at " << answers.highestPort() << '\n'
             << "configuration answers " << answers.given() << '\n';
   if (ours == theirs) {
      std::cout << "both sides agree: " << std::count(ours.begin(), ours.end(), '\n') << " lines each\n";
      return Outcome::agree;
   }
   std::cout << "the sides differ\n";
   for (std::string const& line : differences(ours, theirs, 20))
      std::cout << "   " << line << '\n';
   return Outcome::differ;
}

} // namespace Job
