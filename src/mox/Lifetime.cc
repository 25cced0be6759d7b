// The order of dying, in one place: what an object does between its last reference and its destructor.

#include "core/Ptr.h"
#include "mox/Entity.h"
#include "mox/MoxType.h"
#include "mox/Reactor.h"

#include <cstdio>
#include <exception>

namespace Mox {

void PtrInterface::hasNotificationActiveIs(bool) {}

unsigned PtrInterface::moxAuditErrors(unsigned depth) const {
   return auditErrors(depth);
}

unsigned PtrInterface::auditErrors(unsigned) const {
   return references() == 0 ? 1 : 0;
}

void PtrInterface::zeroReferencesIs(bool) {}

Ptr<MoxType const> PtrInterface::fwkType() const {
   return nullptr;
}

PtrInterface::~PtrInterface() {
   if (references() != 1) {
      std::fputs("Mox: a counted object is destroyed while somebody references it\n", stderr);
      std::terminate();
   }
}

namespace {

/// One step of an object's end. What it throws stops nothing: only a reactor whose own onNotificationException throws does.
template <class Step> void whileGoing(Step step) noexcept {
   try {
      step();
   } catch (std::exception const& e) {
      std::fprintf(stderr, "Mox: ignored while an object goes: %s\n", e.what());
   } catch (...) {
      std::fputs("Mox: ignored while an object goes: an exception of a foreign type\n", stderr);
   }
}

} // namespace

void PtrInterface::lastReference() const noexcept {
   auto* const self = const_cast<PtrInterface*>(this);
   // Back to one: a Ptr taken and dropped from here on can't bring the count to zero a second time.
   self->referenceInc();
   if (kind() == reactorKind)
      static_cast<NotifieeConst*>(self)->leaveList();
   if (kind() == entityKind) {
      static_cast<Entity*>(self)->moxEnd();
   } else {
      self->flagIs(dyingFlag, true);
      whileGoing([&] { self->zeroReferencesIs(false); });
   }
   delete self;
}

void Entity::moxEnd() noexcept {
   if (flag(dyingFlag))
      return;
   flagIs(dyingFlag, true);
   whileGoing([&] { zeroReferencesIs(false); });
   for (Ptr<MoxType const> type = fwkType(); type; type = type->base())
      if (auto const membersDelAll = type->operations().membersDelAll)
         whileGoing([&] { membersDelAll(*this); });
   // One at a time from the head: letting go of a reactor may run code that takes others off.
   while (auto* const reactor = reactors_.first()) {
      reactors_.unlink(*reactor);
      // Still flagged as registered, so that it joins the list of the next notifier it is given.
      reactor->notifier_ = nullptr;
      // Of an object that no count keeps alive: one on the stack, or one that is watched while it goes. It is dying, and not
      // deleted again, which the analyzer can't see.
      if (!reactor->weak_)
         referenceDec(); // NOLINT(clang-analyzer-cplusplus.NewDelete)
   }
   while (auto* const reactor = idleWeak_) { // NOLINT(clang-analyzer-cplusplus.NewDelete)
      idleWeakDel(*reactor);
      reactor->notifier_ = nullptr;
   }
}

} // namespace Mox
