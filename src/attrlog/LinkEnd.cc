// SPDX-License-Identifier: Apache-2.0
#include "attrlog/LinkEnd.h"

#include "core/Exceptions.h"
#include "core/Text.h"
#include "mox/MoxType.h"
#include "mox/Swallowed.h"

#include <algorithm>
#include <array>
#include <bit>
#include <random>

namespace Mox {

using namespace NboAttrLog;

namespace {

/// Adds up structs of nothing but numbers, whatever they are called.
template <class Number, class Struct> void addUp(Struct& sum, Struct const& other) noexcept {
   using Numbers = std::array<Number, sizeof(Struct) / sizeof(Number)>;
   static_assert(sizeof(Numbers) == sizeof(Struct));
   auto all = std::bit_cast<Numbers>(sum);
   auto const more = std::bit_cast<Numbers>(other);
   for (std::size_t i = 0; i < all.size(); ++i)
      all[i] += more[i];
   sum = std::bit_cast<Struct>(all);
}

bool isAtOrBelow(Entity const& entity, Entity const& top) noexcept {
   for (Entity const* e = &entity; e != nullptr; e = e->moxRawParent())
      if (e == &top)
         return true;
   return false;
}

/// Takes `text` for a reason; where there is no memory for it, that.
void keep(std::string& reason, std::string_view text) noexcept {
   try {
      reason = text;
   } catch (std::bad_alloc const&) {
      reason = "no memory"; // short enough to need none
   }
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

} // namespace

char const* textOf(LinkEnd::State state) noexcept {
   switch (state) {
   case LinkEnd::State::connecting:
      return "connecting";
   case LinkEnd::State::syncing:
      return "syncing";
   case LinkEnd::State::live:
      return "live";
   case LinkEnd::State::stale:
      return "stale";
   case LinkEnd::State::refused:
      return "refused";
   case LinkEnd::State::mismatch:
      return "mismatch";
   case LinkEnd::State::notExported:
      return "not exported there";
   }
   return "unknown";
}

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
   demuxer_.mismatchIs([this](Demuxer::Sa& sa, std::string const& reason) { mismatched(sa, reason); });
   demuxer_.limitReachedIs([this](Entity& root) { rootLimited(root); });
   demuxer_.rootRetiredIs([this](Entity& root) {
      for (Mount const& mount : mounts_)
         if (mount.mirror == &root) {
            mirrorEnds(mount.handle, State::stale, "its owner exports it no more");
            return;
         }
   });
}

LinkEnd::~LinkEnd() {
   // While everything is still here: reactors are told what is owed to them, and may call this end.
   demuxer_.end();
}

// Roots of this side ----------------------------------------------------------------------------------------------------

void LinkEnd::checkExport(Ptr<Entity> const& root) {
   ValidPtr<Entity> const valid(root);
   if (auto const* const operations = logOperationsOf(*root); operations == nullptr || operations->create == nullptr)
      throw TypeException(std::string(std::string_view(root->fullName())) + " can't be exported: " + textOfType(*root) +
                          " has no attribute log");
}

void LinkEnd::exportRoot(Ptr<Entity> const& root) {
   checkExport(root);
   if (!exports_.try_emplace(root->moxName(), root).second)
      throwNameInUseException("a root named " + std::string(quoted(root->moxName())) + " is exported already");
   for (Request& request : requests_)
      if (!request.root && request.name == root->moxName()) {
         request.refusal = Reason::none;
         request.owesAnswer = owesAnswers_ = true;
      }
}

void LinkEnd::exportDel(Ptr<Entity> const& given) {
   auto const at = given ? exports_.find(given->moxName()) : exports_.end();
   if (at == exports_.end() || at->second != given)
      return;
   Ptr<Entity> const root = at->second;
   // First what may fail: half of it would leave adapters that stand in the way of the next export.
   auto const gone = demuxer_.unannounced(*root);
   exports_.erase(at);
   for (Request& request : requests_)
      if (request.root == root) {
         request.root = nullptr;
         request.refusal = Reason::none;
         request.owesGone = owesAnswers_ = true;
         request.owesAnswer = false;
      } else if (request.name == root->moxName()) {
         request.refusal = Reason::none;
         request.waits = false;
         // Of a root that has ended and come again meanwhile, untold, the end is all that there is to tell.
         request.owesAnswer = !request.owesGone;
         owesAnswers_ = true;
      }
   announcedEnds();
}

/// A root has been taken out of the stream. With the last goes whatever else was announced.
void LinkEnd::announcedEnds() {
   if (std::none_of(requests_.begin(), requests_.end(), [](Request const& r) { return static_cast<bool>(r.root); }))
      demuxer_.forgetAnnounced();
}

void LinkEnd::rootLimited(Entity& root) {
   // Only noted: the stream is in the middle of telling it.
   for (Request& request : requests_)
      if (request.root == &root) {
         request.refusal = Reason::limit;
         request.owesAnswer = owesAnswers_ = true;
      }
}

// Roots of the peer -----------------------------------------------------------------------------------------------------

LinkEnd::Mount const* LinkEnd::findMount(Name const& name) const noexcept {
   auto const at = std::find_if(mounts_.begin(), mounts_.end(), [&](Mount const& m) { return m.name == name; });
   return at == mounts_.end() ? nullptr : &*at;
}

LinkEnd::Mount* LinkEnd::findMount(Name const& name) noexcept {
   return const_cast<Mount*>(std::as_const(*this).findMount(name));
}

LinkEnd::Mount* LinkEnd::findHandle(std::uint32_t handle) noexcept {
   auto const at = std::find_if(mounts_.begin(), mounts_.end(), [&](Mount const& m) { return m.handle == handle; });
   return at == mounts_.end() ? nullptr : &*at;
}

LinkEnd::Mount const& LinkEnd::mountOf(Name const& name) const {
   if (Mount const* const mount = findMount(name))
      return *mount;
   throwRangeException("no root named " + std::string(quoted(name)) + " is mounted");
}

std::size_t LinkEnd::mirrorCount() const noexcept {
   return static_cast<std::size_t>(
      std::count_if(mounts_.begin(), mounts_.end(), [](Mount const& m) { return static_cast<bool>(m.mirror); }));
}

void LinkEnd::mountIs(Ptr<Entity> const& mirror) {
   ValidPtr<Entity> const valid(mirror);
   if (logOperationsOf(*mirror) == nullptr)
      throw TypeException(std::string(std::string_view(mirror->fullName())) +
                          " can't be mounted: " + textOfType(*mirror) + " has no attribute log");
   if (findMount(valid->moxName()) != nullptr)
      throwNameInUseException("a root named " + std::string(quoted(valid->moxName())) + " is mounted already");
   auto const refuse = [&](std::string const& why) {
      throwNameInUseException(std::string(std::string_view(mirror->fullName())) + " can't be mounted from \"" + name_ +
                              "\": " + why + ", and an entity has one owner");
   };
   if (Demuxer::Sa const* const other = Demuxer::mirrorAround(*mirror))
      refuse(std::string(std::string_view(other->entity()->fullName())) + " mirrors \"" +
             other->streamDemuxer()->name() + "\" already");
   for (auto const& [name, root] : exports_)
      if (isAtOrBelow(*root, *mirror) || isAtOrBelow(*mirror, *root))
         refuse(std::string(std::string_view(root->fullName())) + " is exported there");
   if (Demuxer::Sa const* const told = demuxer_.adapterOf(*mirror); told != nullptr && !told->isOrphan())
      refuse("it has left an exported root, which still tells of it there");
   reserveMount();
   demuxer_.mirrorRootIs(*mirror);
   mounts_.push_back({++lastHandle_, mirror->moxName(), mirror, isConnected_ ? State::syncing : State::connecting, {}});
   remountEnded_ = false;
}

/// Room for one more, and for giving up each.
void LinkEnd::reserveMount() {
   auto const reserve = [](auto& list, std::size_t needed) {
      if (list.capacity() < needed)
         list.reserve(std::max(needed, 2 * list.capacity()));
   };
   reserve(mounts_, mounts_.size() + 1);
   reserve(unmounts_, unmounts_.size() + mounts_.size() + 1);
}

void LinkEnd::ask(Name const& root) {
   if (findMount(root) != nullptr)
      return;
   reserveMount();
   mounts_.push_back({++lastHandle_, root, nullptr, isConnected_ ? State::syncing : State::connecting, {}});
}

/// The peer is told that this side does not ask for it any more, if it has heard that it does.
void LinkEnd::withdraw(Mount const& mount) {
   if (isConnected_ && mount.isAsked)
      unmounts_.push_back(mount.handle);
}

void LinkEnd::unmount(Name const& name) {
   Mount* const at = findMount(name);
   if (at == nullptr)
      return;
   // First what may fail: half of it would leave a mirror that nobody has.
   std::vector<Mirror> gone;
   if (at->mirror)
      gone = demuxer_.mirrorsTaken(mirrorCount() == 1 ? nullptr : at->mirror.get());
   withdraw(*at);
   Mount const mount = std::move(*at);
   mounts_.erase(mounts_.begin() + (at - mounts_.data()));
   demuxer_.releaseAll(gone);
}

void LinkEnd::mountMove(Name const& root, LinkEnd& to) {
   Mount* const from = findMount(root);
   if (from == nullptr || !from->mirror || from->isOpen || &to == this)
      throwInternalException("root " + std::string(quoted(root)) + " can't be moved: no mirror of it waits here");
   to.ask(root);
   Ptr<Entity> const mirror = from->mirror;
   bool const isLast = std::none_of(mounts_.begin(), mounts_.end(), [](Mount const& m) { return m.isOpen; });
   demuxer_.moveMirrors(*mirror, isLast, to.demuxer_);
   from->mirror = nullptr;
   to.findMount(root)->mirror = mirror;
   to.remountEnded_ = false;
}

bool LinkEnd::isAnswered(Name const& root) const noexcept {
   Mount const* const mount = findMount(root);
   return mount != nullptr && mount->isAnswered;
}

bool LinkEnd::isOpen(Name const& root) const noexcept {
   Mount const* const mount = findMount(root);
   return mount != nullptr && mount->isOpen;
}

LinkEnd::State LinkEnd::state(Name const& root) const {
   return mountOf(root).state;
}

std::string const& LinkEnd::reason(Name const& root) const {
   return mountOf(root).reason;
}

/// Calls what the application gave. What it throws is no fault of the stream: it is reported behind the text that `what` makes.
template <class Call, class Text> void LinkEnd::told(Call call, Text what) const {
   try {
      call();
   } catch (std::exception const& e) {
      demuxer_.report([&] { return what() + ": " + e.what(); });
   } catch (...) {
      demuxer_.report([&] { return what() + ": an exception that is no std::exception"; });
   }
}

void LinkEnd::stateIs(Mount& mount, State state, std::string_view reason) {
   keep(mount.reason, reason);
   if (mount.state == state)
      return;
   mount.state = state;
   if (stateCall_) {
      Name const name = mount.name; // the call may unmount
      told([&] { stateCall_(name, state); },
           [&] { return "root " + std::string(quoted(name)) + ", told that it is " + textOf(state); });
   }
}

/// The owner tells the root no more. The mirror keeps what it has, and waits to be opened again.
void LinkEnd::mirrorEnds(std::uint32_t handle, State state, std::string reason) {
   Mount* at = findHandle(handle);
   // A refusal is the owner's last word: what waited since an earlier connection waits no more.
   if ((std::exchange(at->isOpen, false) || state == State::refused) && at->mirror) {
      Ptr<Entity> const mirror = at->mirror;
      demuxer_.forgetMirrors(mirror.get());
      // What went may have run reactors that unmounted the root.
      if (at = findHandle(handle); at == nullptr || at->mirror != mirror)
         return;
      demuxer_.mirrorRootIs(*mirror);
   }
   stateIs(*at, state, reason);
}

/// A root that its owner told no more, and for which there was no memory then to wait for the next opening, waits.
void LinkEnd::mirrorsMade() {
   for (Mount const& mount : mounts_)
      if (mount.mirror && demuxer_.adapterOf(*mount.mirror) == nullptr)
         demuxer_.mirrorRootIs(*mount.mirror);
}

/// The record in hand announces the root of `sa` as something that its mirror is not.
void LinkEnd::mismatched(Demuxer::Sa& sa, std::string const& reason) {
   for (Mount& mount : mounts_)
      if (mount.mirror == sa.entity()) {
         std::string const told = demuxer_.in()->where() + ": root " + std::string(quoted(mount.name)) + ": " + reason;
         stateIs(mount, State::mismatch, reason);
         demuxer_.report(told); // last: who is told may unmount
         return;
      }
}

// The carrier -----------------------------------------------------------------------------------------------------------

void LinkEnd::connected() {
   if (isConnected_) {
      peerGone("replaced by a new stream");
      if (mustEnd_) {
         mustConnect_ = true; // the record in hand is finished first
         return;
      }
      if (isConnected_)
         return; // who was told that the roots are stale has connected anew
   }
   mirrorsMade();
   failure_.clear();
   isConnected_ = true;
   remountEnded_ = false;
   peerApplied_ = 0;
   peerWindow_ = leastWindow;
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
      peerGone("no memory for the first frame"); // a stream without one would be no stream
      throw;
   }
   // Who is told may unmount, cut, or connect anew.
   for (std::size_t i = 0; i < mounts_.size() && isConnected_ && attempt_ == hello.attempt; ++i)
      stateIs(mounts_[i], State::syncing);
}

