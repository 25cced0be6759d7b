// SPDX-License-Identifier: Apache-2.0
// Types by name alone: nothing here refers to one of them, so only its library's registration unit can make it known.

#include <kestrel/mox/MoxType.h>

#include <iostream>

int main() {
   int unknown = 0;
   for (char const* name : {"Rack::Slot", "Hardware::ClariPhy::Cl10010Config", "Hardware::Phy::PhyStatus", "Fru::Gpo"})
      if (!Mox::MoxType::find(name)) {
         std::cout << name << " is not known\n";
         ++unknown;
      }
   return unknown;
}
