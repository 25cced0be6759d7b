// SPDX-License-Identifier: Apache-2.0
#include "run/Pipe.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Job {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

milliseconds until(Clock::time_point end) {
   return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(end - Clock::now()));
}

} // namespace

Pipe::~Pipe() {
   ::close(from_);
   ::close(to_);
}

bool Pipe::sendLine(std::string_view line) {
   std::string bytes(line);
   bytes += '\n';
   for (std::string_view left = bytes; !left.empty();) {
      ssize_t const n = ::write(to_, left.data(), left.size());
      if (n < 0 && errno != EINTR)
         return false;
      left.remove_prefix(n < 0 ? 0 : static_cast<std::size_t>(n));
   }
   return true;
}

bool Pipe::sendText(std::string_view text) {
   return sendLine(std::to_string(text.size())) && sendLine(text);
}

bool Pipe::fill(milliseconds timeout) {
   pollfd ready{from_, POLLIN, 0};
   if (ended_ || ::poll(&ready, 1, static_cast<int>(timeout.count())) <= 0)
      return false;
   char bytes[65536];
   ssize_t const n = ::read(from_, bytes, sizeof bytes);
   if (n > 0) {
      buffer_.append(bytes, static_cast<std::size_t>(n));
      received_ += static_cast<std::size_t>(n);
   } else if (n == 0 || errno != EINTR) {
      ended_ = true;
   }
   return n > 0;
}

std::optional<std::string> Pipe::line(milliseconds timeout) {
   auto const end = Clock::now() + timeout;
   std::size_t at;
   while ((at = buffer_.find('\n')) == std::string::npos)
      if (!fill(until(end)) && (ended_ || Clock::now() >= end))
         return std::nullopt;
   std::string line = buffer_.substr(0, at);
   buffer_.erase(0, at + 1);
   return line;
}

std::optional<std::string> Pipe::text(milliseconds timeout) {
   auto const end = Clock::now() + timeout;
   if (!textSize_) {
      auto const length = line(timeout);
      std::size_t size = 0;
      if (!length || std::from_chars(length->data(), length->data() + length->size(), size).ec != std::errc())
         return std::nullopt;
      textSize_ = size;
   }
   while (buffer_.size() < *textSize_ + 1)
      if (!fill(until(end)) && (ended_ || Clock::now() >= end))
         return std::nullopt;
   std::string text = buffer_.substr(0, *textSize_);
   buffer_.erase(0, *textSize_ + 1);
   textSize_.reset();
   return text;
}

Child::Child(std::vector<std::string> const& arguments) {
   int toChild[2], fromChild[2];
   if (::pipe2(toChild, O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "could not create a pipe");
   if (::pipe2(fromChild, O_CLOEXEC) != 0) {
      int const error = errno;
      ::close(toChild[0]);
      ::close(toChild[1]);
      throw std::system_error(error, std::generic_category(), "could not create a pipe");
   }
   std::vector<char*> argv;
   for (std::string const& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
   argv.push_back(nullptr);
   process_ = ::fork();
   if (process_ == 0) {
      ::dup2(toChild[0], STDIN_FILENO);
      ::dup2(fromChild[1], STDOUT_FILENO);
      ::execv("/proc/self/exe", argv.data());
      ::_exit(127);
   }
   int const error = errno;
   ::close(toChild[0]);
   ::close(fromChild[1]);
   pipe_.emplace(fromChild[0], toChild[1]);
   if (process_ < 0)
      throw std::system_error(error, std::generic_category(), "could not start a process");
}

Child::~Child() {
   if (!end()) {
      ::kill(process_, SIGKILL);
      int status;
      while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
      }
   }
}

std::optional<std::string> Child::end() {
   int status;
   if (!end_ && ::waitpid(process_, &status, WNOHANG) == process_) {
      if (WIFSIGNALED(status))
         end_ = "signal " + std::to_string(WTERMSIG(status)) + " (" + ::strsignal(WTERMSIG(status)) + ")";
      else
         end_ = "exit status " + std::to_string(WEXITSTATUS(status));
   }
   return end_;
}

std::optional<std::string> Child::end(milliseconds timeout) {
   for (auto const last = Clock::now() + timeout; !end() && Clock::now() < last;)
      std::this_thread::sleep_for(milliseconds(2));
   return end();
}

} // namespace Job
