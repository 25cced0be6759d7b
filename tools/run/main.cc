// SPDX-License-Identifier: Apache-2.0
#include "run/Line.h"
#include "run/Options.h"
#include "run/Result.h"
#include "run/Sides.h"
#include "run/Trace.h"

#include "kestrel/mox/Swallowed.h"
#include "kestrel/net/SocketException.h"

#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace Job;

/// A program may be started with a standard stream closed. The next file that it opens would get that number, and the
/// result would go into a socket. So a file whose use fails takes the number.
void keepStandardStreams() {
   for (int const fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF)
         ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

Outcome run(int argc, char** argv) {
   Options const options = parseOptions(argc, argv);
   if (!options.help.empty()) {
      print(options.help);
      return Outcome::agree;
   }
   BadRows badRows;
   std::unique_ptr<Line> line;
   if (options.trace.empty())
      line = simulatedLine(options.ports != 0 ? options.ports : usualPorts,
                           options.steps != 0 ? options.steps : usualSteps, options.seed);
   else
      try {
         line = recordedLine(readTraceFile(options.trace, badRows), options.ports, options.steps);
      } catch (TraceError const&) {
         // The rows say why nothing is left.
         badRows.report(std::cerr, options.trace);
         throw;
      }
   if (options.driver)
      return drive(options, std::move(line));
   badRows.report(std::cerr, options.trace);
   return configure(options, std::move(line), badRows.count());
}

} // namespace

int main(int argc, char** argv) {
   keepStandardStreams();
   std::signal(SIGPIPE, SIG_IGN);
   Mox::exceptionHookIs([](std::string const& text) { std::cerr << text << '\n'; });
   try {
      return static_cast<int>(run(argc, argv));
   } catch (Interrupted const& i) {
      // The signal ends this process as if it had not been caught, so that whoever started the program sees which one
      // it was.
      std::signal(i.signal, SIG_DFL);
      std::raise(i.signal);
      return 128 + i.signal;
   } catch (UsageError const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (TraceError const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (OutputError const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (Mox::SocketException const& e) {
      std::cerr << "run: " << e.what() << '\n';
   } catch (std::exception const& e) {
      std::cerr << "run: " << e.what() << '\n';
      return static_cast<int>(Outcome::setupFailed);
   }
   return static_cast<int>(Outcome::badInput);
}
