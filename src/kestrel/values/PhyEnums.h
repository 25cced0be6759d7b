// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/values/Enumeration.h"

#include <cstdint>

namespace Hardware::Phy {

/// What the diagnostics of a PHY do to the traffic.
enum class DiagsMode : std::int32_t { off = 0, transmit = 1, receive = 2, both = 3 };
constexpr auto moxEnum(DiagsMode) {
   using enum DiagsMode;
   return Mox::enumeration<DiagsMode>("Hardware::Phy::DiagsMode",
                                      {{off, "off"}, {transmit, "transmit"}, {receive, "receive"}, {both, "both"}});
}
constexpr DiagsMode DiagsModeInstance(std::uint32_t number) {
   return Mox::enumInstance<DiagsMode>(number);
}

/// How far the driver acts on its own.
enum class DriverRunMode : std::int32_t { automatic = 0, manual = 1, stopped = 2 };
constexpr auto moxEnum(DriverRunMode) {
   using enum DriverRunMode;
   return Mox::enumeration<DriverRunMode>("Hardware::Phy::DriverRunMode",
                                          {{automatic, "automatic"}, {manual, "manual"}, {stopped, "stopped"}});
}
constexpr DriverRunMode DriverRunModeInstance(std::uint32_t number) {
   return Mox::enumInstance<DriverRunMode>(number);
}

/// The sublayer that returns the traffic.
enum class Loopback : std::int32_t { none = 0, phyXs = 1, pcs = 2, pma = 3, network = 4 };
constexpr auto moxEnum(Loopback) {
   using enum Loopback;
   return Mox::enumeration<Loopback>(
      "Hardware::Phy::Loopback", {{none, "none"}, {phyXs, "phyXs"}, {pcs, "pcs"}, {pma, "pma"}, {network, "network"}});
}
constexpr Loopback LoopbackInstance(std::uint32_t number) {
   return Mox::enumInstance<Loopback>(number);
}

/// Addressing of the management bus. `unknown` is the default, of a PHY that is not on such a bus.
enum class MdioClause : std::int32_t { unknown = 0, clause22 = 1, clause45 = 2 };
constexpr auto moxEnum(MdioClause) {
   using enum MdioClause;
   return Mox::enumeration<MdioClause>("Hardware::Phy::MdioClause",
                                       {{unknown, "unknown"}, {clause22, "clause22"}, {clause45, "clause45"}});
}
constexpr MdioClause MdioClauseInstance(std::uint32_t number) {
   return Mox::enumInstance<MdioClause>(number);
}

/// Where a PHY is on its way to traffic.
enum class PhyState : std::int32_t { unknown = 0, inReset = 1, initializing = 2, linkDown = 3, linkUp = 4, failed = 5 };
constexpr auto moxEnum(PhyState) {
   using enum PhyState;
   return Mox::enumeration<PhyState>("Hardware::Phy::PhyState", {{unknown, "unknown"},
                                                                 {inReset, "inReset"},
                                                                 {initializing, "initializing"},
                                                                 {linkDown, "linkDown"},
                                                                 {linkUp, "linkUp"},
                                                                 {failed, "failed"}});
}
constexpr PhyState PhyStateInstance(std::uint32_t number) {
   return Mox::enumInstance<PhyState>(number);
}

enum class LinkStatus : std::int32_t { unknown = 0, down = 1, up = 2 };
constexpr auto moxEnum(LinkStatus) {
   using enum LinkStatus;
   return Mox::enumeration<LinkStatus>("Hardware::Phy::LinkStatus", {{unknown, "unknown"}, {down, "down"}, {up, "up"}});
}
constexpr LinkStatus LinkStatusInstance(std::uint32_t number) {
   return Mox::enumInstance<LinkStatus>(number);
}

/// Speed that the PHY runs at.
enum class Speed : std::int32_t {
   unknown = 0,
   mbps10 = 1,
   mbps100 = 2,
   gbps1 = 3,
   gbps10 = 4,
   gbps25 = 5,
   gbps40 = 6,
   gbps50 = 7,
   gbps100 = 8,
   gbps200 = 9,
   gbps400 = 10,
};
constexpr auto moxEnum(Speed) {
   using enum Speed;
   return Mox::enumeration<Speed>("Hardware::Phy::Speed", {{unknown, "unknown"},
                                                           {mbps10, "10 Mbit/s"},
                                                           {mbps100, "100 Mbit/s"},
                                                           {gbps1, "1 Gbit/s"},
                                                           {gbps10, "10 Gbit/s"},
                                                           {gbps25, "25 Gbit/s"},
                                                           {gbps40, "40 Gbit/s"},
                                                           {gbps50, "50 Gbit/s"},
                                                           {gbps100, "100 Gbit/s"},
                                                           {gbps200, "200 Gbit/s"},
                                                           {gbps400, "400 Gbit/s"}});
}
constexpr Speed SpeedInstance(std::uint32_t number) {
   return Mox::enumInstance<Speed>(number);
}

using Mox::EnumText::operator<<;

} // namespace Hardware::Phy
