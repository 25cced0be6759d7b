// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/LevelIn.h"
#include "kestrel/attrlog/LevelOut.h"

// What the log does with a type that it does not know: its adapters, and entities made from a record.

namespace Mox::NboAttrLog {

namespace detail {

template <class X> Ptr<Entity::MoxNboAttrLogSa> makeAdapter(Entity& entity, Mox_BitSet flags, Demuxer& demuxer) {
   using Sa = typename X::MoxNboAttrLogSa;
   auto const sa = make<Sa>(flags, Ptr<X>(static_cast<X*>(&entity)), &demuxer);
   sa->reactorIs(make<typename Sa::MoxNboAttrLogSaAdapter_>(sa.get()));
   return sa;
}

template <class X> bool isAdapter(Entity::MoxNboAttrLogSa const& sa) {
   return dynamic_cast<typename X::MoxNboAttrLogSa const*>(&sa) != nullptr;
}

template <class X> Ptr<Entity> createFrom(Name const& name, In& in, Demuxer& demuxer) {
   return std::apply([&](auto const&... p) { return Ptr<Entity>(make<X>(name, p...)); },
                     readParameters(typename X::MoxParameters{}, in, demuxer));
}

template <class... Ps, class Values, class X>
bool parametersEqual(TypeList<Ps...>, [[maybe_unused]] X const& entity, Values const& values) {
   return std::apply([&](auto const&... v) { return ((Ps::cell(entity) == v) && ...); }, values);
}

template <class X> bool parametersMatch(Entity const& entity, In& in, Demuxer& demuxer) {
   return parametersEqual(typename X::MoxParameters{}, static_cast<X const&>(entity),
                          readParameters(typename X::MoxParameters{}, in, demuxer));
}

template <class X>
bool hasParameter(Entity const& entity, [[maybe_unused]] std::unordered_set<Entity const*> const& targets) {
   bool has = false;
   X::MoxParameters::forEach([&](auto p) { has |= targets.contains(p.cell(static_cast<X const&>(entity)).get()); });
   return has;
}

template <class X> constexpr TypeOperations operationsOf() {
   TypeOperations operations;
   operations.adapter = &makeAdapter<X>;
   operations.isAdapter = &isAdapter<X>;
   operations.parameters = X::MoxParameters::size;
   if constexpr (!X::moxIsAbstract) {
      operations.create = &createFrom<X>;
      operations.parametersMatch = &parametersMatch<X>;
      operations.writeParameters = &writeParameters<X>;
      operations.announceParameters = &announceParameters<X>;
      operations.hasParameter = &hasParameter<X>;
   }
   return operations;
}

} // namespace detail

template <class X> TypeOperations const* LevelSa<X>::typeOperations() noexcept {
   static constexpr TypeOperations operations = detail::operationsOf<X>();
   return &operations;
}

} // namespace Mox::NboAttrLog
