#include "entities/Cl10010ConfigReactor.h"
#include "notify/Observe.h"
#include "siblings/GpoReactor.h"

using Hardware::ClariPhy::Cl10010Config;

void use(Mox::Ptr<Cl10010Config> const& port, Mox::Ptr<Cl10010Config const> const& readOnly) {
   auto const a = Mox::on(port, Cl10010Config::Attr::wakeupTime, [](Cl10010Config& c) { c.refClockIs(1); });
   auto const b =
      Mox::on(readOnly, Cl10010Config::Attr::calibration, [](Cl10010Config const&, Xcvr::CfpxHostChannel) {});
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
#elif defined(BareNew)
   auto* const w = new Cl10010Config("port");
#elif defined(NotCounted)
   auto const w = Mox::make<int>(1);
#endif
}
