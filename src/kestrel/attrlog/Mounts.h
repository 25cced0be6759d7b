// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/core/Callback.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

/// How a mounted root stands. Programs know it as `LinkEnd::State`.
///
///    connecting --(connected)--> syncing --(told whole)--> live
///
/// From each of these an answer of the peer leads to `refused`, `notExported` or `stale`, an announcement that does not fit the
/// mirror leads to `mismatch`, and the end of the connection leads to `stale`. The next connection, and the next opening of the
/// root, lead back to `syncing`.
enum class RootState {
   connecting,  ///< There has been no connection since the root was mounted.
   syncing,     ///< The root has been asked for, or its owner is telling it, for the first time or again.
   live,        ///< The owner has told the whole root. Changes follow as they happen.
   stale,       ///< The connection has ended, or the owner exports the root no more. The mirror keeps what it had.
   refused,     ///< The owner does not grant the root, or can't go on telling it. The mirror keeps what it had.
   mismatch,    ///< The owner's root is of another type than the mirror, or has other constructor parameters.
   notExported, ///< The peer exports no root of that name. Once it does, the mirror goes on to `syncing`.
};
char const* textOf(RootState state) noexcept;

namespace NboAttrLog {

/// Takes `text` as the reason why a root or a connection stands as it does. Where there is no memory for the text, the reason says
/// that.
void keepReason(std::string& reason, std::string_view text) noexcept;

/// The roots of the peer that one end of a link has mounted or asked for: what the peer has answered for each of them, how each
/// stands, and what is still to be written to the peer about them.
///
/// An entry has a mirror where the root is mounted at this end. It has none where the root is only asked for, because its mirror
/// is at another end.
///
/// *Re-entrancy*: the functions of the application that are called from here, and the reactors of mirrors that are released, may
/// mount, unmount, cut and connect. So an entry is looked up again behind each such call.
class Mounts {
public:
   /// \param demuxer of the same end; it outlives this table
   explicit Mounts(Demuxer& demuxer) noexcept : demuxer_(demuxer) {}
   Mounts(Mounts const&) = delete;
   Mounts& operator=(Mounts const&) = delete;

   // What the application asks of the end. `LinkEnd` says what each of these means to it.
   /// Mounts the root of the peer that is named as `mirror` is. The caller has checked that `mirror` may be mounted and that the
   /// name is not in the table. \throws std::bad_alloc; nothing has changed then
   void add(Ptr<Entity> const& mirror);
   /// Enters the root without a mirror. Does nothing where it is in the table. \throws std::bad_alloc; nothing has changed then
   void ask(Name const& root);
   /// Takes the root out of the table, and owes the peer that where it has been asked for the root on this connection.
   /// \throws std::bad_alloc where the root has a mirror; nothing has changed then
   void remove(Name const& root);
   /// Hands the mirror of `root` over to the table of another end. The entry stays here, without a mirror.
   /// \throws InternalException where no mirror of `root` waits here to be announced again; std::bad_alloc, and the mirror is still
   /// here then, but `to` may have an entry for the root
   void moveMirror(Name const& root, Mounts& to);
   void onState(std::function<void(Name const& root, RootState state)> call) { stateCall_ = std::move(call); }
   void onOpening(std::function<bool(Name const& root)> call) { openingCall_ = std::move(call); }

   bool has(Name const& root) const noexcept { return find(root) != nullptr; }
   bool isAnswered(Name const& root) const noexcept;
   bool isOpen(Name const& root) const noexcept;
   /// \throws RangeException for a root that is not in the table
   RootState state(Name const& root) const { return get(root).state; }
   std::string const& reason(Name const& root) const { return get(root).reason; }
   /// How many of the roots have a mirror here.
   std::size_t mirrors() const noexcept;

