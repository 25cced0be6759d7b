// A house is heated in one process and watched in another.

#include "house/PlaceReactor.h"
#include "net/SocketException.h"
#include "net/UnixClient.h"
#include "net/UnixServer.h"
#include "notify/Observe.h"

#include <iostream>
#include <string>
#include <thread>

using House::Place;
using namespace std::chrono_literals;

namespace {

/// Owns the house, and heats its kitchen until somebody who watched has gone.
int heat(std::string const& path) {
   auto const house = Mox::make<Place>("house");
   auto const kitchen = house->placeIs("kitchen");
   auto const comfort = Mox::on(kitchen, Place::Attr::temperature, [](Place& p) { p.isWarmIs(p.temperature() >= 21); });

   Mox::UnixServer server(path);
   server.exportRoot(house);
   bool isOver = false;
   server.onPeer([&](Mox::PeerEvent const& event) { isOver = event.kind == Mox::PeerEvent::Kind::lost; });
   while (!isOver) {
      if (kitchen->temperature() < 21)
         kitchen->temperatureIs(kitchen->temperature() + 0.125F);
      server.pollOnce(10ms);
   }
   return 0;
}

/// The other process may take a moment to listen.
void connect(Mox::UnixClient& client, std::string const& path) {
   for (int tries = 500;; --tries) {
      try {
         return client.connect(path);
      } catch (Mox::SocketException const&) {
         if (tries == 0)
            throw;
      }
      std::this_thread::sleep_for(10ms);
   }
}

/// Mirrors the house, and tells of every room and when it is warm.
int watch(std::string const& path) {
   Mox::UnixClient client;
   auto const house = client.mount<Place>("house");
   bool isWarm = false;
   Mox::Watch warmth;
   auto const rooms = Mox::on(house, Place::Attr::place, [&](Place& h, Mox::Name const& name) {
      auto const room = h.place(name);
      if (!room)
         return; // it has gone
      std::cout << h.name() << " has a " << name << '\n';
      warmth = Mox::on(room, Place::Attr::isWarm, [&](Place& r) {
         std::cout << r.name() << " is warm: " << r.temperature() << " degrees\n";
         isWarm = true;
      });
   });
   connect(client, path);
   return client.waitUntil([&] { return isWarm; }, 10s) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
   std::string const role = argc == 3 ? argv[1] : "";
   try {
      if (role == "heat")
         return heat(argv[2]);
      if (role == "watch")
         return watch(argv[2]);
   } catch (Mox::Exception const& e) {
      std::cerr << e.what() << '\n';
      return 1;
   }
   std::cerr << "usage: house heat|watch SOCKET\n";
   return 2;
}
