// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Mounts.h"

#include "kestrel/attrlog/Lists.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Mox {

char const* textOf(RootState state) noexcept {
   switch (state) {
   case RootState::connecting:
      return "connecting";
   case RootState::syncing:
      return "syncing";
   case RootState::live:
      return "live";
   case RootState::stale:
      return "stale";
   case RootState::refused:
      return "refused";
   case RootState::mismatch:
      return "mismatch";
   case RootState::notExported:
      return "not exported there";
   }
   return "unknown";
}

namespace NboAttrLog {

void keepReason(std::string& reason, std::string_view text) noexcept {
   try {
      reason = text;
   } catch (std::bad_alloc const&) {
      reason = "no memory"; // This is short enough to need none.
   }
}

// The table -------------------------------------------------------------------------------------------------------------

Mounts::Entry const* Mounts::find(Name const& name) const noexcept {
   auto const at = std::find_if(entries_.begin(), entries_.end(), [&](Entry const& m) { return m.name == name; });
   return at == entries_.end() ? nullptr : &*at;
}

Mounts::Entry* Mounts::find(Name const& name) noexcept {
   return const_cast<Entry*>(std::as_const(*this).find(name));
}

Mounts::Entry* Mounts::find(std::uint32_t handle) noexcept {
   auto const at = std::find_if(entries_.begin(), entries_.end(), [&](Entry const& m) { return m.handle == handle; });
   return at == entries_.end() ? nullptr : &*at;
}

Mounts::Entry const& Mounts::get(Name const& name) const {
   if (Entry const* const mount = find(name))
      return *mount;
   throwRangeException("no root named " + quoted(name) + " is mounted");
}

bool Mounts::isAnswered(Name const& root) const noexcept {
   Entry const* const mount = find(root);
   return mount != nullptr && mount->isAnswered;
}

bool Mounts::isOpen(Name const& root) const noexcept {
   Entry const* const mount = find(root);
   return mount != nullptr && mount->isOpen;
}

std::size_t Mounts::mirrors() const noexcept {
   return static_cast<std::size_t>(
      std::count_if(entries_.begin(), entries_.end(), [](Entry const& m) { return static_cast<bool>(m.mirror); }));
}

/// Makes room for one entry more, and for the withdrawal of every entry.
void Mounts::reserveEntry() {
   auto const reserve = [](auto& list, std::size_t needed) {
      if (list.capacity() < needed)
         list.reserve(std::max(needed, 2 * list.capacity()));
   };
   reserve(entries_, entries_.size() + 1);
   reserve(withdrawn_, withdrawn_.size() + entries_.size() + 1);
}

/// Gives memory back behind a burst.
void Mounts::trim() noexcept {
   shrink(entries_, entries_.size());
   shrink(withdrawn_, withdrawn_.size() + entries_.size());
}

/// Adds an entry for which there is room.
void Mounts::enter(Name const& name, Ptr<Entity> const& mirror) {
   entries_.push_back(
      {++lastHandle_, name, mirror, demuxer_.isOpen() ? RootState::syncing : RootState::connecting, {}});
}

void Mounts::add(Ptr<Entity> const& mirror) {
   reserveEntry();
   demuxer_.mirrorRootIs(*mirror);
   enter(mirror->moxName(), mirror);
   remountEnded_ = false;
}

void Mounts::ask(Name const& root) {
   if (has(root))
      return;
   reserveEntry();
   enter(root, nullptr);
}

/// The peer has to be told that it is not asked for `mount` any more, if it has been asked.
void Mounts::withdraw(Entry const& mount) {
   if (demuxer_.isOpen() && mount.isAsked)
      withdrawn_.push_back(mount.handle);
}

void Mounts::remove(Name const& root) {
   Entry* const at = find(root);
   if (at == nullptr)
      return;
   // What may fail comes first: half of a removal would leave a mirror that is in no table. With the last mirror goes everything
   // else that the peer has announced.
   std::vector<Mirror> gone;
   if (at->mirror)
      gone = demuxer_.mirrorsTaken(mirrors() == 1 ? nullptr : at->mirror.get());
   withdraw(*at);
   Entry const mount = std::move(*at);
   entries_.erase(entries_.begin() + (at - entries_.data()));
   trim();
   demuxer_.releaseAll(gone);
}

void Mounts::moveMirror(Name const& root, Mounts& to) {
   Entry* const from = find(root);
   if (from == nullptr || !from->mirror || from->isOpen || &to == this)
      throwInternalException("root " + quoted(root) + " can't be moved: no mirror of it waits here");
   to.ask(root);
   Ptr<Entity> const mirror = from->mirror;
   // While another root is open here, the orphans may be that root's.
   bool const withOrphans = std::none_of(entries_.begin(), entries_.end(), [](Entry const& m) { return m.isOpen; });
   demuxer_.moveMirrors(*mirror, withOrphans, to.demuxer_);
   from->mirror = nullptr;
   to.find(root)->mirror = mirror;
   to.remountEnded_ = false;
}

// The connection --------------------------------------------------------------------------------------------------------

void Mounts::restoreMirrors() {
   for (Entry const& mount : entries_)
      if (mount.mirror && demuxer_.adapterOf(*mount.mirror) == nullptr)
         demuxer_.mirrorRootIs(*mount.mirror);
}

void Mounts::connectionBegan() noexcept {
   remountEnded_ = false;
   window_ = leastWindow;
}

void Mounts::connectionEnded() noexcept {
   withdrawn_.clear();
   for (Entry& mount : entries_)
      mount.isAsked = mount.isAnswered = mount.isOpen = false;
}

void Mounts::windowIs(std::uint32_t window) noexcept {
   window_ = std::max(leastWindow, window);
}

void Mounts::writeOwed() {
   Out& out = *demuxer_.out();
   // Withdrawals come first: a root that is mounted anew must have been given up before it is asked for again.
   writeFront(
      withdrawn_, [&] { return out.hasSufficientBuffer(); },
      [&](std::uint32_t handle) { out.control(Unmount{handle}); });
   trim();
   if (!withdrawn_.empty())
      return;
   std::size_t unanswered = 0;
   for (Entry const& mount : entries_)
      unanswered += mount.isAsked && !mount.isAnswered;
   for (std::size_t i = 0; i < entries_.size() && unanswered < window_ && out.hasSufficientBuffer(); ++i) {
      Entry& mount = entries_[i];
      if (mount.isAsked)
         continue;
      mount.isAsked = true;
      try {
         out.control(Mount{mount.handle, MountMode::readOnly, std::string_view(mount.name)});
         unanswered += !mount.isAnswered;
      } catch (std::bad_alloc const&) {
         mount.isAsked = false;
         throw;
      } catch (Exception const& e) {
         // The name can't travel, so the peer will never answer. This end answers in its place.
         mount.isAnswered = true;
         changeState(mount, RootState::refused, e.what());
      }
   }
}

bool Mounts::isSettled() const noexcept {
   return withdrawn_.empty() &&
          std::all_of(entries_.begin(), entries_.end(), [](Entry const& m) { return m.isAnswered; });
}

std::size_t Mounts::owedMounts() const noexcept {
   return static_cast<std::size_t>(std::count_if(entries_.begin(), entries_.end(),
                                                 [this](Entry const& m) { return demuxer_.isOpen() && !m.isAsked; }));
}

void Mounts::finishSync() {
   if (!demuxer_.isSynced())
      return;
   bool areAnswered = true;
   for (std::size_t i = 0; i < entries_.size(); ++i) {
      areAnswered = areAnswered && (entries_[i].isAnswered || !entries_[i].mirror);
      if (entries_[i].isOpen && entries_[i].state == RootState::syncing)
         changeState(entries_[i], RootState::live);
   }
   if (areAnswered && !remountEnded_) {
      remountEnded_ = true;
      demuxer_.remountEnded();
   }
}

// What the peer and the stream say --------------------------------------------------------------------------------------

void Mounts::answered(Mounted const& answer) {
   Entry* const mount = find(answer.handle);
   if (mount == nullptr)
      return; // It was unmounted while the answer was on its way.
   mount->isAnswered = true;
   switch (answer.state) {
   case MountState::refused:
      endMirror(answer.handle, RootState::refused, "the owner refuses it: " + textOf(answer.reason));
      break;
   case MountState::waiting:
      if (answer.reason == Reason::notExported)
         changeState(*mount, RootState::notExported, "the peer exports no root of that name");
      else
         changeState(*mount, RootState::syncing);
      break;
   case MountState::open:
      open(*mount, answer.entity);
      break;
   case MountState::gone:
      endMirror(answer.handle, RootState::stale, "its owner exports it no more");
      break;
   }
}

/// The peer has opened `mount` and is going to tell it under the identifier `root`.
void Mounts::open(Entry& mount, EntityId root) {
   std::uint32_t const handle = mount.handle;
   Entry* at = &mount;
   if (openingCall_ && !at->isOpen) {
      Name const name = at->name;
      bool isHere = false;
      callApplication([&] { isHere = openingCall_(name); },
                      [&] { return "root " + quoted(name) + ", told that the peer opens it"; });
      if (at = find(handle); at == nullptr)
         return;
      if (!isHere || !at->mirror) {
         remove(name);
         return;
      }
   }
   if (!at->mirror)
      return;
   at->isOpen = true;
   remountEnded_ = false; // The mirror may hold what was told behind an earlier opening on this connection.
   Ptr<Entity> const mirror = at->mirror;
   demuxer_.bind(root, *mirror);
   // What the identifier stood for before has been released, which may have run reactors that unmounted the root.
   if (at = find(handle); at != nullptr)
      changeState(*at, RootState::syncing);
}

void Mounts::retired(Entity& root) {
   for (Entry const& mount : entries_)
      if (mount.mirror == &root) {
         endMirror(mount.handle, RootState::stale, "its owner exports it no more");
         return;
      }
}

/// The owner tells the root no more. The mirror keeps what it has, and waits to be announced again.
void Mounts::endMirror(std::uint32_t handle, RootState state, std::string const& reason) {
   Entry* at = find(handle);
   // A refusal is the owner's last word, so it also ends the mirrors that have waited since an earlier connection.
   if ((std::exchange(at->isOpen, false) || state == RootState::refused) && at->mirror) {
      Ptr<Entity> const mirror = at->mirror;
      demuxer_.forgetMirrors(mirror.get());
      // What was released may have run reactors that unmounted the root.
      if (at = find(handle); at == nullptr || at->mirror != mirror)
         return;
      demuxer_.mirrorRootIs(*mirror);
   }
   changeState(*at, state, reason);
}

void Mounts::mismatched(Demuxer::Sa& sa, std::string const& reason) {
   for (Entry& mount : entries_)
      if (mount.mirror == sa.entity()) {
         std::string const text = demuxer_.in()->where() + ": root " + quoted(mount.name) + ": " + reason;
         changeState(mount, RootState::mismatch, reason);
         demuxer_.report(text); // This comes last, because who is told may unmount.
         return;
      }
}

// What the application is told ------------------------------------------------------------------------------------------

void Mounts::changeState(Entry& mount, RootState state, std::string_view reason) {
   keepReason(mount.reason, reason);
   if (mount.state == state)
      return;
   mount.state = state;
   if (stateCall_) {
      Name const name = mount.name; // A copy, because the call may unmount.
      callApplication([&] { stateCall_(name, state); },
                      [&] { return "root " + quoted(name) + ", told that it is " + textOf(state); });
   }
}

/// Calls a function of the application. What it throws is no fault of the stream, so it is only reported, behind the text that
/// `what` makes.
template <class Call, class Text> void Mounts::callApplication(Call call, Text what) const {
   try {
      call();
   } catch (std::exception const& e) {
      demuxer_.report([&] { return what() + ": " + e.what(); });
   } catch (...) {
      demuxer_.report([&] { return what() + ": an exception that is no std::exception"; });
   }
}

std::string Mounts::audit() const {
   for (auto a = entries_.begin(); a != entries_.end(); ++a) {
      std::string_view const name = a->name;
      auto const which = [&](char const* what) { return "mounted root " + quoted(name) + what; };
      for (auto b = entries_.begin(); b != a; ++b)
         if (b->handle == a->handle || b->name == a->name)
            return which(" shares its name or handle with another one");
      if (a->mirror) {
         Demuxer::Sa const* const sa = demuxer_.adapterOf(*a->mirror);
         if (sa == nullptr || !sa->isMirror() || !sa->isRoot())
            return which(" has a mirror that the stream does not know as one");
      }
      if (!demuxer_.isOpen() && (a->isAsked || a->isAnswered || a->isOpen))
         return which(" is asked for, answered or open without a connection");
      if (a->isOpen && !(a->isAnswered && a->mirror))
         return which(" is open without an answer or without a mirror");
   }
   if (!demuxer_.isOpen() && !withdrawn_.empty())
      return "the withdrawal of a root is owed without a connection";
   if (withdrawn_.capacity() < withdrawn_.size() + entries_.size())
      return "the list of withdrawn roots has no room for all that are mounted";
   return {};
}

} // namespace NboAttrLog
} // namespace Mox
