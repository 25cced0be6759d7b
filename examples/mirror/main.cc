// SPDX-License-Identifier: Apache-2.0
// An entity changes, and its mirror follows.

#include <kestrel/Kestrel.h>

#include <iostream>

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;

int main() {
   Mox::exceptionHookIs([](std::string const& text) { std::cerr << text << '\n'; });
   auto ours = Mox::make<Cl10010ConfigDir>("config");
   Mox::LocalLink link;
   link.left().exportRoot(ours);
   auto theirs = link.right().mount<Cl10010ConfigDir>("config");
   auto port = ours->phyConfigIs("port-7");
   link.settle();
   auto watch = Mox::on(theirs->phyConfig("port-7"), Cl10010Config::Attr::rollOff, [](Cl10010Config const& c) {
      std::cout << c.name() << " roll-off is now " << c.rollOff() << '\n';
   });
   port->rollOffIs(0.2F);  // equal: nothing happens
   port->rollOffIs(0.35F); // one record, one line
   link.settle();
}
