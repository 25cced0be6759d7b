// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Exports.h"

#include "kestrel/attrlog/Lists.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Mox::NboAttrLog {

namespace {

bool isAtOrBelow(Entity const& entity, Entity const& top) noexcept {
   for (Entity const* e = &entity; e != nullptr; e = e->moxRawParent())
      if (e == &top)
         return true;
   return false;
}

} // namespace

// The roots -------------------------------------------------------------------------------------------------------------

void Exports::add(Ptr<Entity> const& root) {
   if (!roots_.try_emplace(root->moxName(), root).second)
      throwNameInUseException("a root named " + quoted(root->moxName()) + " is exported already");
   for (Request& request : requests_)
      if (!request.root && request.name == root->moxName()) {
         request.refusal = Reason::none;
         owe(request);
      }
}

void Exports::remove(Ptr<Entity> const& given) {
   auto const at = given ? roots_.find(given->moxName()) : roots_.end();
   if (at == roots_.end() || at->second != given)
      return;
   Ptr<Entity> const root = at->second;
   // What may fail comes first: half of a removal would leave adapters that stand in the way of the next export.
   auto const gone = demuxer_.unannounced(*root);
   roots_.erase(at);
   for (Request& request : requests_)
      if (request.root == root) {
         request.root = nullptr;
         request.refusal = Reason::none;
         request.owesGone = owesAnswers_ = true;
         request.owesAnswer = false;
      } else if (request.name == root->moxName()) {
         request.refusal = Reason::none;
         request.isDeferred = false;
         // The root may have ended before and been exported again before the peer was told. Its end is all that is left to tell then.
         request.owesAnswer = !request.owesGone;
         owesAnswers_ = true;
      }
   forgetBehindLastRoot();
}

/// A root has been taken out of the stream. If it was the last one, everything else that was announced goes too.
void Exports::forgetBehindLastRoot() {
   if (std::none_of(requests_.begin(), requests_.end(), [](Request const& r) { return static_cast<bool>(r.root); }))
      demuxer_.forgetAnnounced();
}

Entity const* Exports::rootAround(Entity const& entity) const noexcept {
   for (auto const& [name, root] : roots_)
      if (isAtOrBelow(*root, entity) || isAtOrBelow(entity, *root))
         return root.get();
   return nullptr;
}

// What the peer and the stream say --------------------------------------------------------------------------------------

