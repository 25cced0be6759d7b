#include "run/Options.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <limits>

namespace Job {

namespace {

template <class Number>
void addNumber(CLI::App& app, std::string const& name, Number& target, Number low, Number high,
               std::string const& description) {
   auto const parse = [&target, name, low, high](std::string const& text) {
      Number n{};
      auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
      if (text.empty() || error != std::errc() || end != text.data() + text.size() || n < low || n > high)
         throw UsageError(name + ": expected a number from " + std::to_string(low) + " to " + std::to_string(high) +
                          ", got '" + text + "'");
      target = n;
   };
   app.add_option_function<std::string>(name, parse, description)->type_name("N");
}

} // namespace

Options parseOptions(int argc, char const* const* argv) {
   Options options;
   CLI::App app(
      "Mirrors the configuration of PHYs to a driver process and their status back, over one unix socket, while a "
      "recorded or simulated line plays, and compares both processes at the end.",
      "run");
   app.add_option("--socket", options.socket, "Path of the socket; default: in a private folder, removed at the end")
      ->type_name("PATH");
   app.add_option("--trace", options.trace,
                  "Play this file: comma-separated rows below a header with the columns device_name, logical_name, "
                  "item (preFecBer), stats_type (avg, max, min, instant), value, time (2000/1/31 23:05) and side (A or "
                  "Z). Default: a simulated line")
      ->type_name("FILE");
   addNumber(app, "--ports", options.ports, 1u, 10000u, "Number of ports; of a trace, at most that many of its ports");
   addNumber(app, "--steps", options.steps, 1u, 1000000u, "Number of steps in time; of a trace, at most that many");
   addNumber(app, "--seed", options.seed, std::uint64_t{0}, std::numeric_limits<std::uint64_t>::max(),
             "Seed of the simulated line");
   app.add_flag("--driver", options.driver)->group("");
   app.footer("Exit status: 0 both sides agree, 1 they differ, 2 wrong use or bad input, 3 set-up or build failed, 4 a "
              "process was lost.");
   try {
      app.parse(argc, argv);
   } catch (CLI::CallForHelp const&) {
      options.help = app.help();
      return options;
   } catch (CLI::ParseError const& e) {
      std::string text = e.what();
      for (char& c : text)
         if (c == '\n')
            c = ' ';
      throw UsageError(text);
   }
   for (auto const& [name, value] : {std::pair("--socket", options.socket), std::pair("--trace", options.trace)})
      if (app.count(name) > 0 && value.empty())
         throw UsageError(std::string(name) + ": expected a path, got an empty text");
   return options;
}

} // namespace Job
