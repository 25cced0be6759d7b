// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Mark.h"
#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/entities/Cl10010Status.h"
#include "kestrel/notify/Observe.h"
#include "kestrel/siblings/Gpo.h"

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Hardware::ClariPhy::Cl10010Status;

namespace Rack {

enum class Gear : std::int32_t { first = 1, second = 2 };
constexpr auto moxEnum(Gear) {
   return Mox::enumeration<Gear>("Rack::Gear", {{Gear::first, "first"}, {Gear::second, "second"}});
}
struct Length {
   Length() = default;
   Length(int) {}
};

} // namespace Rack

[[maybe_unused]] constexpr Mox::ScalarAttribute<Cl10010Config, 300, Rack::Gear, true> gear;
static_assert(Mox::isFirst<Rack::Gear>([] { return 2; }) && !Mox::isFirst<Rack::Gear>([] { return 3; }));
static_assert(Mox::isFirst<U4>([] { return 0xf; }) && !Mox::isFirst<U4>([] { return 0x10; }));
static_assert(Mox::isFirst<Phy::Coherent::RollOff>([] { return 1.0F; }));
static_assert(!Mox::isFirst<Phy::Coherent::RollOff>([] { return 1.5F; }));
static_assert(Mox::isFirst<Rack::Length>([] { return 4; }), "what is made at run time only");

void use(Mox::Ptr<Cl10010Config> const& port, Mox::Ptr<Cl10010Config const> const& readOnly) {
   auto const a = Mox::on(port, Cl10010Config::Attr::wakeupTime, [](Cl10010Config& c) { c.refClockIs(1); });
   auto const b =
      Mox::on(readOnly, Cl10010Config::Attr::calibration, [](Cl10010Config const&, Xcvr::CfpxHostChannel) {});
   Cl10010Status status("port", nullptr, nullptr);
   Cl10010ConfigDir dir("config");
   Cl10010ConfigDir const& constDir = dir;
   for (auto it = dir.phyConfigIterator(); it; it.advance())
      it.entry()->rollOffIs(port->rollOff());
   for (auto const& [lane, v] : status.amplitude())
      status.amplitudeIs(lane, v);
   if (constDir.phyConfig("port"))
      dir.phyConfig("port")->refClockIs(port->calibration(Xcvr::CfpxHostChannel::channel0).gain);
#if defined(ForeignAttribute)
   auto const w = Mox::on(port, Fru::Gpo::Attr::asserted, [](Cl10010Config const&) {});
#elif defined(NoAttribute)
   auto const w = Mox::on(port, 394, [](Cl10010Config const&) {});
#elif defined(KeyForgotten)
   auto const w = Mox::on(port, Cl10010Config::Attr::calibration, [](Cl10010Config const&) {});
#elif defined(ConstLost)
   auto const w = Mox::on(readOnly, Cl10010Config::Attr::rollOff, [](Cl10010Config&) {});
#elif defined(NoIdentifier)
   auto const w = Mox::onAny(port, [](Cl10010Config const&) {});
#elif defined(ReactorForgotten)
   auto const w = Mox::on(Mox::make<Fru::Gpo>("reset"), Fru::Gpo::Attr::asserted, [](Fru::Gpo&) {});
#elif defined(ReactorForgottenForAny)
   auto const w = Mox::onAny(Mox::make<Fru::Gpo>("reset"), [](Fru::Gpo&, Mox::AttributeId) {});
#elif defined(BareNew)
   auto* const w = new Cl10010Config("port");
#elif defined(NotCounted)
   auto const w = Mox::make<int>(1);
#elif defined(CompoundKey)
   Mox::NboAttrLog::Mark const mark(258, Kiln::ConditionStat{});
#elif defined(FractionalKey)
   Mox::NboAttrLog::Mark const mark(258, 0.5);
#elif defined(ScalarWithoutZero)
   Mox::ScalarAttribute<Cl10010Config, 300, Rack::Gear> const a0;
#elif defined(OptionalWithoutZero)
   Mox::OptionalAttribute<Cl10010Config, 300, Rack::Gear> const a0;
#elif defined(ElementWithoutZero)
   Mox::ArrayAttribute<Cl10010Config, 300, Mox::DynArray<Rack::Gear, ClariPhyTypes::HostLane, 10>> const a0;
#elif defined(ArrayBehindTheEntity)
   status.amplitude().store(2, 1.5F);
#elif defined(MapBehindTheEntity)
   port->calibration().clear();
#elif defined(MembersBehindTheEntity)
   dir.phyConfig().clear();
#elif defined(EntryBehindTheEntity)
   port->calibrationIterator().entry()->valueIs({1, 2, 3});
#elif defined(MemberOfConstEntity)
   constDir.phyConfig("port")->refClockIs(1);
#elif defined(IteratorOfConstEntity)
   auto it = constDir.phyConfigIterator();
#elif defined(AssignedScalar)
   port->rollOff() = 0.5F;
#elif defined(AssignedText)
   port->name() = "another";
#elif defined(AssignedReference)
   port->resetUc() = nullptr;
#elif defined(AssignedMember)
   dir.phyConfig("port") = nullptr;
#elif defined(AssignedValue)
   port->calibration(Xcvr::CfpxHostChannel::channel0) = {1, 2, 3};
#endif
}
