#include "attrlog/LinkEnd.h"

#include "core/Exceptions.h"
#include "core/Text.h"
#include "mox/MoxType.h"

#include <algorithm>
#include <random>

namespace Mox {

using namespace NboAttrLog;

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
   : name_(name), incarnation_(incarnation != 0 ? incarnation : processIncarnation()), demuxer_(std::string(name)) {
   demuxer_.mismatchIs([this](Demuxer::Sa& sa) {
      for (Mount& mount : mounts_)
         if (mount.mirror == sa.entity())
            stateIs(mount, State::mismatch);
   });
}

LinkEnd::~LinkEnd() = default;

void LinkEnd::exportRoot(Ptr<Entity> const& root) {
   ValidPtr<Entity> const valid(root);
   if (auto const* const operations = logOperationsOf(*root); operations == nullptr || operations->create == nullptr)
      throw TypeException(std::string(std::string_view(root->fullName())) + " can't be exported: " +
                          std::string(std::string_view(root->fwkType()->name())) + " has no attribute log");
   for (Ptr<Entity> const& other : exports_)
      if (other->moxName() == valid->moxName())
         throwNameInUseException("a root named " + std::string(quoted(valid->moxName())) + " is exported already");
   exports_.push_back(root);
   for (Request& request : requests_)
      if (!request.root && request.name == root->moxName())
         answer(request);
}

void LinkEnd::exportDel(Ptr<Entity> const& root) {
   if (std::erase(exports_, root) == 0)
      return;
   for (Request& request : requests_)
      if (request.root == root) {
         demuxer_.out()->control(Mounted{request.handle, MountState::gone, MountMode::readOnly, Reason::gone, {}});
         request.root = nullptr;
      }
   demuxer_.reidentify(*root);
   if (std::none_of(requests_.begin(), requests_.end(), [](Request const& r) { return static_cast<bool>(r.root); }))
      demuxer_.forgetAnnounced();
}

namespace {

bool isAtOrBelow(Entity const& entity, Entity const& top) noexcept {
   for (Entity const* e = &entity; e != nullptr; e = e->moxRawParent())
      if (e == &top)
         return true;
   return false;
}

} // namespace

void LinkEnd::mountIs(Ptr<Entity> const& mirror) {
   ValidPtr<Entity> const valid(mirror);
   for (Mount const& other : mounts_)
      if (other.mirror->moxName() == valid->moxName())
         throwNameInUseException("a root named " + std::string(quoted(valid->moxName())) + " is mounted already");
   auto const refuse = [&](std::string const& why) {
      throwNameInUseException(std::string(std::string_view(mirror->fullName())) + " can't be mounted from \"" + name_ +
                              "\": " + why + ", and an entity has one owner");
   };
   if (Demuxer::Sa const* const other = Demuxer::mirrorAround(*mirror))
      refuse(std::string(std::string_view(other->entity()->fullName())) + " mirrors \"" +
             other->streamDemuxer()->name() + "\" already");
   for (Ptr<Entity> const& root : exports_)
      if (isAtOrBelow(*root, *mirror) || isAtOrBelow(*mirror, *root))
         refuse(std::string(std::string_view(root->fullName())) + " is exported there");
   demuxer_.mirrorRootIs(*mirror);
   mounts_.push_back({++lastHandle_, mirror, isConnected_ ? State::syncing : State::connecting});
   if (isConnected_)
      demuxer_.out()->control(NboAttrLog::Mount{lastHandle_, MountMode::readOnly, std::string_view(mirror->moxName())});
   remountEnded_ = false;
}

void LinkEnd::unmount(Name const& name) {
   auto const at =
      std::find_if(mounts_.begin(), mounts_.end(), [&](Mount const& m) { return m.mirror->moxName() == name; });
   if (at == mounts_.end())
      return;
   Mount const mount = std::move(*at);
   mounts_.erase(at);
   if (isConnected_)
      demuxer_.out()->control(Unmount{mount.handle});
   demuxer_.forgetMirrors(mounts_.empty() ? nullptr : mount.mirror.get());
}

LinkEnd::State LinkEnd::state(Name const& root) const {
   for (Mount const& mount : mounts_)
      if (mount.mirror->moxName() == root)
         return mount.state;
   throwRangeException("no root named " + std::string(quoted(root)) + " is mounted");
}

void LinkEnd::stateIs(Mount& mount, State state) {
   if (mount.state == state)
      return;
   mount.state = state;
   if (stateCall_) {
      Name const name = mount.mirror->moxName(); // the call may unmount
      try {
         stateCall_(name, state);
      } catch (std::exception const& e) {
         demuxer_.report("root " + std::string(quoted(name)) + ", told that it is " + textOf(state) + ": " + e.what());
      }
   }
}

// The carrier -----------------------------------------------------------------------------------------------------------

void LinkEnd::connected() {
   if (isConnected_)
      peerGone("replaced by a new stream");
   failure_.clear();
   isConnected_ = true;
   remountEnded_ = false;
   peerApplied_ = 0;
   told_ = peers_ = {};
   Hello hello;
   hello.incarnation = incarnation_;
   hello.attempt = ++attempt_;
   hello.maximumFrame = demuxer_.in()->maximumFrame();
   hello.highestSlot = Demuxer::highestSlot;
   hello.window = 1;
   hello.name = name_;
   demuxer_.opened();
   demuxer_.out()->control(hello);
   for (std::size_t i = 0; i < mounts_.size(); ++i) {
      Mount& mount = mounts_[i];
      mount.isAnswered = mount.isOpen = false;
      demuxer_.out()->control(
         NboAttrLog::Mount{mount.handle, MountMode::readOnly, std::string_view(mount.mirror->moxName())});
      stateIs(mount, State::syncing);
   }
}

void LinkEnd::peerGone(std::string_view reason) {
   if (!isConnected_)
      return;
   if (isApplying_) {
      // A reactor cuts the branch that it sits on: the record in hand is finished first.
      mustEnd_ = true;
      endReason_ = reason;
      return;
   }
   isConnected_ = false;
   requests_.clear();
   demuxer_.cut();
   for (std::size_t i = 0; i < mounts_.size() && !isConnected_; ++i) // who is told may connect anew
      stateIs(mounts_[i], State::stale);
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
      } while (!mustEnd_ && demuxer_.in()->isQueued());
   } catch (std::exception const& e) {
      failure_ = e.what();
   }
   demuxer_.recordsEnd();
   isApplying_ = false;
   if (!failure_.empty())
      peerGone(failure_);
   else if (std::exchange(mustEnd_, false))
      peerGone(std::exchange(endReason_, {}));
   mustEnd_ = false;
}

