// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/attrlog/EntityTree.h"
#include "kestrel/attrlog/LevelSa.h"
#include "kestrel/attrlog/Wire.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/notify/Mutators.h"

// From a record to the change of one level's attributes.

namespace Mox::NboAttrLog {

namespace detail {

/// The target that a reference in the record in hand names. \throws AttrLogEntityException when it is no `Target`
template <class Target> Ptr<Target> readReference(In& in, Demuxer& demuxer) {
   Ptr<Entity> const entity = demuxer.entityOf(in.nextEntityId());
   auto* const target = dynamic_cast<Target*>(entity.get());
   if (entity && target == nullptr)
      throw AttrLogEntityException("Entity is the wrong type: " + std::string(std::string_view(entity->fullName())));
   return Ptr<Target>(target);
}

template <class... Ps> auto readParameters(TypeList<Ps...>, In& in, Demuxer& demuxer) {
   // Braces: the parameters stand in the record in order.
   return std::tuple<typename Ps::Value...>{readReference<typename Ps::Target>(in, demuxer)...};
}

} // namespace detail

template <class X> void LevelSa<X>::doNotification(AttributeId id, void* key) {
   bool const known = visitAttribute<X>(id, [&](auto a) {
      using A = decltype(a);
      auto& self = static_cast<typename X::MoxNboAttrLogSa&>(*this);
      if constexpr (A::isKeyed)
         A::fire(self, *static_cast<typename A::Key const*>(key));
      else
         A::fire(self);
   });
   if (!known)
      Base::doNotification(id, key);
}

/// One record on its way to the attribute that it names.
///
/// Whoever sends many attributes in turn makes the receiver run through the code of each: what stands here once per attribute is
/// only what the commonest record needs, a value for a mirror that owes its reactors no word. The rest stands apart.
template <class X> struct LevelSa<X>::Reading {
   static constexpr unsigned removal = 1;
   static constexpr unsigned local = 2;
   static constexpr unsigned owing = 4; ///< the reactors may be owed word of something written here
   static constexpr unsigned unknown = 8;

   LevelSa& self;
   In& in;
   unsigned how;

   template <class A> void operator()(A a) {
      if constexpr (wireClass<A> == WireClass::value)
         if (how == 0) [[likely]] {
            auto const value = Wire<typename A::Value>::read(in);
            self.applyingBegins(A::id);
            self.demuxer_->applicationStarts();
            A::put(self.object(), value);
            return;
         }
      if (A::hasEntries || (how & removal) == 0) // only entries can be removed
         self.read(a, (how & removal) != 0, in, (how & local) != 0);
      else
         how |= unknown;
   }
};

template <class X>
int LevelSa<X>::handleAttrDeserialization(std::int32_t aid, DeserializationOptions options, unsigned count,
                                          Ptr<In> const& in) {
   AttributeId const id = attributeOf(aid);
   if (id < firstAttribute<X> || id > lastAttribute<X>)
      return Base::handleAttrDeserialization(aid, options, count, in);
   unsigned const removal = aid < 0 ? Reading::removal : 0;
   if (in) [[unlikely]] {
      Reading reading{*this, *in, removal | Reading::local};
      return visitAttribute<X>(id, reading) && (reading.how & Reading::unknown) == 0 ? 1 : 0;
   }
   if (this->demuxer_ == nullptr) [[unlikely]]
      return 0;
   this->checkPeerMayWrite();
   struct End {
      LevelSa& self;
      ~End() { self.applyingConsumed(); }
   } const end{*this};
   Reading reading{*this, *this->demuxer_->in(), removal | (this->hasUntold() ? Reading::owing : 0)};
   return visitAttribute<X>(id, reading) && (reading.how & Reading::unknown) == 0 ? 1 : 0;
}

template <class X> template <class A, class Put, class... Key> void LevelSa<X>::apply(A a, Put put, Key const&... key) {
   applyAs(a, true, put, key...);
}

/// Runs `put` for the peer, and tells the reactors once where they were owed it and `put` found nothing to change.
/// \param isAnswer whether the record may answer what was written here
template <class X>
template <class A, class Put, class... Key>
void LevelSa<X>::applyAs(A, bool isAnswer, Put put, Key const&... key) {
   if (this->demuxer_ == nullptr)
      return; // a reactor has unmounted the mirror between two changes of one record: it stays as it is
   typename Entity::MoxNboAttrLogSa::Applying const scope(*this);
   typename Entity::MoxNboAttrLogSa::Answer answer(*this);
   if (isAnswer && this->hasUntold())
      answer.markIs(Mark(A::id, key...));
   this->applyingBegins(A::id);
   this->demuxer_->applicationStarts();
   try {
      put();
   } catch (std::bad_alloc const&) {
      answer.failed();
      throw;
   }
   if (!isAnswer && !scope.wasSilent())
      this->untoldToldIs(Mark(
         A::id, key...)); // the reactors know by now what is here, and the answer tells them no more than a difference
   if (!answer.isOwed() || !scope.wasSilent())
      return;
   if constexpr (A::isKeyed)
      keyNotify<A>(object(), key...);
   else
      announce<A>(object());
}

template <class X> template <class A> void LevelSa<X>::read(A a, bool isRemoval, In& in, bool isLocal) {
   constexpr WireClass is = wireClass<A>;
   if constexpr (is == WireClass::value || is == WireClass::reference)
      readValue(a, in, isLocal);
   else if constexpr (is == WireClass::element)
      readElement(a, in, isLocal);
   else if (isRemoval)
      readRemoval(a, in, isLocal);
   else if constexpr (is == WireClass::entry)
      readElement(a, in, isLocal);
   else if constexpr (is == WireClass::member)
      readMember(a, in, isLocal);
   else if constexpr (is == WireClass::target)
      readTarget(a, in, isLocal);
}

template <class X> template <class A> void LevelSa<X>::readValue(A a, In& in, bool isLocal) {
   auto const value = [&] {
      if constexpr (wireClass<A> == WireClass::reference)
         return detail::readReference<typename A::Target>(in, *this->demuxer_);
      else
         return Wire<typename A::Value>::read(in);
   }();
   if (isLocal)
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this));
   else
      apply(a, [&] { A::put(object(), value); });
}

