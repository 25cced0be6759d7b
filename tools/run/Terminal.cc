// SPDX-License-Identifier: Apache-2.0
#include "run/Terminal.h"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <iostream>

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Job {

Terminal Terminal::of(int descriptor) {
   // Only the character set: numbers keep their decimal point.
   std::setlocale(LC_CTYPE, "");
   Terminal t;
   char const* const kind = std::getenv("TERM");
   char const* const plain = std::getenv("NO_COLOR");
   // A terminal that can't go back to the start of its line is treated as a file.
   t.isTerminal = ::isatty(descriptor) == 1 && (kind == nullptr || std::string_view(kind) != "dumb");
   t.hasColour = t.isTerminal && (plain == nullptr || *plain == '\0');
   t.isUtf8 = std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
   winsize size{};
   if (t.isTerminal && ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
      t.columns = size.ws_col;
   return t;
}

void ProgressLine::show(double share, std::string_view text) {
   using namespace std::chrono_literals;
   auto const now = Clock::now();
   if (!terminal_.isTerminal || (isShown_ && now - last_ < 100ms))
      return;
   last_ = now;
   isShown_ = true;
   constexpr unsigned width = 16; // leaves 80 columns room for all that there is to say
   auto const full = static_cast<unsigned>(std::lround(std::clamp(share, 0.0, 1.0) * width));
   std::string line = "\r ";
   for (unsigned i = 0; i < width; ++i)
      line += terminal_.isUtf8 ? (i < full ? "\u2501" : "\u2500") : i < full ? "#" : "-";
   line += "  ";
   // The last column stays free: a cursor behind it would go to the next line.
   std::size_t const room = terminal_.columns > width + 4 ? terminal_.columns - width - 4 : 0;
   while (text.size() > room)
      text = text.substr(0, std::min(text.rfind(", "), text.size() - 1));
   line += text;
   line += "\x1b[K";
   std::cerr << line << std::flush;
}

void ProgressLine::clear() {
   if (isShown_)
      std::cerr << "\r\x1b[K" << std::flush;
   isShown_ = false;
}

} // namespace Job
