// SPDX-License-Identifier: Apache-2.0
#include "kestrel/mox/Entity.h"

#include "kestrel/containers/SnapshotIterator.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"
#include "kestrel/mox/MoxType.h"

namespace Mox {

Entity::Entity(Name name) : PtrInterface(entityKind), name_(std::move(name)) {}

Entity::~Entity() {
   moxEnd();
}

void Entity::hasNotificationActiveIs(bool) {}

Ptr<MoxType const> Entity::_fwkType() {
   static Ptr<MoxType const> const type = [] {
      auto const root = make<MoxType>("Mox::PtrInterface", Ptr<MoxType const>(), EntityOperations{});
      return Ptr<MoxType const>(make<MoxType>("Mox::Entity", root, EntityOperations{}));
   }();
   return type;
}

Ptr<MoxType const> Entity::fwkType() const {
   return _fwkType();
}

namespace {

/// One pass of a notification that every entity has, whatever its type.
template <class Call> void deliverToAll(ListRaw<PtrInterface::NotifieeConst> const& list, AttributeId id, Call call) {
   visitSnapshot(list, [&](PtrInterface::NotifieeConst& reactor) {
      try {
         Expect const scope(0);
         call(reactor);
      } catch (...) {
         reactor.onNotificationException(id);
      }
   });
}

} // namespace

void Entity::zeroReferencesIs(bool) {
   if (!reactors_.empty())
      deliverToAll(reactors_, attr::zeroReferences, [](PtrInterface::NotifieeConst& r) { r.onZeroReferences(); });
}

void Entity::handleParent(Ptr<Entity> const&) {
   if (!reactors_.empty())
      deliverToAll(reactors_, attr::parent, [](PtrInterface::NotifieeConst& r) {
         if (r.isOfClass<NotifieeConst>())
            static_cast<NotifieeConst&>(r).onParent();
      });
}

Name Entity::name() const {
   return name_;
}

Ptr<Entity const> Entity::parent() const {
   return Ptr<Entity const>(parent_);
}

Ptr<Entity> Entity::parent() {
   return Ptr<Entity>(parent_);
}

void Entity::parentIs(Ptr<Entity> const& parent) {
   if (parent == parent_)
      return;
   if (parent) {
      // Only an entity that has been a parent can stand above `parent`: a new member saves the walk.
      if (parent == this || hasBeenParent_)
         for (Entity const* above = parent.get(); above != nullptr; above = above->parent_)
            if (above == this)
               throwInternalException("an entity would stand above itself: " +
                                      std::string(std::string_view(fullName())));
      parent->hasBeenParent_ = true;
   }
   Ptr<Entity> const before(parent_ != nullptr && !parent_->moxIsDying() ? parent_ : nullptr);
   parent_ = parent.get();
   moxChangeCountInc();
   handleParent(before);
}

String8 Entity::parentAttr() const {
   return parent_ == nullptr ? String8() : parent_->attributeString(parentAttrId_);
}

AttributeId Entity::parentAttrId() const {
   return parentAttrId_;
}

void Entity::parentAttrIdIs(AttributeId id) {
   parentAttrId_ = id;
}

namespace {

/// A directory: a type directly below `Mox::Entity` whose members can only be in one place.
bool hasOneCollection(Entity const& entity) {
   Ptr<MoxType const> const type = entity.fwkType();
   return type->level() == Entity::moxLevel + 1 && type->operations().collections == 1;
}

} // namespace

String8 Entity::uriPath() const {
   // From the entity upward. The depth is small, and no step needs the text of its parent.
   std::string path;
   for (Entity const* e = this; e != nullptr; e = e->parent_) {
      std::string step = "/";
      if (e->parent_ != nullptr && !hasOneCollection(*e->parent_))
         step += percentEncoded(e->parentAttr()) + "/";
      step += percentEncoded(e->name_);
      path.insert(0, step);
   }
   return String8(path);
}

String8 Entity::fullName() const {
   return uriPath();
}

String8 Entity::fullNameOf(Entity const* entity) {
   return entity == nullptr ? String8("null") : entity->fullName();
}

String8 Entity::attributeString(AttributeId id) const {
   for (Ptr<MoxType const> type = fwkType(); type; type = type->base())
      if (auto const nameOf = type->operations().attributeName)
         if (std::string_view const name = nameOf(id); !name.empty())
            return String8(name);
   switch (id) {
   case attr::name:
      return "name";
   case attr::parent:
      return "parent";
   case attr::hasAttrLogInterface:
      return "moxHasAttrLogInterface";
   default:
      return "unknown";
   }
}

void Entity::moxNotifieeAdapterIs(Ptr<PtrInterface::NotifieeConst> const& adapter) {
   if (adapter)
      adapter->notifierIs(Ptr<PtrInterface const>(this));
}

bool Entity::moxHasAttrLogInterface() const {
   return false;
}

unsigned Entity::auditErrors(unsigned depth) const {
   unsigned errors = PtrInterface::auditErrors(depth);
   std::size_t counted = 0;
   bool adaptersOver = false;
   for (auto* r = reactors_.first(); r != nullptr && counted <= reactors_.size(); r = r->moxNextInList(), ++counted) {
      errors += r->notifier_ != this;
      errors += !r->isRegisteredNotifiee();
      errors += r->isAtHead_ && adaptersOver;
      adaptersOver = !r->isAtHead_;
   }
   errors += counted != reactors_.size();
   for (auto* r = idleWeak_; r != nullptr; r = r->moxNextInList())
      errors += r->notifier_ != this || !r->isWeakReference() || r->isRegisteredNotifiee();
   for (Ptr<MoxType const> type = fwkType(); type; type = type->base())
      if (auto const audit = type->operations().auditErrors)
         errors += audit(*this, depth);
   return errors;
}

unsigned Entity::moxAuditErrors(unsigned depth) const {
   return auditErrors(depth);
}

void Entity::reactorIs(PtrInterface::NotifieeConst const& reactor) const {
   auto& r = const_cast<PtrInterface::NotifieeConst&>(reactor);
   // `moxReactor` decides, and not `isStreamAdapter`, to which a reactor from outside the library may answer anything.
   Ptr<PtrInterface> const object = r.moxReactor();
   r.isAtHead_ = object && object->moxIsStateAdapter();
   if (r.isAtHead_)
      reactors_.pushFront(r);
   else
      reactors_.pushBack(r);
}

void Entity::reactorDel(PtrInterface::NotifieeConst const& reactor) const {
   reactors_.unlink(const_cast<PtrInterface::NotifieeConst&>(reactor));
}

void Entity::idleWeakIs(PtrInterface::NotifieeConst const& reactor) const {
   auto& r = const_cast<PtrInterface::NotifieeConst&>(reactor);
   r.moxNextInListIs(idleWeak_);
   idleWeak_ = &r;
}

void Entity::idleWeakDel(PtrInterface::NotifieeConst const& reactor) const {
   PtrInterface::NotifieeConst* before = nullptr;
   for (auto* r = idleWeak_; r != nullptr; before = r, r = r->moxNextInList()) {
      if (r != &reactor)
         continue;
      if (before == nullptr)
         idleWeak_ = r->moxNextInList();
      else
         before->moxNextInListIs(r->moxNextInList());
      r->moxNextInListIs(nullptr);
      return;
   }
}

} // namespace Mox