/// An element of an array, or an entry of a map.
template <class X> template <class A> void LevelSa<X>::readElement(A a, In& in, bool isLocal) {
   auto const key = Wire<typename A::Key>::read(in);
   if constexpr (A::hasEntries)
      if (!isLocal)
         unmark(a, key); // before the value is read: one that this side can't hold leaves the last good one
   auto const value = Wire<typename A::Value>::read(in);
   if (isLocal)
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), key);
   else
      apply(
         a, [&] { A::put(object(), key, value); }, key);
}

template <class X> template <class A> void LevelSa<X>::readTarget(A a, In& in, bool isLocal) {
   auto const target = detail::readReference<typename A::Target>(in, *this->demuxer_);
   if (!target)
      return; // retired meanwhile, and counted as that: its owner tells the entry again
   Name const name = target->moxName();
   if (isLocal) {
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), name);
      return;
   }
   unmark(a, name);
   apply(
      a, [&] { A::put(object(), target); }, name);
}

template <class X> template <class A> void LevelSa<X>::readRemoval(A a, In& in, bool isLocal) {
   auto const key = Wire<typename A::Key>::read(in);
   if (isLocal)
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), key);
   else
      dropHere(a, key);
}

/// The owner has told the entry, so that the end of the resend does not delete it. To be called before the entry is changed: a reactor
/// that throws would keep it from being called.
template <class X> template <class A> void LevelSa<X>::unmark(A, typename A::Key const& key) {
   if (auto* const entry = A::cell(object()).find(key))
      entry->moxMarkedForDeletionIs(false);
}

template <class X> template <class A> void LevelSa<X>::dropHere(A a, typename A::Key const& key) {
   if constexpr (A::ownsMembers) {
      if (this->demuxer_ == nullptr)
         return;
      Ptr<Entity> const member(A::cell(object()).find(key));
      Demuxer& demuxer = *this->demuxer_;
      this->retiredTaken(Mark(A::id, key));
      FirstException failures;
      failures.run([&] {
         apply(
            a, [&] { A::drop(object(), key); }, key);
      });
      if (member)
         demuxer.releaseFormerMember(*member);
      failures.rethrow();
   } else {
      apply(
         a, [&] { A::drop(object(), key); }, key);
   }
}