   // The connection.
   /// Makes those mounted entities mirrors again for which there was no memory when their owner ended them.
   /// \throws std::bad_alloc; the rest is made by a later call
   void restoreMirrors();
   void connectionBegan() noexcept;
   /// Nothing has been asked for any more, and nothing is owed.
   void connectionEnded() noexcept;
   /// Changes the state of one root after the other, for as long as `isCurrent()` holds: the application is told of each and may
   /// unmount, cut or connect.
   template <std::predicate IsCurrent> void changeAll(RootState state, std::string_view reason, IsCurrent isCurrent) {
      for (std::size_t i = 0; i < entries_.size() && isCurrent(); ++i)
         changeState(entries_[i], state, reason);
   }
   /// \param window how many mounts without an answer the peer takes at a time, as its hello says
   void windowIs(std::uint32_t window) noexcept;
   /// Writes to the peer which roots are no longer asked for and then which are asked for, as far as its window and the buffer
   /// have room.
   void writeOwed();
   /// A batch of the peer's frames has been applied. Where the peer has told every entity whole, the open roots are live. Where
   /// it has also answered for every mirror, the remount is over.
   void finishSync();

   // What the peer and the stream say.
   void answered(Mounted const& answer);
   /// The owner has retired the identifier of a root.
   void retired(Entity& root);
   /// The record in hand announces the root of `sa` as something that its mirror can't be.
   void mismatched(Demuxer::Sa& sa, std::string const& reason);

   // What is held and owed.
   std::size_t size() const noexcept { return entries_.size(); }
   /// Roots that the peer has still to be asked for on this connection.
   std::size_t owedMounts() const noexcept;
   /// Roots that the peer has still to be told are not asked for any more.
   std::size_t owedUnmounts() const noexcept { return withdrawn_.size(); }
   /// Whether the peer has answered for every root and has been told of every one that was withdrawn.
   bool isSettled() const noexcept;

   /// What is wrong with the table; empty where all is well.
   std::string audit() const;

private:
   struct Entry {
      std::uint32_t handle = 0; ///< names the root in frames, from here on for as long as the entry lives
      Name name;                ///< never changes
      Ptr<Entity> mirror;       ///< null while the mirror is at another end, or while there is none
      RootState state = RootState::connecting; ///< the last that the application was told
      std::string reason;                      ///< why `state` is as it is; empty where all is well
      bool isAsked = false;                    ///< from the writing of the mount until the connection ends
      bool isAnswered = false;                 ///< from the first answer until the connection ends
      bool isOpen = false; ///< from the opening until the owner ends the root or the connection ends
   };

   Entry const* find(Name const& name) const noexcept;
   Entry* find(Name const& name) noexcept;
   Entry* find(std::uint32_t handle) noexcept;
   Entry const& get(Name const& name) const;
   void reserveEntry();
   void trim() noexcept;
   void enter(Name const& name, Ptr<Entity> const& mirror);
   void withdraw(Entry const& mount);
   void open(Entry& mount, EntityId root);
   void endMirror(std::uint32_t handle, RootState state, std::string const& reason);
   void changeState(Entry& mount, RootState state, std::string_view reason = {});
   template <class Call, class Text> void callApplication(Call call, Text what) const;

   Demuxer& demuxer_;
   std::vector<Entry> entries_;
   /// Handles of roots that were asked for and then removed, until the peer is told. It has room for all entries beside what it
   /// holds, so that removing one needs no memory here. Empty without a connection.
   std::vector<std::uint32_t> withdrawn_;
   std::uint32_t lastHandle_ = 0; ///< given to the newest entry; no handle is used twice
   /// How many mounts may be without an answer: from the hello on what the peer says, before that the least that every peer takes.
   std::uint32_t window_ = leastWindow;
   /// The demultiplexer has been told that the remount is over, and no mirror has come, moved here or opened since. False again
   /// from the next connection on.
   bool remountEnded_ = false;
   Callback<void(Name const& root, RootState state)> stateCall_; ///< may be null
   Callback<bool(Name const& root)> openingCall_;                ///< may be null
};

} // namespace NboAttrLog
} // namespace Mox
