// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/LinkEnd.h"

#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"
#include "kestrel/mox/MoxType.h"
#include "kestrel/mox/Swallowed.h"

#include <algorithm>
#include <array>
#include <bit>
#include <new>
#include <random>

namespace Mox {

using namespace NboAttrLog;

namespace {

/// Adds up structs that hold nothing but numbers, without naming their fields.
template <class Number, class Struct> void addUp(Struct& sum, Struct const& other) noexcept {
   using Numbers = std::array<Number, sizeof(Struct) / sizeof(Number)>;
   static_assert(sizeof(Numbers) == sizeof(Struct));
   auto all = std::bit_cast<Numbers>(sum);
   auto const more = std::bit_cast<Numbers>(other);
   for (std::size_t i = 0; i < all.size(); ++i)
      all[i] += more[i];
   sum = std::bit_cast<Struct>(all);
}

std::string_view checkedName(std::string_view name) {
   if (name.size() > LinkEnd::longestEndName)
      throwRangeException("the name of a link end: expected at most " + std::to_string(LinkEnd::longestEndName) +
                          " bytes, got " + std::to_string(name.size()));
   return name;
}

std::string textOfType(Entity const& entity) {
   return std::string(std::string_view(entity.fwkType()->name()));
}

std::string pathOf(Entity const& entity) {
   return std::string(std::string_view(entity.fullName()));
}

} // namespace

U64 LinkEnd::processIncarnation() {
   static U64 const incarnation = [] {
      std::random_device device;
      return U64{device()} << 32 | device() | 1;
   }();
   return incarnation;
}

LinkEnd::LinkEnd(std::string_view name, U64 incarnation)
   : name_(checkedName(name)),
     incarnation_(incarnation != 0 ? incarnation : processIncarnation()),
     demuxer_(std::string(name)) {
   demuxer_.mismatchIs([this](Demuxer::Sa& sa, std::string const& reason) { mounts_.mismatched(sa, reason); });
   demuxer_.limitReachedIs([this](Entity& root) { exports_.limitReached(root); });
   demuxer_.rootRetiredIs([this](Entity& root) { mounts_.retired(root); });
}

LinkEnd::~LinkEnd() {
   // Reactors are told here what is owed to them. They may call this end, so all its members must still be there.
   demuxer_.end();
}

// Roots -----------------------------------------------------------------------------------------------------------------

void LinkEnd::checkExport(Ptr<Entity> const& root) {
   ValidPtr<Entity> const valid(root);
   if (auto const* const operations = logOperationsOf(*root); operations == nullptr || operations->create == nullptr)
      throw TypeException(pathOf(*root) + " can't be exported: " + textOfType(*root) + " has no attribute log");
}

void LinkEnd::exportRoot(Ptr<Entity> const& root) {
   checkExport(root);
   exports_.add(root);
}

void LinkEnd::exportDel(Ptr<Entity> const& root) {
   exports_.remove(root);
}

void LinkEnd::mountIs(Ptr<Entity> const& mirror) {
   ValidPtr<Entity> const valid(mirror);
   if (logOperationsOf(*mirror) == nullptr)
      throw TypeException(pathOf(*mirror) + " can't be mounted: " + textOfType(*mirror) + " has no attribute log");
   if (mounts_.has(valid->moxName()))
      throwNameInUseException("a root named " + quoted(valid->moxName()) + " is mounted already");
   auto const refuse = [&](std::string const& why) {
      throwNameInUseException(pathOf(*mirror) + " can't be mounted from \"" + name_ + "\": " + why +
                              ", and an entity has one owner");
   };
   if (Demuxer::Sa const* const other = Demuxer::mirrorAround(*mirror))
      refuse(pathOf(*other->entity()) + " mirrors \"" + other->streamDemuxer()->name() + "\" already");
   if (Entity const* const root = exports_.rootAround(*mirror))
      refuse(pathOf(*root) + " is exported there");
   if (Demuxer::Sa const* const told = demuxer_.adapterOf(*mirror); told != nullptr && !told->isOrphan())
      refuse("it has left an exported root, which still tells of it there");
   mounts_.add(mirror);
}

void LinkEnd::unmount(Name const& name) {
   mounts_.remove(name);
}

// The carrier -----------------------------------------------------------------------------------------------------------

void LinkEnd::connected() {
   if (isConnected_) {
      peerGone("replaced by a new stream");
      if (mustEnd_) {
         mustConnect_ = true; // The frame in hand is finished first.
         return;
      }
      if (isConnected_)
         return; // The application was told that the roots are stale, and has connected anew from there.
   }
   mounts_.restoreMirrors();
   failure_.clear();
   isConnected_ = true;
   mounts_.connectionBegan();
   peerApplied_ = 0;
   told_ = peers_ = {};
   Hello hello;
   hello.incarnation = incarnation_;
   hello.attempt = ++attempt_;
   hello.maximumFrame = demuxer_.in()->maximumFrame();
   hello.highestSlot = Demuxer::highestSlot;
   hello.window = requestWindow;
   hello.name = name_;
   demuxer_.opened();
   try {
      demuxer_.out()->control(hello);
   } catch (...) {
      peerGone("no memory for the first frame"); // Without a hello the stream can't begin.
      throw;
   }
   // Who is told may cut or connect anew, and then the rest is told elsewhere.
   mounts_.changeAll(State::syncing, {}, [&] { return isConnected_ && attempt_ == hello.attempt; });
}

void LinkEnd::peerGone(std::string_view reason) {
   if (!isConnected_)
      return;
   if (isApplying_) {
      // A reactor ends the very stream whose record it is told of. That record is finished first.
      mustEnd_ = true;
      keepReason(endReason_, reason);
      return;
   }
   std::string why; // A copy, because `reason` may lie in what the calls below change.
   keepReason(why, reason);
   isConnected_ = isGreeted_ = false;
   exports_.connectionEnded();
   mounts_.connectionEnded();
   demuxer_.cut();
   try {
      mounts_.restoreMirrors();
   } catch (std::bad_alloc const&) { // The next connection does it.
   }
   // Who is told may connect anew, and then the rest is not stale.
   mounts_.changeAll(State::stale, why, [this] { return !isConnected_; });
}

std::vector<std::uint8_t> LinkEnd::refusal(std::string_view name, std::string_view why) {
   auto const out = make<Out>(std::string(name));
   Hello hello;
   hello.incarnation = processIncarnation();
   hello.name = name;
   out->control(hello);
   out->control(Refused{0, Reason::none, why});
   auto const bytes = out->pending();
   return {bytes.begin(), bytes.end()};
}

void LinkEnd::bytesArrived(std::span<std::uint8_t const> bytes) noexcept {
   if (!isConnected_ || mustEnd_)
      return;
   if (isApplying_) {
      try {
         demuxer_.in()->queue(bytes); // They are applied behind the frame in hand.
      } catch (std::exception const& e) {
         peerGone(e.what());
      }
      return;
   }
   isApplying_ = true;
   std::uint64_t const swallowed = swallowedExceptions();
   try {
      // What is told behind the last frame runs reactors too, and these may hand in more bytes.
      do {
         demuxer_.in()->consume(std::exchange(bytes, {}), [this](In& in) {
            if (mustEnd_)
               return;
            if (!in.isControl()) {
               demuxer_.record(in);
            } else {
               demuxer_.recordsEnd();
               in.dispatchControl([this](auto const& control) { on(control); });
            }
         });
         demuxer_.recordsEnd();
         exports_.retryDeferred();
         mounts_.finishSync();
         demuxer_.settleIdentifiers();
      } while (!mustEnd_ && demuxer_.in()->isQueued());
   } catch (std::exception const& e) {
      keepReason(failure_, e.what());
   } catch (...) {
      keepReason(failure_, "an exception that is no std::exception");
   }
   demuxer_.recordsEnd();
   isApplying_ = false;
   if (std::uint64_t const more = swallowedExceptions() - swallowed; more != 0)
      demuxer_.report([&] {
         return "stream " + quoted(name_) + ": while what arrived was applied, reactors threw " + std::to_string(more) +
                " exceptions; the last: " + lastSwallowedException();
      });
   endIfAsked();
}

/// Ends the stream, or replaces it by a new one, where that was put off until the frame in hand or the answer was finished.
void LinkEnd::endIfAsked() {
   if (failure_.empty() && !demuxer_.internalFailure().empty())
      keepReason(failure_, demuxer_.internalFailure());
   if (!failure_.empty())
      peerGone(failure_);
   else if (std::exchange(mustEnd_, false))
      peerGone(std::exchange(endReason_, {}));
   mustEnd_ = false;
   if (std::exchange(mustConnect_, false) && !isConnected_)
      connected();
}

std::span<std::uint8_t const> LinkEnd::bytesToSend() {
   if (!isConnected_ || mustEnd_)
      return {};
   settleControl();
   demuxer_.drain();
   settleControl(); // The drain may have met a root for which the peer takes too few identifiers.
   if (!demuxer_.internalFailure().empty())
      endIfAsked();
   if (!isConnected_)
      return {};
   try {
      settleWaits();
      demuxer_.acknowledgeIfSent();
   } catch (std::bad_alloc const& e) {
      demuxer_.report([&] { return "stream " + quoted(name_) + ": the next acknowledgement waits: " + e.what(); });
   }
   return demuxer_.out()->pending();
}

void LinkEnd::bytesSent(std::size_t n) {
   demuxer_.out()->sent(n);
}

/// Writes what is owed about roots, as far as the buffer has room: an answer before what follows from it.
void LinkEnd::settleControl() {
   if (isSettling_ || !isConnected_ || demuxer_.out()->isRecordOpen())
      return;
   // Who is told of something here may hand in bytes or end the stream. Both are put off until the tables are no longer walked.
   bool const isOutermost = !isApplying_;
   isSettling_ = isApplying_ = true;
   try {
      mounts_.writeOwed();
      exports_.writeOwed();
   } catch (std::exception const& e) { // Only a lack of memory comes here.
      demuxer_.report([&] { return "stream " + quoted(name_) + ": the next answer to a mount waits: " + e.what(); });
   }
   isSettling_ = false;
   if (!isOutermost)
      return;
   isApplying_ = false;
   if (demuxer_.in()->isQueued())
      bytesArrived({});
   else
      endIfAsked();
}

/// Each end may owe references to what the other can't announce before this one has announced something: two ends that have
/// applied every record and owe nothing else would stand still for ever. So an end says when it comes to such a standstill, and
/// where the peer has come to the same one, the mirrors that it waits for are released.
void LinkEnd::settleWaits() {
   while (demuxer_.isWaiting()) {
      Standstill const now{demuxer_.applied(), demuxer_.out()->recordsWritten()};
      if (peers_ == now && demuxer_.breakDeadlock()) {
         demuxer_.drain(); // which may write nothing but come upon the next mirror that it waits for
         continue;
      }
      if (told_ != now && !demuxer_.out()->hasPending()) {
         demuxer_.out()->control(Waiting{now.applied});
         told_ = now;
      }
      return;
   }
}

bool LinkEnd::quiet() const noexcept {
   if (!isGreeted_ || demuxer_.owes() || demuxer_.owesAcknowledgement() || demuxer_.out()->hasPending())
      return false;
   if (exports_.owedAnswers() != 0 || !mounts_.isSettled())
      return false;
   return peerApplied_ == demuxer_.out()->recordsWritten() && demuxer_.in()->keptBytes() == 0;
}

// What the peer says ----------------------------------------------------------------------------------------------------

void LinkEnd::on(Hello const& hello) {
   isGreeted_ = true;
   peerName_ = hello.name;
   demuxer_.peerNameIs(hello.name);
   peerIncarnation_ = hello.incarnation;
   mounts_.windowIs(hello.window);
   demuxer_.out()->peerMaximumFrameIs(hello.maximumFrame);
   demuxer_.peerHighestSlotIs(std::min(hello.highestSlot, Demuxer::highestSlot));
}

void LinkEnd::on(Acknowledgement const& ack) {
   peerApplied_ = checkedCount(ack.count, "acknowledges ");
}

void LinkEnd::on(Waiting const& waiting) {
   peers_ = {demuxer_.applied(), checkedCount(waiting.count, "waits with a count of ")};
}

/// The number of records that the peer says it has applied. \throws ProtocolException where it can't have applied so many or so few
U64 LinkEnd::checkedCount(U64 count, char const* what) const {
   U64 const written = demuxer_.out()->recordsWritten();
   if (count > written || count < peerApplied_)
      throw ProtocolException(demuxer_.in()->where() + ": " + what + std::to_string(count) + ", expected " +
                              std::to_string(peerApplied_) + " to " + std::to_string(written));
   return count;
}

void LinkEnd::on(Refused const& refused) {
   if (refused.number == 0)
      throw ProtocolException("refused by the peer: " +
                              (refused.text.empty() ? textOf(refused.reason) : quoted(refused.text)));
   demuxer_.report(demuxer_.in()->where() + ": the peer refused record " + std::to_string(refused.number) + ": " +
                   textOf(refused.reason) + (refused.text.empty() ? "" : ", " + quoted(refused.text)));
}

void LinkEnd::on(Ping const& ping) {
   demuxer_.out()->control(Pong{ping.token});
}

// What the end holds ----------------------------------------------------------------------------------------------------

LinkEnd::Footprint& LinkEnd::Footprint::operator+=(Footprint const& other) noexcept {
   addUp<std::size_t>(*this, other);
   return *this;
}

Demuxer::Counters& NboAttrLog::operator+=(Demuxer::Counters& sum, Demuxer::Counters const& other) noexcept {
   addUp<U64>(sum, other);
   return sum;
}

LinkEnd::Footprint LinkEnd::footprint() const {
   Footprint f;
   f.stream = demuxer_.footprint();
   f.mounts = mounts_.size();
   f.owedMounts = mounts_.owedMounts();
   f.owedUnmounts = mounts_.owedUnmounts();
   f.requests = exports_.requests();
   f.owedAnswers = exports_.owedAnswers();
   f.owedRefusals = demuxer_.owedRefusals();
   f.controlBytes = demuxer_.out()->pendingControlBytes();
   return f;
}

std::size_t LinkEnd::auditErrors() const {
   std::size_t errors = 0;
   auto const expect = [&](bool holds) { errors += !holds; };
   expect(mounts_.audit().empty());
   expect(exports_.audit().empty());
   expect(isConnected_ == demuxer_.isOpen());
   expect(demuxer_.owedRefusals() <= requestWindow);
   return errors + demuxer_.auditErrors();
}

} // namespace Mox
