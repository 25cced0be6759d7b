// SPDX-License-Identifier: Apache-2.0
#include "kestrel/net/SocketLoop.h"

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/core/Exceptions.h"

#include <asio/io_context.hpp>

#include <algorithm>

namespace Mox {

SocketLoop::SocketLoop() : context_(std::make_unique<asio::io_context>(1)) {}

SocketLoop::~SocketLoop() = default;

bool SocketLoop::pollOnce(Milliseconds timeout) {
   if (polling_)
      throwInternalException("pollOnce called from inside a poll");
   struct Polling {
      bool& flag;
      explicit Polling(bool& f) : flag(f) { flag = true; }
      ~Polling() { flag = false; }
   } const polling(polling_);

   flush();
   context_->restart();
   // A peer that sends without pause must not keep this call from returning.
   constexpr unsigned most = 64;
   bool const waits = timeout > Milliseconds(0);
   bool const happened = (waits ? context_->run_one_for(std::min(timeout, longest)) : context_->poll_one()) > 0;
   if (happened)
      for (unsigned handled = 1; handled < most && (!waits || mayHaveMore()); ++handled)
         if (context_->poll_one() == 0)
            break;
   flush();
   return happened;
}

bool SocketLoop::waitUntil(std::function<bool()> const& done, Milliseconds timeout) {
   using Clock = std::chrono::steady_clock;
   auto const end = Clock::now() + std::clamp(timeout, Milliseconds(0), longest);
   while (!done()) {
      auto const left = std::chrono::ceil<Milliseconds>(end - Clock::now());
      if (left <= Milliseconds(0))
         return false;
      if (!pollOnce(left) && context_->stopped())
         return done();
   }
   return true;
}

void SocketLoop::tell(PeerEvent const& event) const {
   if (told_)
      told_(event);
}

Traffic SocketLoop::trafficOf(LinkEnd const& end) noexcept {
   auto const& demuxer = end.demuxer();
   return {demuxer.out()->recordsWritten(), demuxer.applied(), demuxer.out()->bytesSent()};
}

} // namespace Mox