void LinkEnd::peerGone(std::string_view reason) {
   if (!isConnected_)
      return;
   if (isApplying_) {
      // A reactor cuts the branch that it sits on: the record in hand is finished first.
      mustEnd_ = true;
      keep(endReason_, reason);
      return;
   }
   std::string why;
   keep(why, reason);
   isConnected_ = isGreeted_ = owesAnswers_ = false;
   requests_.clear();
   overLimit_.clear();
   unmounts_.clear();
   for (Mount& mount : mounts_)
      mount.isAsked = mount.isAnswered = mount.isOpen = false;
   demuxer_.cut();
   try {
      mirrorsMade();
   } catch (std::bad_alloc const&) { // the next connection sees to it
   }
   for (std::size_t i = 0; i < mounts_.size() && !isConnected_; ++i) // who is told may connect anew
      stateIs(mounts_[i], State::stale, why);
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
         demuxer_.in()->queue(bytes); // behind the record in hand
      } catch (std::exception const& e) {
         peerGone(e.what());
      }
      return;
   }
   isApplying_ = true;
   std::uint64_t const swallowed = swallowedExceptions();
   try {
      // What is told behind the last record runs reactors too, which may hand in more.
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
         settleStates();
         demuxer_.identifiersSettled();
      } while (!mustEnd_ && demuxer_.in()->isQueued());
   } catch (std::exception const& e) {
      keep(failure_, e.what());
   } catch (...) {
      keep(failure_, "an exception that is no std::exception");
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

/// Does what had to wait until the frame in hand, or the answer, was finished.
void LinkEnd::endIfAsked() {
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
   settleControl(); // the drain may have come to a limit
   if (!isConnected_)
      return {};
   settleWaits();
   demuxer_.acknowledgeIfSent();
   return demuxer_.out()->pending();
}

/// Writes what is owed about roots, as far as the buffer has room: an answer before whatever follows from it.
void LinkEnd::settleControl() {
   if (isSettling_ || !isConnected_ || demuxer_.out()->isRecordOpen())
      return;
   // Who is told of something here may hand in bytes or cut: the lists stay as they are until then.
   bool const isOutermost = !isApplying_;
   isSettling_ = isApplying_ = true;
   try {
      settleMounts();
      settleAnswers();
   } catch (std::exception const& e) { // nothing else comes out of them
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

void LinkEnd::settleMounts() {
   Out& out = *demuxer_.out();
   // A name that is mounted anew has been given up before.
   for (; !unmounts_.empty() && out.hasSufficientBuffer(); unmounts_.erase(unmounts_.begin()))
      out.control(Unmount{unmounts_.front()});
   if (!unmounts_.empty())
      return;
   std::size_t open = 0;
   for (Mount const& mount : mounts_)
      open += mount.isAsked && !mount.isAnswered;
   for (std::size_t i = 0; i < mounts_.size() && open < peerWindow_ && out.hasSufficientBuffer(); ++i) {
      Mount& mount = mounts_[i];
      if (mount.isAsked)
         continue;
      mount.isAsked = true;
      try {
         out.control(NboAttrLog::Mount{mount.handle, MountMode::readOnly, std::string_view(mount.name)});
         open += !mount.isAnswered;
      } catch (std::bad_alloc const&) {
         mount.isAsked = false;
         throw;
      } catch (Exception const& e) {
         mount.isAnswered = true; // nobody else will
         stateIs(mount, State::refused, e.what());
      }
   }
}

void LinkEnd::settleAnswers() {
   Out const& out = *demuxer_.out();
   if (std::exchange(owesAnswers_, false)) {
      // By index: a report may bring about more.
      for (std::size_t i = 0; i < requests_.size(); ++i) {
         if (!out.hasSufficientBuffer()) {
            owesAnswers_ = true;
            return;
         }
         try {
            answer(requests_[i]);
         } catch (std::bad_alloc const&) {
            owesAnswers_ = true;
            throw;
         }
      }
   }
   std::size_t told = 0;
   for (; told < overLimit_.size() && out.hasSufficientBuffer(); ++told)
      demuxer_.out()->control(Mounted{overLimit_[told], MountState::refused, MountMode::readOnly, Reason::limit, {}});
   overLimit_.erase(overLimit_.begin(), overLimit_.begin() + static_cast<std::ptrdiff_t>(told));
}

/// Writes what `request` is owed.
void LinkEnd::answer(Request& request) {
   auto const say = [&](MountState state, Reason reason) {
      demuxer_.out()->control(Mounted{request.handle, state, MountMode::readOnly, reason, {}});
   };
   if (request.owesGone) {
      say(MountState::gone, Reason::gone);
      request.owesGone = false;
   }
   if (!request.owesAnswer)
      return;
   std::vector<Ptr<Entity>> gone;
   if (request.root) { // told so far
      gone = demuxer_.unannounced(*request.root);
      request.root = nullptr;
   }
   if (request.refusal != Reason::none) {
      say(MountState::refused, request.refusal);
      request.owesAnswer = false;
      announcedEnds();
      return;
   }
   if (auto const at = exports_.find(request.name); at != exports_.end()) {
      open(request, *at->second);
      return;
   }
   say(MountState::waiting, Reason::notExported);
   request.owesAnswer = false;
}

void LinkEnd::open(Request& request, Entity& entity) {
   Ptr<Entity> const root(&entity);
   Out& out = *demuxer_.out();
   std::uint32_t const handle = request.handle;
   auto const say = [&](MountState state, Reason reason, EntityId id = {}) {
      out.control(Mounted{handle, state, MountMode::readOnly, reason, id});
   };
   if (Demuxer::Sa const* const sa = demuxer_.adapterOf(entity);
       sa != nullptr && !sa->isOrphan() && !sa->isMadeInAdvance()) {
      say(MountState::refused, Reason::limit);
      request.refusal = Reason::limit;
      request.owesAnswer = false;
      return;
   }
   try {
      logOperationsOf(entity)->announceParameters(entity, demuxer_);
   } catch (NoEntityIdException const&) {
      // The peer has something to announce first.
      if (!std::exchange(request.waits, true))
         say(MountState::waiting, Reason::none);
      request.owesAnswer = false;
      return;
   } catch (std::bad_alloc const&) {
      throw;
   } catch (Exception const& e) {
      say(MountState::refused, Reason::limit);
      request.refusal = Reason::limit;
      request.owesAnswer = false;
      demuxer_.report([&] { return "root " + std::string(quoted(root->moxName())) + " can't be told: " + e.what(); });
      return;
   }
   bool isSaid = false;
   // The answer that is still owed takes out what was begun.
   auto const begun = [&] {
      Demuxer::Sa const* const sa = demuxer_.adapterOf(entity);
      request.root = sa != nullptr && sa->isRoot() ? root : nullptr;
      request.owesAnswer = true;
   };
   try {
      Ptr<Demuxer::Sa> const sa = demuxer_.rootIs(entity);
      say(MountState::open, Reason::none, sa->entityId());
      isSaid = true;
      request.root = root;
      request.owesAnswer = request.waits = false;
      demuxer_.announceRoot(*sa);
   } catch (std::bad_alloc const&) {
      begun();
      request.owesGone = isSaid;
      throw;
   } catch (Exception const& e) {
      begun();
      request.refusal = Reason::limit;
      answer(request);
      demuxer_.report([&] { return "root " + std::string(quoted(root->moxName())) + " can't be told: " + e.what(); });
   }
}

/// Each end may wait for what the other can't announce before this one has: two that stand still with every record applied would
/// stand for ever.
void LinkEnd::settleWaits() {
   if (!demuxer_.isWaiting())
      return;
   Standstill const now{demuxer_.applied(), demuxer_.out()->recordsWritten()};
   if (peers_ == now && demuxer_.waitsBroken()) {
      demuxer_.drain();
      return;
   }
   if (told_ == now || demuxer_.out()->hasPending())
      return;
   demuxer_.out()->control(Waiting{now.applied});
   told_ = now;
}

void LinkEnd::bytesSent(std::size_t n) {
   demuxer_.out()->sent(n);
}

std::size_t LinkEnd::owedAnswers() const noexcept {
   return overLimit_.size() +
          static_cast<std::size_t>(std::count_if(requests_.begin(), requests_.end(), [](Request const& r) {
             return r.owesGone || (r.owesAnswer && !r.waits);
          }));
}

bool LinkEnd::quiet() const noexcept {
   if (!isGreeted_ || demuxer_.owes() || demuxer_.owesAcknowledgement() || demuxer_.out()->hasPending())
      return false;
   if (owedAnswers() != 0 || !unmounts_.empty() ||
       !std::all_of(mounts_.begin(), mounts_.end(), [](Mount const& m) { return m.isAnswered; }))
      return false;
   return peerApplied_ == demuxer_.out()->recordsWritten() && demuxer_.in()->keptBytes() == 0;
}

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
   f.owedMounts = static_cast<std::size_t>(
      std::count_if(mounts_.begin(), mounts_.end(), [this](Mount const& m) { return isConnected_ && !m.isAsked; }));
   f.owedUnmounts = unmounts_.size();
   f.requests = requests_.size();
   f.owedAnswers = owedAnswers();
   f.owedRefusals = demuxer_.owedRefusals();
   f.controlBytes = demuxer_.out()->pendingControlBytes();
   return f;
}

std::size_t LinkEnd::auditErrors() const {
   std::size_t errors = 0;
   auto const expect = [&](bool holds) { errors += !holds; };
   auto const areDistinct = [](auto const& list, auto const& keyOf) {
      for (auto a = list.begin(); a != list.end(); ++a)
         for (auto b = list.begin(); b != a; ++b)
            if (keyOf(*a) == keyOf(*b))
               return false;
      return true;
   };
   for (auto const& [name, root] : exports_)
      expect(root->moxName() == name);
   expect(areDistinct(mounts_, [](Mount const& m) { return m.handle; }));
   expect(areDistinct(mounts_, [](Mount const& m) { return m.name; }));
   expect(areDistinct(requests_, [](Request const& r) { return r.handle; }));
   expect(areDistinct(requests_, [](Request const& r) { return r.name; }));
   for (Mount const& mount : mounts_) {
      Demuxer::Sa const* const sa = mount.mirror ? demuxer_.adapterOf(*mount.mirror) : nullptr;
      expect(!mount.mirror || (sa != nullptr && sa->isMirror() && sa->isRoot()));
      expect(isConnected_ || !(mount.isAsked || mount.isAnswered || mount.isOpen));
   }
   for (Request const& request : requests_) {
      Demuxer::Sa const* const sa = request.root ? demuxer_.adapterOf(*request.root) : nullptr;
      expect(!request.root || (sa != nullptr && !sa->isMirror() && sa->isRoot()));
      expect(owesAnswers_ || !(request.owesGone || request.owesAnswer));
   }
   expect(isConnected_ || (requests_.empty() && overLimit_.empty() && unmounts_.empty()));
   expect(requests_.size() <= mostRequests && owedAnswers() <= requestWindow);
   expect(demuxer_.owedRefusals() <= requestWindow);
   return errors + demuxer_.auditErrors();
}

// What the peer says ----------------------------------------------------------------------------------------------------

void LinkEnd::on(Hello const& hello) {
   isGreeted_ = true;
   peerName_ = hello.name;
   demuxer_.peerNameIs(hello.name);
   peerIncarnation_ = hello.incarnation;
   peerWindow_ = std::max(leastWindow, hello.window);
   demuxer_.out()->peerMaximumFrameIs(hello.maximumFrame);
   demuxer_.peerHighestSlotIs(std::min(hello.highestSlot, Demuxer::highestSlot));
}

void LinkEnd::on(Acknowledgement const& ack) {
   peerApplied_ = checkedCount(ack.count, "acknowledges ");
}

void LinkEnd::on(Waiting const& waiting) {
   peers_ = {demuxer_.applied(), checkedCount(waiting.count, "waits with a count of ")};
}

/// What the peer says that it has applied. \throws ProtocolException where that can't be
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
                              (refused.text.empty() ? textOf(refused.reason) : std::string(quoted(refused.text))));
   demuxer_.report(demuxer_.in()->where() + ": the peer refused record " + std::to_string(refused.number) + ": " +
                   textOf(refused.reason) + (refused.text.empty() ? "" : ", " + std::string(quoted(refused.text))));
}

