// SPDX-License-Identifier: Apache-2.0
#include "kestrel/mox/Reactor.h"

#include "kestrel/mox/Activity.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/mox/Swallowed.h"

namespace Mox {

std::uint64_t PtrInterface::NotifieeConst::swallowedExceptions() noexcept {
   return Mox::swallowedExceptions();
}

PtrInterface::NotifieeConst::~NotifieeConst() {
   flagIs(dyingFlag, true);
   leaveList();
   notifierEntityIs(nullptr);
}

void PtrInterface::NotifieeConst::hasNotificationActiveIs(bool active) {
   if (active == hasNotificationActive())
      return;
   if (!active) {
      flagIs(activeFlag, false);
      flagIs(registeredWhenPausedFlag, registered_);
      isRegisteredNotifieeIs(false);
   } else {
      flagIs(activeFlag, true);
      if (flag(registeredWhenPausedFlag))
         isRegisteredNotifieeIs(true);
   }
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
   if (registered_ == registered)
      return;
   registered_ = registered;
   if (notifier_ == nullptr)
      return;
   if (registered) {
      if (weak_)
         notifier_->idleWeakDel(*this);
      notifier_->reactorIs(*this);
   } else {
      notifier_->reactorDel(*this);
      if (weak_)
         notifier_->idleWeakIs(*this);
   }
}

void PtrInterface::NotifieeConst::leaveList() const {
   NotifieeConst::isRegisteredNotifieeIs(false);
}

void PtrInterface::NotifieeConst::join(Entity const& notifier) const {
   if (registered_)
      notifier.reactorIs(*this);
   else if (weak_)
      notifier.idleWeakIs(*this);
}

void PtrInterface::NotifieeConst::leave(Entity const& notifier) const {
   if (registered_)
      notifier.reactorDel(*this);
   else if (weak_)
      notifier.idleWeakDel(*this);
}

void PtrInterface::NotifieeConst::isWeakReferenceIs(bool weak) {
   if (weak == weak_)
      return;
   Entity const* const notifier = notifier_;
   if (notifier != nullptr && !weak)
      notifier->referenceInc();
   if (notifier != nullptr && !registered_) {
      if (weak)
         notifier->idleWeakIs(*this);
      else
         notifier->idleWeakDel(*this);
   }
   weak_ = weak;
   if (notifier != nullptr && weak)
      notifier->referenceDec(); // may be the last one: nothing of this reactor is touched after it
}

void PtrInterface::NotifieeConst::notifierEntityIs(Entity const* notifier) {
   Entity const* const before = notifier_;
   if (notifier == before)
      return;
   bool const wasWeak = weak_; // code that runs when the old notifier goes may change it
   if (notifier != nullptr && !wasWeak)
      notifier->referenceInc();
   // The same link serves a notifier's list and its chain of idle weak reactors: the reactor leaves the old notifier
   // before it joins the new one.
   if (before != nullptr)
      leave(*before);
   notifier_ = notifier;
   if (notifier != nullptr)
      join(*notifier);
   if (before != nullptr && !wasWeak)
      before->referenceDec();
}

void PtrInterface::NotifieeConst::notifierIs(Ptr<PtrInterface const> const& notifier) {
   notifierEntityIs(dynamic_cast<Entity const*>(notifier.get()));
}

Ptr<PtrInterface> PtrInterface::NotifieeConst::moxReactor() const {
   return Ptr<PtrInterface>(moxRawReactor());
}

PtrInterface* PtrInterface::NotifieeConst::moxRawReactor() const {
   return const_cast<NotifieeConst*>(this);
}

bool PtrInterface::NotifieeConst::isStreamAdapter() const {
   return false;
}

Name PtrInterface::NotifieeConst::name() const {
   return notifier_ == nullptr ? Name() : notifier_->name();
}

void PtrInterface::NotifieeConst::onNotificationException(AttributeId id) {
   class_->swallowedExceptionsInc();
   detail::exceptionSwallowed(notifier_, id);
}

void PtrInterface::NotifieeConst::handleNotificationException(AttributeId id) {
   onNotificationException(id);
}

void PtrInterface::NotifieeConst::handleNotificationException() {
   onNotificationException();
}

// The slots of the framework's own dispatch: deferred and generic reactors override them.
void PtrInterface::NotifieeConst::mox_bitSetIs(Mox_BitSet) {}
void PtrInterface::NotifieeConst::handleNotification(ActivityConfig*) {}
void PtrInterface::NotifieeConst::handleDefault(ActivityConfig*, AttributeId, bool) {}
void PtrInterface::NotifieeConst::onAttribute(AttributeId) {}
void PtrInterface::NotifieeConst::onNotification() {}
void PtrInterface::NotifieeConst::onCollectionNotification(String8) {}
void PtrInterface::NotifieeConst::onNotificationException() {}
void PtrInterface::NotifieeConst::onZeroReferences() {}
Ptr<Activity> PtrInterface::NotifieeConst::activityPtr() const {
   return nullptr;
}
Activity* PtrInterface::NotifieeConst::moxFwkActivity() {
   return nullptr;
}
Activity const* PtrInterface::NotifieeConst::moxFwkActivity() const {
   return nullptr;
}
Activity* PtrInterface::NotifieeConst::actsm() {
   return nullptr;
}

} // namespace Mox
