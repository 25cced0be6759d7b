// SPDX-License-Identifier: Apache-2.0
#include "run/Result.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <system_error>

#include <unistd.h>

namespace Job {

namespace {

std::string bytesText(std::uint64_t bytes) {
   std::ostringstream out;
   if (bytes < 1000)
      out << bytes << " bytes";
   else if (bytes < 1'000'000)
      out << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / 1e3 << " kB";
   else
      out << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / 1e6 << " MB";
   return out.str();
}

template <class Number> std::string digits(Number number, int count) {
   std::ostringstream out;
   out << std::setprecision(count) << number;
   return out.str();
}

std::string fixed(double number, int places) {
   std::ostringstream out;
   out << std::fixed << std::setprecision(places) << number;
   return out.str();
}

/// Seconds since 1970 as "2000-01-31 23:05".
std::string moment(double seconds) {
   auto const minutes = static_cast<std::int64_t>(std::floor(seconds / 60));
   auto const days = std::chrono::floor<std::chrono::days>(std::chrono::minutes(minutes));
   std::chrono::year_month_day const date{std::chrono::sys_days(days)};
   auto const inDay = minutes - std::chrono::duration_cast<std::chrono::minutes>(days).count();
   std::ostringstream out;
   out << std::setfill('0') << static_cast<int>(date.year()) << '-' << std::setw(2)
       << static_cast<unsigned>(date.month()) << '-' << std::setw(2) << static_cast<unsigned>(date.day()) << ' '
       << std::setw(2) << inDay / 60 << ':' << std::setw(2) << inDay % 60;
   return out.str();
}

/// Rows of a label and a text, drawn as the terminal can.
class Table {
public:
   explicit Table(Terminal const& terminal) : terminal_(terminal) {}

   void row(std::string_view label, std::string const& text) {
      std::string padded(label);
      padded.resize(14, ' ');
      out_ += ' ' + styled("2", padded) + text + '\n';
   }
   /// Parts of one row with a dot or a comma between them.
   std::string joined(std::vector<std::string> const& parts) const {
      std::string out;
      for (std::string const& part : parts)
         out += out.empty() ? part : (terminal_.isUtf8 ? " \u00b7 " : ", ") + part;
      return out;
   }
   void verdict(bool good, std::string const& text) {
      char const* const mark = good ? (terminal_.isUtf8 ? "\u2714" : "ok:") : (terminal_.isUtf8 ? "\u2718" : "FAILED:");
      out_ += ' ' + styled(good ? "32" : "31;1", mark + (' ' + text)) + '\n';
   }
   void line(std::string const& text) { out_ += "   " + text + '\n'; }
   std::string take() { return std::move(out_); }

private:
   std::string styled(std::string_view code, std::string const& text) const {
      return terminal_.hasColour ? "\x1b[" + std::string(code) + 'm' + text + "\x1b[0m" : text;
   }

   Terminal terminal_;
   std::string out_;
};

} // namespace

std::string grouped(std::uint64_t number) {
   std::string text = std::to_string(number);
   for (std::size_t at = text.size(); at > 3;) {
      at -= 3;
      text.insert(at, 1, ',');
   }
   return text;
}

std::string counted(std::uint64_t count, std::string_view what) {
   return grouped(count) + ' ' + std::string(what) + (count == 1 ? "" : "s");
}

std::string Result::table(Terminal const& terminal) const {
   Table t(terminal);
   std::vector<std::string> first{grouped(ports), counted(steps, "step")};
   if (badRows != 0)
      first.push_back(counted(badRows, "bad row") + " skipped");
   t.row("ports", t.joined(first));
   t.row("changes", grouped(changes));
   t.row("records", t.joined({grouped(recordsSent) + " sent", grouped(recordsApplied) + " applied"}));
   t.row("bytes", bytesText(bytes));
   t.row("time", fixed(seconds, 2) + " s");
   if (!worst.port.empty())
      t.row("worst port",
            t.joined({worst.port, "error rate " + digits(worst.errorRate, 3), "at " + moment(worst.time)}));
   if (signalLosses != 0)
      t.row("no signal", counted(signalLosses, "port") + " for a while");
   if (answers.empty()) {
      t.row("answers", "none");
   } else {
      constexpr std::size_t most = 6;
      std::size_t widest = 0, longest = 0;
      for (std::size_t i = 0; i < std::min(most, answers.size()); ++i) {
         widest = std::max(widest, answers[i].port.size());
         longest = std::max(longest, answers[i].what.size());
      }
      for (std::size_t i = 0; i < std::min(most, answers.size()); ++i) {
         Answers::Answer const& a = answers[i];
         std::string port = a.port, what = a.what;
         port.resize(widest + 2, ' ');
         what.resize(longest + 2, ' ');
         t.row(i == 0 ? "answers" : "", port + what + fixed(a.milliseconds, 2) + " ms");
      }
      if (answers.size() > most) {
         std::vector<double> all;
         for (auto const& a : answers)
            all.push_back(a.milliseconds);
         std::sort(all.begin(), all.end());
         t.row("", t.joined({"and " + grouped(answers.size() - most) + " more",
                             "of all: median " + fixed(all[all.size() / 2], 2) + " ms",
                             "longest " + fixed(all.back(), 2) + " ms"}));
      }
   }
   if (agree()) {
      t.verdict(true,
                "both sides agree: " + counted(comparedLines, "line") + " each, " + counted(references, "reference"));
   } else {
      t.verdict(false, "the sides differ:");
      for (std::string const& difference : differences)
         t.line(difference);
   }
   return t.take();
}

std::string Result::json() const {
   nlohmann::ordered_json j{{"line", line},
                            {"seed", seed},
                            {"ports", ports},
                            {"steps", steps},
                            {"badRows", badRows},
                            {"changes", changes},
                            {"recordsSent", recordsSent},
                            {"recordsApplied", recordsApplied},
                            {"bytes", bytes},
                            {"seconds", seconds},
                            {"worst", nullptr},
                            {"signalLosses", signalLosses},
                            {"answers", nlohmann::ordered_json::array()},
                            {"comparedLines", comparedLines},
                            {"references", references},
                            {"agree", agree()},
                            {"differences", differences}};
   if (!worst.port.empty())
      j["worst"] = {
         {"port", worst.port}, {"errorRate", std::stod(digits(worst.errorRate, 7))}, {"time", moment(worst.time)}};
   for (auto const& a : answers)
      j["answers"].push_back(
         {{"port", a.port}, {"answer", a.what}, {"milliseconds", std::round(a.milliseconds * 1e3) / 1e3}});
   // A file name may hold any bytes: those that are no text are replaced.
   return j.dump(3, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

void print(std::string_view text) {
   while (!text.empty()) {
      ssize_t const n = ::write(STDOUT_FILENO, text.data(), text.size());
      if (n < 0 && errno != EINTR)
         throw OutputError("standard output: expected to write " + std::to_string(text.size()) +
                           " bytes, got: " + std::generic_category().message(errno));
      text.remove_prefix(n < 0 ? 0 : static_cast<std::size_t>(n));
   }
}

} // namespace Job