void LinkEnd::on(NboAttrLog::Mount const& mount) {
   if (owedAnswers() == requestWindow)
      throw ProtocolException(demuxer_.in()->where() + ": expected at most " + std::to_string(requestWindow) +
                              " mounts without an answer");
   Name const name(mount.name);
   bool const isKnown = std::any_of(requests_.begin(), requests_.end(),
                                    [&](Request const& r) { return r.handle == mount.handle || r.name == name; });
   if (isKnown || requests_.size() == mostRequests || mount.name.size() > longestName) {
      overLimit_.push_back(mount.handle);
   } else {
      requests_.push_back({mount.handle, name, nullptr});
      owesAnswers_ = true;
   }
}

void LinkEnd::on(Unmount const& unmount) {
   auto const at =
      std::find_if(requests_.begin(), requests_.end(), [&](Request const& r) { return r.handle == unmount.handle; });
   if (at == requests_.end())
      return;
   Ptr<Entity> const root = at->root;
   requests_.erase(at);
   if (root) {
      auto const gone = demuxer_.unannounced(*root);
      announcedEnds();
   }
}

void LinkEnd::on(Mounted const& mounted) {
   Mount* at = findHandle(mounted.handle);
   if (at == nullptr)
      return; // unmounted meanwhile
   at->isAnswered = true;
   switch (mounted.state) {
   case MountState::refused:
      mirrorEnds(mounted.handle, State::refused, "the owner refuses it: " + textOf(mounted.reason));
      break;
   case MountState::waiting:
      if (mounted.reason == Reason::notExported)
         stateIs(*at, State::notExported, "the peer exports no root of that name");
      else
         stateIs(*at, State::syncing);
      break;
   case MountState::open: {
      if (openingCall_ && !at->isOpen) {
         Name const name = at->name;
         bool isHere = false;
         told([&] { isHere = openingCall_(name); },
              [&] { return "root " + std::string(quoted(name)) + ", told that the peer opens it"; });
         if (at = findHandle(mounted.handle); at == nullptr)
            break;
         if (!isHere || !at->mirror) {
            unmount(name);
            break;
         }
      }
      if (!at->mirror)
         break;
      at->isOpen = true;
      remountEnded_ = false; // it may have waited since an earlier opening
      Ptr<Entity> const mirror = at->mirror;
      demuxer_.bind(mounted.entity, *mirror);
      if (at = findHandle(mounted.handle); at != nullptr)
         stateIs(*at, State::syncing);
      break;
   }
   case MountState::gone:
      mirrorEnds(mounted.handle, State::stale, "its owner exports it no more");
      break;
   }
}

void LinkEnd::on(Retire const& retire) {
   demuxer_.retired(retire.entity);
}

void LinkEnd::on(Refresh const& refresh) {
   demuxer_.refresh(refresh.entity, refresh.attribute, refresh.key);
}

void LinkEnd::on(Ping const& ping) {
   demuxer_.out()->control(Pong{ping.token});
}

void LinkEnd::settleStates() {
   for (Request& request : requests_)
      if (request.waits && !request.root)
         request.owesAnswer = owesAnswers_ = true;
   if (!demuxer_.isSynced())
      return;
   bool areAnswered = true;
   for (std::size_t i = 0; i < mounts_.size(); ++i) {
      areAnswered = areAnswered && (mounts_[i].isAnswered || !mounts_[i].mirror);
      if (mounts_[i].isOpen && mounts_[i].state == State::syncing)
         stateIs(mounts_[i], State::live);
   }
   if (areAnswered && !remountEnded_) {
      remountEnded_ = true;
      demuxer_.remountEnded();
   }
}

} // namespace Mox
