// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace Job {

/// What the two processes say to each other beside the link: how far they are, and at the end what they hold. It
/// carries lines, and texts whose length is sent in a line before them.
class Pipe {
public:
   /// Takes over the descriptors: one to read from, one to write to.
   Pipe(int from, int to) noexcept : from_(from), to_(to) {}
   ~Pipe();
   Pipe(Pipe const&) = delete;
   Pipe& operator=(Pipe const&) = delete;

   /// False where the other side has gone.
   bool sendLine(std::string_view line);
   bool sendText(std::string_view text);
   /// The next line, if it is there within `timeout`.
   std::optional<std::string> line(std::chrono::milliseconds timeout);
   /// A text sent by `sendText`; nothing where it isn't whole within `timeout`. What has come of it is kept for the
   /// next call.
   std::optional<std::string> text(std::chrono::milliseconds timeout);
   /// Bytes that have come so far.
   std::size_t received() const noexcept { return received_; }
   /// Whether the other side has closed and everything was read.
   bool ended() const noexcept { return ended_ && buffer_.empty(); }

private:
   bool fill(std::chrono::milliseconds timeout);

   int from_;
   int to_;
   std::string buffer_;
   std::optional<std::size_t> textSize_; ///< of the text that has begun to come
   std::size_t received_ = 0;
   bool ended_ = false;
};

/// A process started from this program's own file, with a pipe to its standard input and from its standard output.
class Child {
public:
   /// \throws std::system_error
   explicit Child(std::vector<std::string> const& arguments);
   /// Kills it, if it still runs, and waits for its end.
   ~Child();
   Child(Child const&) = delete;
   Child& operator=(Child const&) = delete;

   Pipe& pipe() noexcept { return *pipe_; }
   pid_t process() const noexcept { return process_; }
   /// How it ended ("exit status 3", "signal 9 (Killed)"), once it has.
   std::optional<std::string> end();
   /// Waits for the end for a while; then as `end`.
   std::optional<std::string> end(std::chrono::milliseconds timeout);

private:
   pid_t process_;
   std::optional<Pipe> pipe_;
   std::optional<std::string> end_;
};

} // namespace Job