std::span<std::uint8_t const> LinkEnd::bytesToSend() {
   if (!isConnected_)
      return {};
   demuxer_.drain();
   settleWaits();
   demuxer_.acknowledgeIfSent();
   return demuxer_.out()->pending();
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
   told_ = now;
   demuxer_.out()->control(Waiting{now.applied});
}

void LinkEnd::bytesSent(std::size_t n) {
   demuxer_.out()->sent(n);
}

bool LinkEnd::quiet() const noexcept {
   if (!isConnected_ || demuxer_.owes() || demuxer_.owesAcknowledgement() || demuxer_.out()->hasPending())
      return false;
   return peerApplied_ == demuxer_.out()->recordsWritten() && demuxer_.in()->keptBytes() == 0;
}

// What the peer says ----------------------------------------------------------------------------------------------------

void LinkEnd::on(Hello const& hello) {
   peerName_ = hello.name;
   peerIncarnation_ = hello.incarnation;
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
   demuxer_.report(demuxer_.in()->where() + ": the peer refused record " + std::to_string(refused.number) + ": " +
                   std::string(refused.text));
}

void LinkEnd::on(NboAttrLog::Mount const& mount) {
   auto const refuse = [&](Reason reason) {
      demuxer_.out()->control(Mounted{mount.handle, MountState::refused, MountMode::readOnly, reason, {}});
   };
   Name const name(mount.name);
   bool const isKnown = std::any_of(requests_.begin(), requests_.end(),
                                    [&](Request const& r) { return r.handle == mount.handle || r.name == name; });
   if (isKnown || requests_.size() >= mostRequests) {
      refuse(Reason::limit);
      return;
   }
   requests_.push_back({mount.handle, name, nullptr});
   answer(requests_.back());
   if (!requests_.back().root && !requests_.back().isRefused)
      demuxer_.out()->control(Mounted{mount.handle, MountState::waiting, MountMode::readOnly, Reason::none, {}});
}

