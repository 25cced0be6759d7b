// Made by moxc: the types of Rack, made known when the library is loaded.
#include "mox/MoxType.h"
#include "rack/Cooling.h"
#include "rack/Fan.h"
#include "rack/Probe.h"
#include "rack/Unit.h"

// Has a name that a linker can be told, which takes the unit from a static library although nothing calls into it; hidden,
// because two libraries of one process may have a unit of the same name.
extern "C" [[gnu::visibility("hidden")]] void moxInitRack() {
   Rack::Unit::_fwkType();
   Rack::Fan::_fwkType();
   Rack::Probe::_fwkType();
   Rack::Cooling::_fwkType();
}

namespace {

Mox::TypeRegistration const registration(&moxInitRack);

// The qualified names of the library's types, for tools that look into the file without loading it.
#if defined(__has_cpp_attribute) && __has_cpp_attribute(gnu::retain)
[[gnu::retain]]
#endif
[[gnu::section(".mox.type"), gnu::used]] alignas(1) constexpr char typeNames[] =
   "Rack::Unit\0"
   "Rack::Fan\0"
   "Rack::Probe\0"
   "Rack::Cooling";

} // namespace
