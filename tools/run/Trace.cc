// SPDX-License-Identifier: Apache-2.0
#include "run/Trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <ostream>
#include <tuple>

namespace Job {

namespace {

constexpr std::size_t longestLine = 4096;

enum Column : std::size_t { device, port, item, statistic, value, time, side, columnCount };
constexpr std::array<std::string_view, columnCount> columnNames{"device_name", "logical_name", "item", "stats_type",
                                                                "value",       "time",         "side"};

/// Whether a name can stand in a table or a message as it is.
bool isPrintable(std::string_view name) {
   return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

void split(std::string_view line, std::vector<std::string_view>& fields) {
   fields.clear();
   for (std::size_t comma; (comma = line.find(',')) != std::string_view::npos; line.remove_prefix(comma + 1))
      fields.push_back(line.substr(0, comma));
   fields.push_back(line);
}

/// Lines without their ends, numbered from 1.
class Lines {
public:
   Lines(std::istream& in, std::string_view file) : in_(in), file_(file), buffer_(longestLine + 2) {}

   bool next(std::string_view& line) {
      if (!in_.getline(buffer_.data(), static_cast<std::streamsize>(buffer_.size()))) {
         if (in_.bad() || !in_.eof())
            throw TraceError(std::string(file_) + ": line " + std::to_string(number_ + 1) + ": expected at most " +
                             std::to_string(longestLine) + " bytes in a line");
         return false;
      }
      ++number_;
      auto length = static_cast<std::size_t>(in_.gcount());
      if (!in_.eof())
         --length;
      line = {buffer_.data(), length};
      if (line.ends_with('\r'))
         line.remove_suffix(1);
      return true;
   }
   std::size_t number() const noexcept { return number_; }

private:
   std::istream& in_;
   std::string_view file_;
   std::vector<char> buffer_;
   std::size_t number_ = 0;
};

template <class Number> bool parse(std::string_view text, Number& out) {
   auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
   return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

/// "2000/1/31 23:05" in minutes since 1970.
std::optional<std::int64_t> minuteOf(std::string_view text) {
   int year, month, day, hour, minute;
   auto const until = [&text](char mark) {
      std::size_t const at = mark == '\0' ? text.size() : text.find(mark);
      std::string_view const head = text.substr(0, at);
      text.remove_prefix(std::min(text.size(), head.size() + 1));
      return head;
   };
   if (!parse(until('/'), year) || !parse(until('/'), month) || !parse(until(' '), day) || !parse(until(':'), hour) ||
       !parse(until('\0'), minute))
      return std::nullopt;
   std::chrono::year_month_day const date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                          std::chrono::day(static_cast<unsigned>(day))};
   if (month < 1 || day < 1 || year < 1 || year > 9999 || !date.ok() || hour < 0 || hour > 23 || minute < 0 ||
       minute > 59)
      return std::nullopt;
   return std::int64_t{std::chrono::sys_days(date).time_since_epoch().count()} * 1440 + hour * 60 + minute;
}

using PortKey = std::tuple<std::string, std::string, char>;
struct Ratios {
   std::optional<double> average, highest;
};

class Reader {
public:
   Reader(std::istream& in, std::string_view file, BadRows& badRows)
      : lines_(in, file), file_(file), badRows_(badRows) {}

   Trace read() {
      readHeader();
      for (std::string_view line; lines_.next(line);) {
         std::string const fault = readRow(line);
         if (!fault.empty())
            badRows_.add(lines_.number(), fault);
      }
      return samples();
   }

private:
   void readHeader() {
      std::string_view line;
      if (!lines_.next(line))
         throw TraceError(std::string(file_) + ": expected a header and rows, got an empty file");
      if (line.starts_with("\xef\xbb\xbf"))
         line.remove_prefix(3);
      split(line, fields_);
      fieldCount_ = fields_.size();
      for (std::size_t column = 0; column < columnCount; ++column) {
         auto const at = std::find(fields_.begin(), fields_.end(), columnNames[column]);
         if (at == fields_.end())
            throw TraceError(std::string(file_) + ": line 1: expected a header with the column '" +
                             std::string(columnNames[column]) + "', got '" + shown(line) + "'");
         columns_[column] = static_cast<std::size_t>(at - fields_.begin());
      }
   }

   /// What is wrong with the row; empty where it was taken.
   std::string readRow(std::string_view line) {
      if (line.find_first_not_of(',') == std::string_view::npos)
         return "empty row";
      split(line, fields_);
      if (fields_.size() != fieldCount_)
         return "expected " + std::to_string(fieldCount_) + " fields, got " + std::to_string(fields_.size());
      auto const field = [this](Column c) { return fields_[columns_[c]]; };
      auto const wrong = [&](Column c, char const* expected) {
         return std::string(columnNames[c]) + ": expected " + expected + ", got '" + shown(field(c)) + "'";
      };
      for (Column const name : {device, port})
         if (!isPrintable(field(name)))
            return wrong(name, "a printable name");
      if (field(item) != "preFecBer")
         return wrong(item, "preFecBer");
      if (field(side) != "A" && field(side) != "Z")
         return wrong(side, "A or Z");
      double ratio;
      // The comparisons fail for NaN.
      if (!parse(field(value), ratio) || !(ratio >= 0 && ratio <= 0.5))
         return wrong(value, "a ratio from 0 to 0.5");
      auto const minute = minuteOf(field(time));
      if (!minute)
         return wrong(time, "a time like 2000/1/31 23:05");
      if (field(statistic) == "avg" || field(statistic) == "max") {
         auto& ratios = ports_[{std::string(field(device)), std::string(field(port)), field(side)[0]}][*minute];
         (field(statistic) == "avg" ? ratios.average : ratios.highest) = ratio;
      } else if (field(statistic) != "min" && field(statistic) != "instant") {
         return wrong(statistic, "avg, max, min or instant");
      }
      return {};
   }

   Trace samples() const {
      constexpr auto unknown = std::numeric_limits<std::int64_t>::max();
      std::int64_t shortest = unknown;
      Trace trace;
      for (auto const& [key, minutes] : ports_) {
         PortTrace port{std::get<0>(key), std::get<1>(key), std::get<2>(key), {}};
         for (auto const& [minute, ratios] : minutes)
            if (ratios.average)
               port.samples.push_back({minute, *ratios.average, ratios.highest.value_or(*ratios.average)});
         for (std::size_t i = 1; i < port.samples.size(); ++i)
            shortest = std::min(shortest, port.samples[i].minute - port.samples[i - 1].minute);
         if (!port.samples.empty())
            trace.ports.push_back(std::move(port));
      }
      if (shortest != unknown)
         trace.interval = shortest;
      if (trace.ports.empty())
         throw TraceError(std::string(file_) + ": expected rows of average error ratios, got none in " +
                          std::to_string(lines_.number() - 1) + " rows (" + std::to_string(badRows_.count()) +
                          " could not be read)");
      return trace;
   }

   Lines lines_;
   std::string_view file_;
   BadRows& badRows_;
   std::vector<std::string_view> fields_;
   std::size_t fieldCount_ = 0;
   std::array<std::size_t, columnCount> columns_{};
   std::map<PortKey, std::map<std::int64_t, Ratios>> ports_;
};

} // namespace

std::string shown(std::string_view text) {
   std::string out;
   for (char const c : text.substr(0, 60))
      out += c >= 0x20 && c < 0x7f ? c : '.';
   return text.size() > 60 ? out + "..." : out;
}

void BadRows::add(std::size_t line, std::string_view reason) {
   ++count_;
   bool const continues = line == lastLine_ + 1 && reason == lastReason_;
   if (continues && !stretches_.empty() && stretches_.back().last == lastLine_)
      stretches_.back().last = line;
   else if (!continues && stretches_.size() < kept)
      stretches_.push_back({line, line, std::string(reason)});
   lastLine_ = line;
   lastReason_ = reason;
}

void BadRows::report(std::ostream& out, std::string_view file) const {
   if (count_ == 0)
      return;
   std::size_t named = 0;
   for (Stretch const& s : stretches_) {
      named += s.last - s.first + 1;
      out << file << ": line" << (s.first == s.last ? " " : "s ") << s.first;
      if (s.first != s.last)
         out << " to " << s.last;
      out << ": " << s.reason << '\n';
   }
   out << file << ": " << count_ << " bad row" << (count_ == 1 ? "" : "s") << " skipped";
   if (named < count_)
      out << ", " << count_ - named << " of them not listed";
   out << '\n';
}

Trace readTrace(std::istream& in, std::string_view file, BadRows& badRows) {
   return Reader(in, file, badRows).read();
}

Trace readTraceFile(std::string const& path, BadRows& badRows) {
   std::error_code error;
   auto const status = std::filesystem::status(path, error);
   if (!std::filesystem::is_regular_file(status))
      throw TraceError(path + ": expected a readable file, got " +
                       (!std::filesystem::status_known(status)  ? error.message()
                        : !std::filesystem::exists(status)      ? std::string("nothing of that name")
                        : std::filesystem::is_directory(status) ? std::string("a folder")
                                                                : std::string("a device or pipe")));
   errno = 0;
   std::ifstream in(path, std::ios::binary);
   if (!in)
      throw TraceError(path + ": expected a readable file, got " + std::strerror(errno));
   return readTrace(in, path, badRows);
}

} // namespace Job