template <class X> template <class A> void LevelSa<X>::readMember(A a, In& in, bool isLocal) {
   Demuxer& demuxer = *this->demuxer_;
   Name const name(in.nextStringView());
   auto const parameters = detail::readParameters(typename A::Entry::MoxParameters{}, in, demuxer);
   EntityId const id = in.nextEntityId();
   if (isLocal) {
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), name);
      return;
   }
   // Whoever applies an announcement releases what it replaces; whoever applies a value does not.
   if (in.header().kind != kind::childLog)
      throw AttrLogRecordException("a member announced by a record of kind " + std::to_string(in.header().kind) +
                                   ", expected " + std::to_string(kind::childLog));
   demuxer.checkAnnounced(id);
   if (depthOf(object()) >= frame::maximumDepth)
      throw ProtocolException(in.where() + ": a member below " + std::to_string(frame::maximumDepth) +
                              " others; deeper ones are not taken");
   auto& cell = A::cell(object());
   bool const wasRetired = this->retiredTaken(Mark(A::id, name));
   // A reactor that throws must not leave the identifier without its member: its exception is kept until that is bound. A failed
   // allocation ends the announcement, and the owner is asked for another.
   FirstException failures;
   auto const run = [&](auto step) {
      try {
         step();
      } catch (std::bad_alloc const&) {
         throw;
      } catch (...) {
         failures.keep();
      }
   };
   if (auto* const present = cell.find(name))
      if (wasRetired || demuxer.isOfAnother(*present, id)) {
         // The name was announced under another identifier on this connection: this is another entity.
         ++demuxer.counters().renamedMembers;
         run([&] { dropHere(a, name); });
      }
   Ptr<Entity> const before = demuxer.mirrorOf(id);
   typename Demuxer::DeserializingEidAnchor const anchor(demuxer, id, *this, name);
   // Whether a member of other constructor parameters is in the place. A mutator that finds a member runs no reactor, so that a
   // NameInUseException that leaves it then is its own, and not a reactor's.
   bool isTaken = false;
   // Under an identifier that is known already nothing is answered: the owner was asked for another.
   auto const instantiate = [&] {
      applyAs(
         a, !before,
         [&] {
            isTaken = cell.find(name) != nullptr;
            std::apply([&](auto const&... p) { A::put(object(), name, p...); }, parameters);
            isTaken = false;
         },
         name);
   };
   {
      Expect const scope(NameInUseException::kind);
      run([&] {
         try {
            instantiate();
         } catch (NameInUseException const&) {
            if (!isTaken)
               throw;
         }
      });
      if (isTaken) {
         run([&] { dropHere(a, name); });
         run(instantiate);
      }
      if (isTaken) {
         // A reactor has put one of its own in the place meanwhile: the owner is asked to announce the name again. It may have
         // left the collection there by now, and be referred to: until the identifier is retired, it stands for one beside.
         if (this->demuxer_ != nullptr) {
            this->askOwner(Mark(A::id, name));
            if (!before)
               demuxer.bindInRecord(
                  id, *std::apply([&](auto const&... p) { return make<typename A::Entry>(name, p...); }, parameters));
         }
         failures.rethrow();
         return; // a reactor has unmounted the mirror
      }
   }
   if (auto* const member = cell.find(name); member != nullptr && this->demuxer_ != nullptr) {
      member->moxMarkedForDeletionIs(false);
      // Somebody here has put another in the place of what was announced under this identifier, which others have been told to
      // refer to. The owner, who knows of one only, is asked to announce it anew.
      bool const isReplaced = before && before != member;
      if (isReplaced)
         this->askOwner(Mark(A::id, name), true);
      demuxer.bindInRecord(id, *member);
      // Also where no member has the name any more: others may refer to what the identifier stands for.
      if (isReplaced)
         demuxer.askAnew(id);
   }
   failures.rethrow();
}

template <class X> int LevelSa<X>::handleAttrTransaction(AttributeId aid, AttrTransactionType type, unsigned count) {
   if (this->demuxer_ == nullptr)
      return 0;
   visitAttribute<X>(aid, [&](auto a) {
      if constexpr (a.isKeyed) {
         switch (type) {
         case AttrTransactionType::begin:
            if (this->hasFlag(StreamAdapter::inert))
               break;
            this->flowInIs(aid);
            if constexpr (a.hasEntries)
               marksIs(a, true);
            break;
         default:
            if (!this->flowInTaken(aid)) // first: the sweep may throw
               break;
            if constexpr (a.hasEntries) {
               if (type == AttrTransactionType::end)
                  sweep(a); // takes the marks along
               else
                  marksIs(a, false);
            }
         }
      }
   });
   return Base::handleAttrTransaction(aid, type, count);
}

