#include "run/Line.h"
#include "run/Options.h"
#include "run/Sides.h"
#include "run/Trace.h"

#include "net/SocketException.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <set>

namespace {

using namespace Job;

/// Keeps the first ports, and of those the first moments.
void limit(Trace& trace, Options const& options) {
   if (options.ports != 0 && trace.ports.size() > options.ports)
      trace.ports.resize(options.ports);
   if (options.steps == 0)
      return;
   std::set<std::int64_t> minutes;
   for (PortTrace const& port : trace.ports)
      for (Sample const& sample : port.samples)
         minutes.insert(sample.minute);
   if (minutes.size() <= options.steps)
      return;
   std::int64_t const end = *std::next(minutes.begin(), options.steps);
   for (PortTrace& port : trace.ports)
      std::erase_if(port.samples, [end](Sample const& sample) { return sample.minute >= end; });
}

Outcome run(int argc, char** argv) {
   Options const options = parseOptions(argc, argv);
   if (!options.help.empty()) {
      std::cout << options.help;
      return Outcome::agree;
   }
   BadRows badRows;
   Trace trace;
   if (options.trace.empty()) {
      constexpr unsigned usualPorts = 8;
      constexpr unsigned usualSteps = 200;
      trace = simulatedTrace(options.ports != 0 ? options.ports : usualPorts,
                             options.steps != 0 ? options.steps : usualSteps, options.seed);
   } else {
      trace = readTraceFile(options.trace, badRows);
      limit(trace, options);
   }
   if (options.driver)
      return drive(options, trace);
   badRows.report(std::cerr, options.trace);
   return configure(options, trace, badRows.count());
}

} // namespace

int main(int argc, char** argv) {
   Outcome outcome = Outcome::badInput;
   try {
      outcome = run(argc, argv);
   } catch (UsageError const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (TraceError const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (Mox::SocketException const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (std::exception const& e) {
      std::cerr << "run: " << e.what() << '\n';
      outcome = Outcome::setupFailed;
   }
   if (!std::cout.flush()) {
      std::cerr << "run: expected a standard output that takes the result, got a write error\n";
      outcome = Outcome::badInput;
   }
   return static_cast<int>(outcome);
}
