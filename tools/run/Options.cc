// SPDX-License-Identifier: Apache-2.0
#include "run/Options.h"

#include "run/Trace.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <iomanip>
#include <limits>
#include <numeric>
#include <sstream>
#include <utility>
#include <vector>

namespace Job {

namespace {

template <class Number> std::string textOf(Number number) {
   std::ostringstream out;
   out << std::setprecision(std::numeric_limits<double>::digits10) << number;
   return out.str();
}

template <class Number>
void addNumber(CLI::App& app, std::string const& name, Number& target, Number low, Number high,
               std::string const& description) {
   auto const parse = [&target, name, low, high](std::string const& text) {
      Number n{};
      auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
      // The comparisons fail for what is not a number.
      if (text.empty() || error != std::errc() || end != text.data() + text.size() || !(n >= low && n <= high))
         throw UsageError(name + ": expected a number from " + textOf(low) + " to " + textOf(high) + ", got '" +
                          shown(text) + "'");
      target = n;
   };
   app.add_option_function<std::string>(name, parse, description)->type_name(std::is_integral_v<Number> ? "N" : "X");
}

/// How many letters differ.
std::size_t distance(std::string_view a, std::string_view b) {
   std::vector<std::size_t> row(b.size() + 1);
   std::iota(row.begin(), row.end(), std::size_t{0});
   for (std::size_t i = 0; i != a.size(); ++i) {
      std::size_t diagonal = row[0];
      row[0] = i + 1;
      for (std::size_t j = 0; j != b.size(); ++j)
         diagonal =
            std::exchange(row[j + 1], std::min({row[j] + 1, row[j + 1] + 1, diagonal + (a[i] == b[j] ? 0u : 1u)}));
   }
   return row.back();
}

/// The message for a word that is no option.
std::string unknown(CLI::App const& app, std::string_view word) {
   std::string_view const name = word.substr(0, word.find('='));
   std::string best;
   std::size_t least = name.size() / 3 + 1;
   if (name.starts_with("-"))
      for (CLI::Option const* option : app.get_options())
         // The option with which the job starts its own driver is hidden, and not suggested to anybody.
         if (std::size_t const d = distance(name, option->get_name()); d < least && !option->get_group().empty()) {
            least = d;
            best = option->get_name();
         }
   return (best.empty() ? "expected the options that --help lists, got '"
                        : "expected '" + best + "' or another option, got '") +
          shown(std::string(word)) + "'";
}

} // namespace

Options parseOptions(int argc, char const* const* argv) {
   Options options;
   CLI::App app("Mirrors the configuration of PHYs to a driver process and their status back, over\n"
                "one unix socket, while a recorded or simulated line plays, and compares both\n"
                "processes at the end.",
                "./run");
   app.allow_extras();
   app.get_formatter()->column_width(18);
   app.add_option("--trace", options.trace, "Play a recording in place of a simulated line")->type_name("FILE");
   app.add_option("--socket", options.socket, "Path of the socket (default: in a folder of its own)")
      ->type_name("PATH");
   addNumber(app, "--ports", options.ports, 1u, 10000u,
             "Ports (default " + std::to_string(usualPorts) + "; all of a recording)");
   addNumber(app, "--steps", options.steps, 1u, 1000000u,
             "Steps in time (default " + std::to_string(usualSteps) + "; all of a recording)");
   addNumber(app, "--seed", options.seed, std::uint64_t{0}, std::numeric_limits<std::uint64_t>::max(),
             "Seed of what is simulated (default " + std::to_string(options.seed) + ")");
   addNumber(app, "--speed", options.speed, 0.0, 1e6,
             "Steps in a second (default " + textOf(options.speed) + "; 0 is as fast as possible)");
   app.add_flag("--json", options.json, "Print the result as one JSON object")->disable_flag_override();
   app.set_version_flag("--version", "kestrel-run " KESTREL_VERSION, "Print the version, and do nothing");
   app.add_flag("--driver", options.driver)->group("");
   app.footer("A recording is a file of comma-separated rows below a header that names the\n"
              "columns. Order of rows and columns is free, and other columns are left:\n"
              "  device_name, logical_name   together with the side, the name of a port\n"
              "  side                        A or Z, the end of the channel\n"
              "  time                        as 2000/1/31 23:05\n"
              "  item                        preFecBer\n"
              "  stats_type                  avg and max play; min and instant are left\n"
              "  value                       bit error ratio before correction, 0 to 0.5;\n"
              "                              from 0.1 on there is no signal\n"
              "An example: tools/run/example-trace.csv\n\n"
              "Exit status: 0 both sides agree, 1 they differ, 2 wrong use or bad input,\n"
              "3 set-up or build failed, 4 a process was lost; where a signal ended the job,\n"
              "128 and its number.");
   try {
      app.parse(argc, argv);
   } catch (CLI::CallForHelp const&) {
      options.help = app.help();
      return options;
   } catch (CLI::CallForVersion const&) {
      options.help = app.version() + '\n';
      return options;
   } catch (CLI::ArgumentMismatch const& e) {
      for (CLI::Option const* option : app.get_options())
         if (option->count() > 1)
            throw UsageError(option->get_name() + ": expected once, got " + std::to_string(option->count()) + " times");
      for (int i = 1; i < argc; ++i)
         if (std::string_view const given(argv[i]); given.starts_with("--json="))
            throw UsageError("--json: expected no value, got '" + shown(given.substr(7)) + "'");
      std::string const text = e.what(); // begins with the option
      throw UsageError(text.substr(0, text.find(':')) + ": expected a value, got nothing");
   } catch (CLI::ParseError const& e) {
      std::string text = e.what();
      for (char& c : text)
         if (c == '\n')
            c = ' ';
      throw UsageError(text);
   }
   // A path that begins with two dashes has to stand after an equals sign. As a word of its own it means that the path
   // was forgotten.
   for (int i = 1; i + 1 < argc; ++i)
      if (std::string_view const name(argv[i]), value(argv[i + 1]);
          (name == "--socket" || name == "--trace") && value.starts_with("--"))
         throw UsageError(std::string(name) + ": expected a path, got '" + shown(value) + "'");
   if (auto const extras = app.remaining(); !extras.empty())
      throw UsageError(unknown(app, extras.front()));
   for (auto const& [name, value] : {std::pair("--socket", options.socket), std::pair("--trace", options.trace)})
      if (app.count(name) > 0 && value.empty())
         throw UsageError(std::string(name) + ": expected a path, got an empty text");
   return options;
}

} // namespace Job
