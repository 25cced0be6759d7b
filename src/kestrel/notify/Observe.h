// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/notify/EntityReactor.h"

#include <concepts>
#include <type_traits>
#include <utility>

namespace Mox {

/// Keeps a lambda registered on an entity until the watch ends. Movable. It does not keep the entity alive: when the
/// entity goes, the lambda is not called any more.
class Watch {
public:
   Watch() = default;
   explicit Watch(Ptr<PtrInterface::NotifieeConst> reactor) : reactor_(std::move(reactor)) {}
   Watch(Watch&&) noexcept = default;
   Watch& operator=(Watch&& other) noexcept {
      stop();
      reactor_ = std::move(other.reactor_);
      return *this;
   }
   ~Watch() { stop(); }

   /// Nothing is delivered until `resume`, which puts the reactor behind the others.
   void pause() {
      if (reactor_)
         reactor_->hasNotificationActiveIs(false);
   }
   void resume() {
      if (reactor_)
         reactor_->hasNotificationActiveIs(true);
   }
   /// Ends the watch early.
   void stop() noexcept {
      if (!reactor_)
         return;
      reactor_->isRegisteredNotifieeIs(false);
      reactor_->notifierIs(nullptr);
      reactor_ = nullptr;
   }
   explicit operator bool() const noexcept { return static_cast<bool>(reactor_); }

private:
   Ptr<PtrInterface::NotifieeConst> reactor_;
};

namespace detail {

template <class X>
using InterfaceFor = std::conditional_t<std::is_const_v<X>, typename X::NotifieeConst, typename X::Notifiee>;

/// Whether the generated reactors of `X` have been included.
template <class X> constexpr bool hasReactors = requires { sizeof(InterfaceFor<X>); };

/// Reactor of one attribute.
template <class X, class A, class Call>
class AttributeWatch final
   : public std::remove_const_t<X>::template MoxForwarder<InterfaceFor<X>, AttributeWatch<X, A, Call>> {
public:
   explicit AttributeWatch(Call call) : call_(std::move(call)) {}

   template <class B, class... Key> void forward(B, Key const&... key) {
      if constexpr (std::same_as<A, B>) {
         static_assert(std::invocable<Call&, X&, Key const&...>,
                       "Mox::on calls its function with the entity, and for a keyed attribute with the key behind it");
         if (auto const entity = this->notifier())
            call_(*entity, key...);
      }
   }

private:
   Call call_;
};

/// Reactor of every attribute.
template <class X, class Call>
class AnyWatch final : public std::remove_const_t<X>::template MoxForwarder<InterfaceFor<X>, AnyWatch<X, Call>> {
public:
   explicit AnyWatch(Call call) : call_(std::move(call)) {}

   template <class B, class... Key> void forward(B, Key const&...) {
      if (auto const entity = this->notifier())
         call_(*entity, B::id);
   }

private:
   Call call_;
};

template <class Reactor, class X, class Call> Watch watch(Ptr<X> const& entity, Call&& call) {
   auto const reactor = make<Reactor>(std::forward<Call>(call));
   reactor->isWeakReferenceIs(true);
   reactor->notifierIs(entity);
   reactor->isRegisteredNotifieeIs(true);
   return Watch(reactor);
}

} // namespace detail

/// Calls `call(entity)`, for a keyed attribute `call(entity, key)`, after each change of `attribute`. Const stays const: what
/// watches a `Ptr<X const>` is handed an `X const&`.
/// \throws RangeException "null ValidPtr" for a null entity
template <class X, class A, class Call> [[nodiscard]] Watch on(Ptr<X> const& entity, A, Call call) {
   static_assert(
      requires { typename A::Owner; }, "Mox::on takes an attribute, as in Cl10010Config::Attr::rollOff");
   static_assert(std::derived_from<std::remove_const_t<X>, typename A::Owner>,
                 "Mox::on: the attribute is none of this entity's type or its bases");
   if constexpr (detail::hasReactors<X>) {
      return detail::watch<detail::AttributeWatch<X, A, Call>>(static_cast<Ptr<X> const&>(ValidPtr<X>(entity)),
                                                               std::move(call));
   } else {
      std::remove_const_t<X>::template moxReactorHeader<false>();
      return {};
   }
}

/// Calls `call(entity, identifier)` after each change of any attribute.
template <class X, class Call> [[nodiscard]] Watch onAny(Ptr<X> const& entity, Call call) {
   static_assert(std::invocable<Call&, X&, AttributeId>,
                 "Mox::onAny calls its function with the entity and the attribute's identifier");
   if constexpr (detail::hasReactors<X>) {
      return detail::watch<detail::AnyWatch<X, Call>>(static_cast<Ptr<X> const&>(ValidPtr<X>(entity)), std::move(call));
   } else {
      std::remove_const_t<X>::template moxReactorHeader<false>();
      return {};
   }
}

} // namespace Mox
