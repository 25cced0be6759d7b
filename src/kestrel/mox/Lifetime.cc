// SPDX-License-Identifier: Apache-2.0
// The order of dying, in one place: what an object does between its last reference and its destructor.

#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/mox/MoxType.h"
#include "kestrel/mox/Reactor.h"
#include "kestrel/mox/Swallowed.h"

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
   // The process can't go on: no exception leaves a destructor, so this one ends the process, and the handler of
   // `std::terminate` finds in it what was wrong.
   if (references() != 1)
      throwInternalException("a counted object is destroyed while somebody references it");
}

namespace {

/// Runs one step of an object's end; `entity` is that object if it is an entity. An exception stops nothing; it can
/// only come from a reactor whose own `onNotificationException` throws.
template <class Step> void whileGoing(Entity const* entity, Step step) noexcept {
   try {
      step();
   } catch (...) {
      detail::exceptionSwallowed(entity, attr::zeroReferences);
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
      whileGoing(nullptr, [&] { self->zeroReferencesIs(false); });
   }
   delete self;
}

void Entity::moxEnd() noexcept {
   if (flag(dyingFlag))
      return;
   flagIs(dyingFlag, true);
   whileGoing(this, [&] { zeroReferencesIs(false); });
   for (Ptr<MoxType const> type = fwkType(); type; type = type->base())
      if (auto const membersDelAll = type->operations().membersDelAll)
         whileGoing(this, [&] { membersDelAll(*this); });
   // One at a time from the head: releasing a reactor may run code that takes others off.
   while (auto* const reactor = reactors_.first()) {
      reactors_.unlink(*reactor);
      // The reactor stays flagged as registered, so that it joins the list of the next notifier it is given.
      reactor->notifier_ = nullptr;
      // A reactor that is not weak is still here only if no count keeps the object alive: the object is on the stack,
      // or the reactor was attached while the object goes. The object is dying and is not deleted again, which the
      // analyzer can't see.
      if (!reactor->weak_)
         referenceDec(); // NOLINT(clang-analyzer-cplusplus.NewDelete)
   }
   while (auto* const reactor = idleWeak_) { // NOLINT(clang-analyzer-cplusplus.NewDelete)
      idleWeakDel(*reactor);
      reactor->notifier_ = nullptr;
   }
}

} // namespace Mox