template <class X> void LevelSa<X>::marksDel(AttributeId id) {
   if (!visitAttribute<X>(id, [&](auto a) {
          if constexpr (a.hasEntries)
             marksIs(a, false);
       }))
      Base::marksDel(id);
}

template <class X> void LevelSa<X>::tellUntold(Mark const& m) {
   if (!visitAttribute<X>(m.attribute, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::isKeyed)
             apply(
                a, [] {}, m.template as<typename A::Key>());
          else
             apply(a, [] {});
       }))
      Base::tellUntold(m);
}

template <class X> void LevelSa<X>::memberLeft(Mark const& m) {
   if (!visitAttribute<X>(m.attribute, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::ownsMembers)
             // Of a mirror that is passed on, the peer may not be told that it went: its owner has not said so.
             if (this->hasFlag(StreamAdapter::relays) || A::cell(object()).find(m.name) != nullptr)
                this->neededNotes().successors.insert(m);
       }))
      Base::memberLeft(m);
}

template <class X> template <class A> void LevelSa<X>::marksIs(A, bool marked) {
   auto& cell = A::cell(object());
   for (auto* entry = cell.first(); entry != nullptr; entry = cell.next(*entry))
      entry->moxMarkedForDeletionIs(marked);
}

template <class X> template <class A> void LevelSa<X>::sweep(A a) {
   FirstException failures;
   auto& cell = A::cell(object());
   bool again = true;
   // Without a stream a reactor has unmounted the mirror: what is left of it stays.
   while (again && this->demuxer_ != nullptr) {
      again = false;
      for (typename A::Container::Iterator it(cell); it && this->demuxer_ != nullptr; it.advance()) {
         if (!it.entry()->moxMarkedForDeletion())
            continue;
         // Unmarked first: an entry that a failing deletion leaves behind is not met twice.
         it.entry()->moxMarkedForDeletionIs(false);
         typename A::Key const key = it.entry()->fwkKey();
         ++this->demuxer_->counters().sweptEntries;
         auto const version = cell.version();
         failures.run([&] { dropHere(a, key); });
         again = again || cell.version() != version + 1;
      }
   }
   // A refused write deleted these keys here, and the owner has none of them either: tell the reactors now. The owner's answers will
   // then find nothing to tell.
   if (this->hasUntold()) {
      std::vector<Mark> marks;
      for (auto const& [mark, untold] : this->notes_->untold)
         if (mark.attribute == A::id && (untold.isOld || !this->notes_->unasked.contains(mark)))
            marks.push_back(mark);
      for (Mark const& m : marks) {
         typename A::Key const key = m.template as<typename A::Key>();
         if (this->demuxer_ == nullptr || !this->isUntold(m))
            continue;
         if (cell.find(key) == nullptr)
            failures.run([&] { dropHere(a, key); });
         else
            this->askOwnerAgain(m); // a reactor wrote it behind what the resend said, which may have been the answer
      }
   }
   failures.rethrow();
}

template <class X> void LevelSa<X>::writeKey(Mark const& m, std::vector<std::uint8_t>& bytes) const {
   if (!visitAttribute<X>(m.attribute, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::isKeyed) {
             // Through a stream of its own: a key has one encoding.
             auto const out = make<Out>();
             Record record(*out, {});
             auto const start = out->column();
             Wire<typename A::Key>::write(*out, m.template as<typename A::Key>());
             auto const written = out->bytesSince(start);
             bytes.assign(written.begin(), written.end());
          }
       }))
      Base::writeKey(m, bytes);
}

template <class X> Mark LevelSa<X>::readKey(AttributeId id, In& in) const {
   Mark mark(id);
   if (!visitAttribute<X>(id, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::isKeyed)
             mark = Mark(id, Wire<typename A::Key>::read(in));
       }))
      return Base::readKey(id, in);
   return mark;
}

} // namespace Mox::NboAttrLog
