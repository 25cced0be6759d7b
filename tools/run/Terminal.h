// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace Job {

/// What stands behind a descriptor of this process, as far as a text for people must know it.
struct Terminal {
   bool isTerminal = false;
   bool hasColour = false; ///< a terminal, and nobody has set NO_COLOR
   bool isUtf8 = false;    ///< by the locale
   unsigned columns = 80;

   /// Reads the environment's locale.
   static Terminal of(int descriptor);
};

/// One line on standard error that is written anew in place; nothing where that is no terminal.
class ProgressLine {
public:
   explicit ProgressLine(Terminal const& terminal) : terminal_(terminal) {}
   ~ProgressLine() { clear(); }
   ProgressLine(ProgressLine const&) = delete;
   ProgressLine& operator=(ProgressLine const&) = delete;

   /// Shows a bar with a text after it. Where the terminal is narrow, parts of the text between commas are left out
   /// from its end. Writes at most ten times in a second, however often it is called.
   /// \param share done, from 0 to 1
   void show(double share, std::string_view text);
   /// Takes the line away, so that something else can be printed.
   void clear();

private:
   using Clock = std::chrono::steady_clock;

   Terminal terminal_;
   Clock::time_point last_{};
   bool isShown_ = false;
};

} // namespace Job
