// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Frames.h"
#include "kestrel/attrlog/In.h"
#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/attrlog/Out.h"

#include <cstdio>
#include <string>
#include <vector>

namespace Mox::NboAttrLog {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

inline std::string hex(std::span<std::uint8_t const> bytes) {
   std::string text;
   char two[3];
   for (std::uint8_t const byte : bytes) {
      std::snprintf(two, sizeof two, "%02x", byte);
      text += two;
   }
   return text;
}

inline Bytes bytesOf(Out& out) {
   Bytes all;
   for (auto bytes = out.pending(); !bytes.empty(); bytes = out.pending()) {
      all.insert(all.end(), bytes.begin(), bytes.end());
      out.sent(bytes.size());
   }
   return all;
}

/// A section of a record's body, among its values.
struct Section {
   unsigned number;
};
inline void operator<<(Out& out, Section s) {
   out.currentPayloadSectionIs(s.number);
}

/// One whole record. \tparam Values what `<<` takes, and sections
template <class... Values> void recordOf(Out& out, MsgHeader const& header, Values const&... values) {
   Record record(out, header);
   ((out << values), ...);
   record.close();
}

/// One line per frame: "#slot attribute: body", markers by name, control frames by what matters in them.
inline std::string lineOf(In& in) {
   if (!in.isControl()) {
      auto const h = in.header();
      std::string const start = "#" + std::to_string(h.entity.slot()) + " " + std::to_string(h.attribute);
      if (in.isMarker())
         return start + (in.body()[0] == 0 ? " begin" : in.body()[0] == 1 ? " abort" : " end");
      return start + ": " + hex(in.body());
   }
   switch (in.controlKind()) {
   case ControlKind::acknowledgement:
      return "acknowledgement " + std::to_string(in.control<Acknowledgement>().count);
   case ControlKind::refused: {
      auto const r = in.control<Refused>();
      return "refused " + std::to_string(r.number) + ", " + textOf(r.reason);
   }
   case ControlKind::mount: {
      auto const m = in.control<Mount>();
      return "mount " + std::to_string(m.handle) + " " + std::string(m.name);
   }
   case ControlKind::mounted: {
      auto const m = in.control<Mounted>();
      return "mounted " + std::to_string(m.handle) + " state " + std::to_string(static_cast<int>(m.state)) +
             (m.reason == Reason::none ? "" : ", " + textOf(m.reason));
   }
   default:
      return titleOf(in.controlKind());
   }
}

/// Of all frames, or without hellos, mounts and acknowledgements.
inline Lines linesOf(In& in, std::span<std::uint8_t const> bytes, bool all = false) {
   Lines lines;
   in.consume(bytes, [&](In& frame) {
      auto const is = [&](ControlKind kind) { return frame.isControl() && frame.controlKind() == kind; };
      if (all || !(is(ControlKind::hello) || is(ControlKind::mount) || is(ControlKind::acknowledgement)))
         lines.push_back(lineOf(frame));
   });
   return lines;
}

/// The other side of one end, played by hand: it says what a test wants, true or not.
class Peer {
public:
   explicit Peer(LinkEnd& end,
                 Hello const& hello = {.incarnation = 7, .highestSlot = 1000, .window = 1, .name = "peer"})
      : end_(end) {
      end_.onReport([this](std::string const& text) { reports.push_back(text); });
      end_.connected();
      out->control(hello);
   }

   ~Peer() { end_.onReport(nullptr); }
   Peer(Peer const&) = delete;
   Peer& operator=(Peer const&) = delete;

   /// Identifiers of this side.
   static constexpr EntityId id(std::uint32_t slot, std::uint32_t generation = 1) {
      return EntityId::assigned(slot, 1, generation);
   }
   template <class... Values> void record(EntityId entity, std::int32_t attribute, Values const&... values) {
      recordOf(*out, {.entity = entity, .attribute = attribute, .variable = 1}, values...);
   }
   void announce(std::string_view type, std::string_view name, EntityId entity) {
      recordOf(*out, {.entity = orphanAnnouncement, .attribute = attr::orphan, .variable = 1}, Section{1}, TypeId{type},
               Section{3}, name, Section{4}, entity);
   }
   /// A member of `directory`, in its collection `attribute`.
   template <class... Values>
   void member(EntityId directory, std::int32_t attribute, std::string_view name, Values const&... values) {
      recordOf(*out, {.entity = directory, .attribute = attribute, .variable = 1, .kind = kind::childLog}, name,
               values...);
   }
   void grant(std::uint32_t handle, EntityId root) {
      out->control(Mounted{handle, MountState::open, MountMode::readOnly, Reason::none, root});
   }
   /// Hands over what has been said. \return whether the connection stands
   bool tell() {
      end_.bytesArrived(bytesOf(*out));
      return end_.isConnected();
   }
   /// The bytes that the end says until it has nothing more to say.
   Bytes said() {
      Bytes all;
      for (auto bytes = end_.bytesToSend(); !bytes.empty(); bytes = end_.bytesToSend()) {
         all.insert(all.end(), bytes.begin(), bytes.end());
         end_.bytesSent(bytes.size());
      }
      return all;
   }
   Lines heard(bool all = false) { return linesOf(*in, said(), all); }

   Ptr<Out> out = make<Out>("peer");
   Ptr<In> const in = make<In>("end");
   Lines reports;

private:
   LinkEnd& end_;
};

} // namespace Mox::NboAttrLog
