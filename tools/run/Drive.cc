#include "run/Sides.h"

#include "run/Line.h"
#include "run/Pipe.h"

#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010Status.h"
#include "entities/Cl10010StatusDir.h"
#include "net/UnixClient.h"
#include "notify/Dump.h"
#include "notify/Observe.h"
#include "siblings/EthPhyIntfStatus.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace Job {

namespace {

using namespace Hardware::ClariPhy;
using namespace std::chrono_literals;
using Mox::Name;
using Mox::Ptr;

struct Lost : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// One port: its line, its status, and the configuration that it follows.
class DrivenPort {
public:
   DrivenPort(PortTrace const& trace, std::uint32_t number, Cl10010ConfigDir& configs, Cl10010StatusDir& statuses)
      : trace_(trace), next_(trace.samples.begin()), config_(configs.phyConfig(Name(trace.name()))) {
      auto const interface = Mox::make<Interface::EthPhyIntfStatus>(Name("ethernet-" + trace.name()));
      interface->intfIdIs(Plex::IntfId(number + 1));
      interface->linkUpIs(true);
      status_ = statuses.phyStatusIs(Name(trace.name()), config_, interface);
      interface_ = interface;
      status_->rollOffIs(config_->rollOff());
      watch_ = Mox::on(config_, Cl10010Config::Attr::rollOff, [this](Cl10010Config& c) { reconfigure(c); });
   }
   DrivenPort(DrivenPort const&) = delete;
   DrivenPort& operator=(DrivenPort const&) = delete;

   /// Reads the chip out, if the trace has a sample of that minute.
   void play(std::int64_t minute) {
      if (next_ == trace_.samples.end() || next_->minute != minute)
         return;
      Reading const r = line_.next(*next_++);
      time_ = r.time;
      status_->currPreFecErrorRateIs(static_cast<float>(r.errorRatio));
      status_->qFactorFromBerIs(static_cast<float>(r.qFactor));
      status_->fecFramesInc(r.frames);
      status_->fecErrorsInc(r.bitErrors);
      status_->performanceMonitorCountInc(1);
      if (r.frameLossChanged) {
         auto const changed = [&](Kiln::ConditionStat before, bool now) {
            return Kiln::ConditionStat{now, before.count + 1, r.time};
         };
         status_->otuLossOfAnyFrameIs(changed(status_->otuLossOfAnyFrame(), r.frameLoss));
         status_->signalLockIs(changed(status_->signalLock(), !r.frameLoss));
         interface_->linkUpIs(!r.frameLoss);
      }
   }

   void stop() { watch_.stop(); }
   unsigned reconfigurations() const noexcept { return reconfigurations_; }
   std::uint32_t changes() const noexcept { return status_->changeCount(); }

private:
   void reconfigure(Cl10010Config const& config) {
      ++reconfigurations_;
      status_->rollOffIs(config.rollOff());
      status_->firmwareSmStateIs(static_cast<std::uint16_t>(status_->firmwareSmState() ^ 1));
      status_->firmwareSmStateChangesInc(1);
      status_->lastFirmwareSmStateChangedIs(time_);
   }

   PortTrace const& trace_;
   std::vector<Sample>::const_iterator next_;
   PortLine line_;
   Ptr<Cl10010Config> config_;
   Ptr<Cl10010Status> status_;
   Ptr<Interface::EthPhyIntfStatus> interface_;
   Mox::Watch watch_;
   double time_ = 0;
   unsigned reconfigurations_ = 0;
};

class Driver {
public:
   Driver(Options const& options, Trace const& trace)
      : trace_(trace), pipe_(STDIN_FILENO, STDOUT_FILENO), status_(Mox::make<Cl10010StatusDir>("status")) {
      client_.onPeer([this](Mox::PeerEvent const& event) {
         if (event.kind == Mox::PeerEvent::Kind::lost)
            lost_ = event.reason;
      });
      client_.onReport([](std::string const& text) { std::cerr << "run: driver: " << text << '\n'; });
      client_.exportRoot(status_);
      config_ = client_.mount<Cl10010ConfigDir>("config");
      client_.connect(options.socket);
   }

   void run() {
      awaitConfiguration();
      play();
      say(std::string(word::played) + ' ' + figures());
      awaitWord(word::stop);
      for (auto& port : ports_)
         port->stop();
      while (!client_.quiet())
         poll(5ms);
      say(word::stopped);
      awaitWord(word::dump);
      std::ostringstream text;
      Mox::dump(*config_, text);
      Mox::dump(*status_, text);
      pipe_.sendText(text.str());
   }

private:
   void awaitConfiguration() {
      auto const ready = [this] {
         return std::all_of(trace_.ports.begin(), trace_.ports.end(), [this](PortTrace const& port) {
            auto const config = config_->phyConfig(Name(port.name()));
            return config && config->configReady();
         });
      };
      while (client_.state("config") != Mox::LinkEnd::State::live || !ready())
         poll(20ms);
      for (PortTrace const& port : trace_.ports)
         ports_.push_back(
            std::make_unique<DrivenPort>(port, static_cast<std::uint32_t>(ports_.size()), *config_, *status_));
   }

   void play() {
      std::set<std::int64_t> minutes;
      for (PortTrace const& port : trace_.ports)
         for (Sample const& sample : port.samples)
            minutes.insert(sample.minute);
      for (std::int64_t const minute : minutes) {
         for (auto& port : ports_)
            port->play(minute);
         poll(1ms);
         ++steps_;
      }
   }

   std::string figures() const {
      unsigned answered = 0;
      U64 changes = 0;
      for (auto const& port : ports_) {
         answered += port->reconfigurations();
         changes += port->changes();
      }
      return "steps " + std::to_string(steps_) + ", changes " + std::to_string(changes) +
             ", reconfigurations while playing " + std::to_string(answered);
   }

   void poll(Mox::SocketLoop::Milliseconds timeout) {
      client_.pollOnce(timeout);
      if (lost_)
         throw Lost("the configuring process was lost: " + *lost_);
   }

   void say(std::string_view word) {
      if (!pipe_.sendLine(word))
         throw Lost("the configuring process was lost: it reads no more");
   }

   void awaitWord(std::string_view word) {
      for (;;) {
         if (auto const line = pipe_.line(0ms); line && *line == word)
            return;
         if (pipe_.ended())
            throw Lost("the configuring process was lost: it says no more");
         poll(5ms);
      }
   }

   using U64 = Mox::U64;

   Trace const& trace_;
   Pipe pipe_;
   Ptr<Cl10010StatusDir> status_;
   Ptr<Cl10010ConfigDir> config_;
   Mox::UnixClient client_{"driver process"};
   std::vector<std::unique_ptr<DrivenPort>> ports_;
   std::optional<std::string> lost_;
   unsigned steps_ = 0;
};

} // namespace

Outcome drive(Options const& options, Trace const& trace) {
   // A key that interrupts the program reaches both processes: the other one decides, and this one sees it go.
   std::signal(SIGINT, SIG_IGN);
   std::signal(SIGPIPE, SIG_IGN);
   try {
      Driver(options, trace).run();
   } catch (Lost const& e) {
      std::cerr << "run: driver: " << e.what() << '\n';
      return Outcome::peerLost;
   }
   return Outcome::agree;
}

} // namespace Job