void LinkEnd::answer(Request& request) {
   for (Ptr<Entity> const& root : exports_) {
      if (root->moxName() != request.name)
         continue;
      if (Demuxer::Sa const* const sa = demuxer_.adapterOf(*root); sa != nullptr && !sa->isOrphan()) {
         demuxer_.out()->control(Mounted{request.handle, MountState::refused, MountMode::readOnly, Reason::limit, {}});
         request.isRefused = true;
         return;
      }
      try {
         logOperationsOf(*root)->announceParameters(*root, demuxer_);
      } catch (NoEntityIdException const&) {
         return; // waits, as a root does that nobody exports yet: the peer has something to announce first
      }
      request.root = root;
      Ptr<Demuxer::Sa> const sa = demuxer_.rootIs(*root);
      demuxer_.out()->control(
         Mounted{request.handle, MountState::open, MountMode::readOnly, Reason::none, sa->entityId()});
      demuxer_.announceRoot(*sa);
      return;
   }
}

void LinkEnd::on(Unmount const& unmount) {
   auto const at =
      std::find_if(requests_.begin(), requests_.end(), [&](Request const& r) { return r.handle == unmount.handle; });
   if (at == requests_.end())
      return;
   Ptr<Entity> const root = at->root;
   requests_.erase(at);
   if (root)
      demuxer_.reidentify(*root);
   if (std::none_of(requests_.begin(), requests_.end(), [](Request const& r) { return static_cast<bool>(r.root); }))
      demuxer_.forgetAnnounced();
}

void LinkEnd::on(Mounted const& mounted) {
   auto const find = [&] {
      return std::find_if(mounts_.begin(), mounts_.end(), [&](Mount const& m) { return m.handle == mounted.handle; });
   };
   auto at = find();
   if (at == mounts_.end())
      return; // unmounted meanwhile
   at->isAnswered = true;
   Ptr<Entity> const mirror = at->mirror;
   switch (mounted.state) {
   case MountState::refused:
      stateIs(*at, State::refused);
      break;
   case MountState::waiting:
      break;
   case MountState::open:
      at->isOpen = true;
      remountEnded_ = false; // it may have waited since an earlier opening
      demuxer_.bind(mounted.entity, *mirror);
      if (at = find(); at != mounts_.end())
         stateIs(*at, State::syncing);
      break;
   case MountState::gone:
      at->isOpen = false;
      demuxer_.forgetMirrors(mirror.get());
      // What went may have run reactors that unmounted the root.
      if (at = find(); at != mounts_.end()) {
         demuxer_.mirrorRootIs(*mirror);
         stateIs(*at, State::stale);
      }
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
      if (!request.root && !request.isRefused)
         answer(request);
   if (!demuxer_.isSynced())
      return;
   bool areAnswered = true;
   for (std::size_t i = 0; i < mounts_.size(); ++i) {
      areAnswered = areAnswered && mounts_[i].isAnswered;
      if (mounts_[i].isOpen && mounts_[i].state == State::syncing)
         stateIs(mounts_[i], State::live);
   }
   if (areAnswered && !remountEnded_) {
      remountEnded_ = true;
      demuxer_.remountEnded();
   }
}

} // namespace Mox
