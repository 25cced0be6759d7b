// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "attrlog/Frames.h"
#include "attrlog/In.h"
#include "attrlog/LinkEnd.h"
#include "attrlog/Out.h"

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

/// One line per frame: "#slot attribute: body", markers by name, control frames by what matters in them. Hellos and
/// acknowledgements are left out.
inline std::string lineOf(In& in) {
   if (!in.isControl()) {
      auto const h = in.header();
      std::string const start = "#" + std::to_string(h.entity.slot()) + " " + std::to_string(h.attribute);
      if (in.isMarker())
         return start + (in.body()[0] == 0 ? " begin" : in.body()[0] == 1 ? " abort" : " end");
      return start + ": " + hex(in.body());
   }
   switch (in.controlKind()) {
   case ControlKind::hello:
   case ControlKind::acknowledgement:
      return {};
   case ControlKind::refresh: {
      auto const r = in.control<Refresh>();
      return "refresh #" + std::to_string(r.entity.slot()) + " " + std::to_string(r.attribute) + " key " +
             hex({reinterpret_cast<std::uint8_t const*>(r.key.data()), r.key.size()});
   }
   case ControlKind::mounted: {
      auto const m = in.control<Mounted>();
      return "mounted " + std::to_string(m.handle) + " state " + std::to_string(static_cast<int>(m.state));
   }
   default:
      return titleOf(in.controlKind());
   }
}

inline Lines linesOf(In& in, std::span<std::uint8_t const> bytes) {
   Lines lines;
   in.consume(bytes, [&](In& frame) {
      if (auto line = lineOf(frame); !line.empty())
         lines.push_back(std::move(line));
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
   void grant(std::uint32_t handle, EntityId root) {
      out->control(Mounted{handle, MountState::open, MountMode::readOnly, Reason::none, root});
   }
   /// Says bytes that no writer writes.
   void saysRaw(std::span<std::uint8_t const> bytes) { end_.bytesArrived(bytes); }
   /// Hands over what has been said. \return whether the connection stands
   bool tell() {
      end_.bytesArrived(bytesOf(*out));
      return end_.isConnected();
   }
   /// What the end says, without its mounts.
   Lines heard() {
      Lines all;
      for (auto bytes = end_.bytesToSend(); !bytes.empty(); bytes = end_.bytesToSend()) {
         Bytes const copy(bytes.begin(), bytes.end());
         end_.bytesSent(copy.size());
         for (std::string& line : linesOf(*in, copy))
            if (line != "mount")
               all.push_back(std::move(line));
      }
      return all;
   }

   Ptr<Out> out = make<Out>("peer");
   Ptr<In> const in = make<In>("end");
   Lines reports;

private:
   LinkEnd& end_;
};

} // namespace Mox::NboAttrLog
