// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

// The life of an adapter
// ----------------------
//
// An adapter is made for one entity and one stream, and says from then on whose the entity is: this side's, which *exports* it, or the
// peer's, which it *mirrors* (flag 2). That never changes. Its *standing* says how the peer of the stream names the entity, and its *phase*
// how far it has come.
//
//  Standing   the entity is                           given by
//  member     in a collection of its parent           made so; given again to an orphan that is bound as a member
//  orphan     named by its type and name alone        its announcement, written or read
//  root       exported or mounted by name             its export or its mount; for good
//
//  Phase        of an    identifier   held by            from                     entered by
//  made         either   none         who made it        -                        the constructor
//  identified   export   this side's  `OwnSlots`         made                     `identify`, as it gets a slot
//  announced    export   this side's  `OwnSlots`         identified, announced    `commitAnnouncement`: from here on it writes
//  waiting      mirror   none         `WaitingMirrors`   made, bound              `wait`: it is mounted, or its connection was cut
//  bound        mirror   the peer's   `PeerMirrors`      made, taken              `bindTo`, by the peer's announcement
//  taken        mirror   none         who took it out    waiting, bound           `takeOut`: it is about to be bound or released
//  released     mirror   none         who releases it    taken                    `release`: its reactors are told what they are owed
//  detached     either   none         nobody             every other              `detach`: it has no stream and no entity any more
//
// A cut detaches what is exported and lets mirrors wait. No bytes of a peer lead to a transition that is not in this table: who tries
// one has found a fault of this library.

namespace Mox::NboAttrLog {

enum class Standing : std::uint8_t { member, orphan, root };

enum class Phase : std::uint8_t { made, identified, announced, waiting, bound, taken, released, detached };

char const* textOf(Phase phase) noexcept;

/// Standing and phase of one adapter.
class AdapterLife {
public:
   Standing standing() const noexcept { return standing_; }
   /// \throws InternalException for a root, which stays one
   void standingIs(Standing standing);
   Phase phase() const noexcept { return phase_; }
   /// \throws InternalException where the table has no such transition; the phase stays
   void enter(Phase phase, bool isMirror);
   bool canEnter(Phase phase, bool isMirror) const noexcept;
   /// The same for callers that can't fail. Enters it in any case. \return whether the table has the transition
   bool enterUnasked(Phase phase, bool isMirror) noexcept {
      bool const can = canEnter(phase, isMirror);
      phase_ = phase;
      return can;
   }

private:
   Standing standing_ = Standing::member;
   Phase phase_ = Phase::made;
};

} // namespace Mox::NboAttrLog