void Exports::asked(Mount const& mount) {
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

void Exports::withdrawn(Unmount const& unmount) {
   auto const at =
      std::find_if(requests_.begin(), requests_.end(), [&](Request const& r) { return r.handle == unmount.handle; });
   if (at == requests_.end())
      return;
   Ptr<Entity> const root = at->root;
   requests_.erase(at);
   shrink(requests_, requests_.size());
   if (root) {
      auto const gone = demuxer_.unannounced(*root);
      forgetBehindLastRoot();
   }
}

void Exports::limitReached(Entity const& root) noexcept {
   for (Request& request : requests_)
      if (request.root == &root) {
         request.refusal = Reason::limit;
         owe(request);
      }
}

void Exports::retryDeferred() noexcept {
   for (Request& request : requests_)
      if (request.isDeferred && !request.root)
         owe(request);
}

void Exports::connectionEnded() noexcept {
   owesAnswers_ = false;
   requests_ = {};
   overLimit_ = {};
}

// Answers ---------------------------------------------------------------------------------------------------------------

std::size_t Exports::owedAnswers() const noexcept {
   return overLimit_.size() +
          static_cast<std::size_t>(std::count_if(requests_.begin(), requests_.end(), [](Request const& r) {
             return r.owesGone || (r.owesAnswer && !r.isDeferred);
          }));
}

void Exports::writeOwed() {
   Out& out = *demuxer_.out();
   if (std::exchange(owesAnswers_, false)) {
      // The loop goes by index, because a report may lead to further requests.
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
   writeFront(
      overLimit_, [&] { return out.hasSufficientBuffer(); },
      [&](std::uint32_t handle) {
         out.control(Mounted{handle, MountState::refused, MountMode::readOnly, Reason::limit, {}});
      });
}

void Exports::say(Request const& request, MountState state, Reason reason, EntityId root) {
   demuxer_.out()->control(Mounted{request.handle, state, MountMode::readOnly, reason, root});
}

/// Writes what `request` is owed.
void Exports::answer(Request& request) {
   if (request.owesGone) {
      say(request, MountState::gone, Reason::gone);
      request.owesGone = false;
   }
   if (!request.owesAnswer)
      return;
   // What is told so far is taken out of the stream here, and released behind the answer.
   std::vector<Ptr<Entity>> gone;
   if (request.root) {
      gone = demuxer_.unannounced(*request.root);
      request.root = nullptr;
   }
   if (request.refusal != Reason::none) {
      refuse(request, request.refusal);
      forgetBehindLastRoot();
      return;
   }
   if (auto const at = roots_.find(request.name); at != roots_.end()) {
      open(request, *at->second);
      return;
   }
   say(request, MountState::waiting, Reason::notExported);
   request.owesAnswer = false;
}

/// Writes that the root is not granted, which holds until it is exported anew.
void Exports::refuse(Request& request, Reason reason) {
   say(request, MountState::refused, reason);
   request.refusal = reason;
   request.owesAnswer = false;
}

/// Opens the exported root `entity` to the peer and announces it, or writes why that can't be.
void Exports::open(Request& request, Entity& entity) {
   Ptr<Entity> const root(&entity);
   auto const report = [&](Exception const& e) {
      demuxer_.report([&] { return "root " + quoted(root->moxName()) + " can't be told: " + e.what(); });
   };
   // What is a root can't be told as a member as well, whichever comes first; what is below an open root may not be announced yet.
   bool const isBesideItself = std::any_of(requests_.begin(), requests_.end(), [&](Request const& other) {
      return other.root && other.root != root && (isAtOrBelow(*other.root, entity) || isAtOrBelow(entity, *other.root));
   });
   if (Demuxer::Sa const* const sa = demuxer_.adapterOf(entity);
       isBesideItself || (sa != nullptr && !sa->isOrphan() && !sa->isMadeInAdvance())) {
      // It is told on this stream already, as a member of another root or as the peer's own.
      refuse(request, Reason::limit);
      return;
   }
   try {
      logOperationsOf(entity)->announceParameters(entity, demuxer_);
   } catch (NoEntityIdException const&) {
      // A constructor parameter refers to something that the peer has to announce first.
      if (!std::exchange(request.isDeferred, true))
         say(request, MountState::waiting, Reason::none);
      request.owesAnswer = false;
      return;
   } catch (std::bad_alloc const&) {
      throw;
   } catch (Exception const& e) {
      refuse(request, Reason::limit);
      report(e);
      return;
   }
   bool isSaid = false;
   // What was begun is taken out of the stream by the answer that is still owed.
   auto const keepBegun = [&] {
      Demuxer::Sa const* const sa = demuxer_.adapterOf(entity);
      request.root = sa != nullptr && sa->isRoot() ? root : nullptr;
      request.owesAnswer = true;
   };
   try {
      Ptr<Demuxer::Sa> const sa = demuxer_.rootIs(entity);
      say(request, MountState::open, Reason::none, sa->entityId());
      isSaid = true;
      request.root = root;
      request.owesAnswer = request.isDeferred = false;
      demuxer_.announceRoot(*sa);
   } catch (std::bad_alloc const&) {
      keepBegun();
      request.owesGone = isSaid;
      throw;
   } catch (Exception const& e) {
      keepBegun();
      request.refusal = Reason::limit;
      answer(request);
      report(e);
   }
}

std::string Exports::audit() const {
   for (auto const& [name, root] : roots_)
      if (root->moxName() != name)
         return "root " + quoted(root->moxName()) + " is exported under the name " + quoted(name);
   for (auto a = requests_.begin(); a != requests_.end(); ++a) {
      auto const which = [&](char const* what) { return "the peer's request for root " + quoted(a->name) + what; };
      for (auto b = requests_.begin(); b != a; ++b)
         if (b->handle == a->handle || b->name == a->name)
            return which(" shares its name or handle with another one");
      if (a->root) {
         Demuxer::Sa const* const sa = demuxer_.adapterOf(*a->root);
         if (sa == nullptr || sa->isMirror() || !sa->isRoot())
            return which(" is open, and the stream does not know the root as one of this side");
         if (auto const at = roots_.find(a->name); at == roots_.end() || at->second != a->root)
            return which(" is open, and the root is not exported");
      }
      if (!owesAnswers_ && (a->owesGone || a->owesAnswer))
         return which(" owes an answer that is not counted");
   }
   if (!demuxer_.isOpen() && !(requests_.empty() && overLimit_.empty()))
      return "there are requests of the peer without a connection";
   if (requests_.size() > mostRequests || owedAnswers() > requestWindow)
      return "the peer has more requests, or more of them without an answer, than it may have";
   return {};
}

} // namespace Mox::NboAttrLog
