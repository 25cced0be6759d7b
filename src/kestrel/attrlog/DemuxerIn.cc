// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Demuxer.h"

#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"
#include "kestrel/mox/MoxType.h"

#include <algorithm>
#include <exception>
#include <new>

// The half of the demultiplexer that reads: what the records of the peer do to the mirrors here.

namespace Mox::NboAttrLog {

namespace {

constinit Ptr<In> const noStream; ///< a record is applied, not answered

/// The identifier that the announcement of a member ends with; null where it is too short for one.
EntityId announcedIn(In const& in) noexcept {
   auto const body = in.body();
   return body.size() < sizeof(U64) ? EntityId{}
                                    : EntityId::ofNumber(loadBigEndian<U64>(body.data() + body.size() - sizeof(U64)));
}

/// "/config/port.refClock (388)", for messages.
std::string nameOf(Entity const& entity, AttributeId id) {
   return std::string(std::string_view(entity.fullName())) + "." +
          std::string(std::string_view(entity.attributeString(id))) + " (" + std::to_string(id) + ")";
}

} // namespace

std::string Demuxer::where(In const& in, Sa const* sa, AttributeId id) const {
   std::string text = in.where();
   if (sa == nullptr || sa->entity() == nullptr)
      return text;
   return text + ", " + nameOf(*sa->entity(), id);
}

void Demuxer::unsent(Sa const& sa, AttributeId id, EnumException const& e) {
   ++counters().unsentEnums;
   report("stream \"" + name() + "\", " + nameOf(*sa.entity(), id) + " is not sent: " + e.what());
}

void Demuxer::applyRecord(Sa& sa, In& in) {
   MsgHeader const header = in.header();
   applicationStarted_ = false;
   try {
      if (header.kind == kind::value) [[likely]] {
         if (sa.handleAttrDeserialization(header.attribute, {}, 0, noStream) == 0)
            ++counters().unknownAttributes;
      } else if (header.kind == kind::marker) {
         applyMarker(sa, in);
      } else {
         ++counters().unknownKinds;
      }
   } catch (std::bad_alloc const&) {
      applicationFailed(sa, in);
      sa.owesAllIs(); // the owner is asked to tell the entity again
   } catch (...) {
      applicationFailed(sa, in);
   }
}

void Demuxer::applyAnnouncement(Sa& sa, In& in) {
   MsgHeader const header = in.header();
   applicationStarted_ = false;
   try {
      if (!sa.hasMembers(attributeOf(header.attribute))) {
         reserveAnnounced(in);
         ++counters().unknownAttributes;
      } else if (sa.handleAttrDeserialization(header.attribute, {}, 0, noStream) == 0) {
         ++counters().unknownAttributes;
      }
   } catch (std::bad_alloc const&) {
      applicationFailed(sa, in);
      // A full telling of the parent would not do: it leaves out the references to the member, which read null here.
      askAnew(announcedIn(in));
   } catch (...) {
      applicationFailed(sa, in);
      reserveFailed(announcedIn(in));
   }
   releaseReplaced();
}

/// The record in hand announces a member of a collection that this side does not know. All that can be read of it is its identifier,
/// which every announcement ends with.
void Demuxer::reserveAnnounced(In const& in) {
   EntityId const id = announcedIn(in);
   if (in.body().size() < sizeof(U64))
      throw AttrLogRecordException("an announcement of " + std::to_string(in.body().size()) +
                                   " bytes, which has no room for an identifier");
   reserve(id);
}

/// What `id` was announced for does not stand here as its owner thinks: he is asked to announce it under another identifier, and to tell
/// again what refers to it. Without memory even to note that, the connection ends: the next one tells everything.
void Demuxer::askAnew(EntityId id) {
   if (mirrors_.hasGone(id)) {
      countStale();
      return;
   }
   mirrors_.askAnew(id, *in_);
}

/// The announcement in hand could not be applied. Its identifier, where it can be one, is in use all the same.
void Demuxer::reserveFailed(EntityId id) noexcept {
   try {
      reserve(id);
   } catch (std::exception const&) { // a broken announcement: it has been reported
   }
}

void Demuxer::record(In& in) {
   if (!mirrors_.isInHand(in.header().entity) && !takeUp(in)) [[unlikely]] {
      otherRecord(in);
      return;
   }
   // Its fate is decided: what reactors write in answer lies behind the acknowledgement.
   ++applied_;
   if (in.header().kind == kind::childLog) [[unlikely]]
      applyAnnouncement(mirrors_.inHand(), in);
   else
      applyRecord(mirrors_.inHand(), in);
}

/// Takes in hand what the record is for. \return false where nothing here is mirrored under its identifier
bool Demuxer::takeUp(In& in) noexcept {
   recordsEnd(); // first: what is released may run reactors that change the table
   return mirrors_.takeUp(in.header().entity);
}

void Demuxer::putDown() noexcept {
   Mirror const gone = mirrors_.putDown();
}

/// A record for nothing that is mirrored here: a write of the peer's, an orphan's announcement, or one that comes too late.
void Demuxer::otherRecord(In& in) {
   MsgHeader const header = in.header();
   if (header.entity.side() == 0 && header.entity != orphanAnnouncement) {
      // A write to what this side owns. The refusal goes out right before the acknowledgement that covers it, and neither does
      // before the peer has read the last acknowledgement.
      ++counters().refusedWrites;
      if (refusals_.size() == requestWindow)
         throw ProtocolException(in.where() + ": expected at most " + std::to_string(requestWindow) +
                                 " writes without an answer");
      refusals_.push_back(applied_ + 1);
      ++applied_;
      report(in.where() + ": write-update from readonly proxy refused");
      return;
   }
   ++applied_;
   if (header.entity == orphanAnnouncement) {
      if (header.attribute == static_cast<std::int32_t>(attr::orphan)) {
         readOrphan(in);
         releaseReplaced();
      } else {
         ++counters().unknownAttributes;
      }
      return;
   }
   if (header.entity.slot() > highestSlot)
      throw ProtocolException(in.where() + ": slot " + std::to_string(header.entity.slot()) + ", expected up to " +
                              std::to_string(highestSlot));
   if (mirrors_.find(header.entity) == nullptr) {
      countStale();
      return;
   }
   ++counters().unknownTypes;
   if (header.kind != kind::childLog)
      return;
   try {
      reserveAnnounced(in);
   } catch (AttrLogRecordException const& e) {
      ++counters().badValues;
      report([&] { return in.where() + ": " + e.what(); });
   }
}

void Demuxer::applyMarker(Sa& sa, In& in) {
   std::uint8_t const type = in.nextU8();
   std::uint32_t const count = in.nextU32();
   if (type > static_cast<std::uint8_t>(AttrTransactionType::end))
      throwRangeException("marker type " + std::to_string(type) + ": expected 0 to 2");
   sa.handleAttrTransaction(static_cast<AttributeId>(in.header().attribute), static_cast<AttrTransactionType>(type),
                            count);
}

/// Reports and counts the exception in flight, which ended the record in hand. \throws it again where it ends the connection
void Demuxer::applicationFailed(Sa& sa, In& in) {
   auto const tell = [&](char const* what) {
      report([&] { return where(in, &sa, attributeOf(in.header().attribute)) + ": " + what; });
   };
   try {
      throw;
   } catch (ProtocolException const&) {
      throw;
   } catch (EnumException const& e) {
      ++(applicationStarted_ ? counters().applicationExceptions : counters().unknownEnums);
      tell(e.what());
   } catch (std::bad_alloc const& e) {
      ++counters().applicationExceptions;
      tell(e.what());
   } catch (std::exception const& e) {
      // A value that this side can't hold leaves the last good one. What a reactor throws is the application's affair: the
      // record counts as applied.
      ++(applicationStarted_ ? counters().applicationExceptions : counters().badValues);
      tell(e.what());
   } catch (...) {
      ++counters().applicationExceptions;
      tell("an exception that is no std::exception");
   }
}

/// Why `mirror` can't be what is announced as an entity of the types in `chain`, with the constructor parameters that come next in
/// `in`; empty where it can.
std::string Demuxer::mismatchOf(Entity const& mirror, std::vector<std::string_view> const& chain, In& in) {
   std::string_view const type(mirror.fwkType()->name());
   if (std::find(chain.begin(), chain.end(), type) == chain.end())
      return "expected an entity of type " + std::string(type) + ", the owner's is of type " +
             std::string(chain.empty() ? "(none)" : chain.front());
   TypeOperations const& operations = *logOperationsOf(mirror);
   if (operations.parametersMatch == nullptr || operations.parameters == 0)
      return {};
   try {
      if (operations.parametersMatch(mirror, in, *this))
         return {};
   } catch (AttrLogEntityException const&) { // one of them is of another type
   }
   return "the mirror was made with other constructor parameters than its owner's " + std::string(type);
}

void Demuxer::readOrphan(In& in) {
   EntityId id;
   try {
      Ptr<MoxType const> type;
      std::vector<std::string_view> chain;
      in.nextSection(1);
      while (in.remaining() != 0) {
         chain.push_back(in.nextTypeId().name);
         if (!type)
            if (Ptr<MoxType const> const known = MoxType::find(chain.back());
                known && known->operations().log != nullptr && known->operations().log->create != nullptr)
               type = known;
      }
      in.nextSection(3);
      Name const name(in.nextStringView());
      In::Position const parameters = in.position();
      in.nextSection(4);
      id = in.nextEntityId();
      if (mirrors_.hasGone(id)) {
         countStale();
         return;
      }
      checkAnnounced(id);
      if (PeerMirrors::Slot const* const slot = mirrors_.find(id)) {
         // A root, bound when it was mounted.
         if (Ptr<Sa> const sa = slot->sa; sa && mismatch_) {
            in.positionIs(parameters);
            if (std::string const reason = mismatchOf(*sa->entity(), chain, in); !reason.empty())
               mismatch_(*sa, reason);
         }
         return;
      }
      if (!type) {
         ++counters().unknownTypes;
         report(in.where() + ": entity of unknown type " + std::string(chain.empty() ? "(none)" : chain.front()));
         reserve(id);
         return;
      }
      TypeOperations const& operations = *type->operations().log;
      // The same orphan of an earlier connection is bound in place, so that references to it stay as they are.
      Sa* const waiting = mirrors_.waiting().orphan(name, [&](Sa const& sa) {
         if (sa.entity()->fwkType() != type)
            return false;
         in.positionIs(parameters);
         return operations.parametersMatch(*sa.entity(), in, *this);
      });
      if (waiting != nullptr) {
         bindInRecord(id, *Ptr<Entity>(waiting->entity()), true);
         return;
      }
      in.positionIs(parameters);
      Ptr<Entity> const entity = operations.create(name, in, *this);
      bindInRecord(id, *entity, true);
   } catch (ProtocolException const&) {
      throw;
   } catch (std::bad_alloc const& e) {
      ++counters().applicationExceptions;
      report([&] { return in.where() + ": orphan announcement: " + e.what(); });
      askAnew(announcedIn(in));
   } catch (std::exception const& e) {
      ++counters().badValues;
      report([&] { return in.where() + ": orphan announcement: " + e.what(); });
      reserveFailed(id);
   }
}

bool Demuxer::isOfAnother(Entity const& member, EntityId id) const noexcept {
   Sa const* const sa = adapterOf(member);
   return sa != nullptr && sa->entityId().isAssigned() && sa->entityId() != ofPeer(id);
}

void Demuxer::refresh(EntityId wireId, std::int32_t attribute, std::string_view key) {
   if (wireId.side() != 0 || attribute < 0)
      return;
   Ptr<Sa> const sa(own_.find(wireId));
   if (!sa || !sa->isAnnounced())
      return; // gone meanwhile; its retirement says so
   ++counters().refreshesAnswered;
   if (attribute == static_cast<std::int32_t>(attr::orphan)) {
      // Under another identifier, with all that refers to it: as the member that it is, or as one without a parent.
      Ptr<Entity> const entity(sa->entity());
      Entity* const parent = entity->moxRawParent();
      Ptr<Sa> const parentSa(parent == nullptr ? nullptr : adapterOf(*parent));
      if (parentSa && !parentSa->isMirror() && parentSa->isAnnounced() && sa->standing() == Standing::member)
         parentSa->refreshAsked(Mark(entity->parentAttrId(), entity->moxName()));
      else if (!sa->isRoot())
         reidentify(*entity);
      return;
   }
   Mark mark(static_cast<AttributeId>(attribute));
   if (!key.empty()) {
      in_->readBytes(key);
      try {
         mark = sa->readKey(static_cast<AttributeId>(attribute), *in_);
      } catch (Exception const& e) {
         ++counters().badValues;
         report(
            [&] { return where(*in_, sa.get(), mark.attribute) + ": refresh of a key that can't be: " + e.what(); });
         return;
      }
   }
   sa->refreshAsked(mark);
}

} // namespace Mox::NboAttrLog
