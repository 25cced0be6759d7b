// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/StateAdapter.h"
#include "kestrel/containers/HashMap.h"
#include "kestrel/containers/MapEntries.h"
#include "kestrel/containers/RbTreeMap.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/notify/EntityReactor.h"
#include "kestrel/notify/Kinds.h"

#include <array>
#include <bit>
#include <optional>
#include <tuple>
#include <type_traits>

// What each level of an entity type adds to the attribute log: its dirty bits and keys (`LevelFlow`), its share of draining
// and applying (`LevelSa`), and the reactor that carries its notifications to the adapter (`SaReactor`). The bodies stand in
// LevelOut.h, LevelFlow.h, LevelIn.h and LevelType.h, and are compiled once per type, in the type's own source.

namespace Mox::NboAttrLog {

/// What the records of a kind carry.
enum class WireClass {
   value,     ///< one value
   reference, ///< the identifier of a target
   element,   ///< a key that is always there, and its value
   entry,     ///< a key and its value; the key alone where it goes
   target,    ///< the identifier of a target, whose name is the key
   member,    ///< the announcement of an entity
};

/// No default: for a kind that is forgotten here this is no constant, and its attributes do not compile, rather than that they
/// travel as plain values.
constexpr WireClass wireClassOf(Kind kind) {
   switch (kind) {
   case Kind::scalar:
   case Kind::optional:
   case Kind::counter:
      return WireClass::value;
   case Kind::reference:
      return WireClass::reference;
   case Kind::array:
      return WireClass::element;
   case Kind::map:
   case Kind::hashMap:
      return WireClass::entry;
   case Kind::hashReferences:
      return WireClass::target;
   case Kind::collection:
   case Kind::hashCollection:
      return WireClass::member;
   case Kind::parameter: // has no records: it travels with the announcement of its entity
      break;
   }
   throwInternalException("a kind without records");
}
template <class A> constexpr WireClass wireClass = wireClassOf(A::kind);

template <class A>
constexpr bool isHashed =
   A::kind == Kind::hashMap || A::kind == Kind::hashCollection || A::kind == Kind::hashReferences;

template <class A> class DirtyKey;
template <class A>
using DirtyKeyBase = std::conditional_t<isHashed<A>, HashMapEntry<DirtyKey<A>, typename A::Key, bool>,
                                        RbTreeMapEntry<DirtyKey<A>, typename A::Key, bool>>;

/// A key of a collection that has changed since it was last sent. The value is the dirty flag; a false one keeps the entry.
template <class A> class DirtyKey final : public DirtyKeyBase<A> {
public:
   DirtyKey(typename A::Key const& key, bool dirty) : DirtyKeyBase<A>(key, dirty) {}

   /// The peer can know the key: it was announced, this or an earlier entity of that name. Only such a key leaves a mark behind
   /// when it goes.
   bool isKnown = true;
   /// The key was absent when it was last marked.
   bool isGone = false;
   /// It was parked, or asked for, and has not been told since: the end of its collection waits for it.
   bool isWoken = false;
};

/// The dirty keys of one collection, in the collection's own kind of container and so in its order.
template <class A> struct DirtyKeys {
   using Entry = DirtyKey<A>;
   using Map =
      std::conditional_t<isHashed<A>, HashMap<Entry, typename A::Key, bool>, RbTreeMap<Entry, typename A::Key, bool>>;
   Map map;
   std::size_t gone = 0;
   std::size_t woken = 0;
   std::optional<typename A::Key> last; ///< the key that was written last
};

namespace detail {

template <class List> struct DirtyKeysOf;
template <class... As> struct DirtyKeysOf<TypeList<As...>> {
   using Type = decltype(std::tuple_cat(
      std::declval<std::conditional_t<As::hasEntries, std::tuple<std::unique_ptr<DirtyKeys<As>>>, std::tuple<>>>()...));
};

template <class X> struct BaseLog {
   using Sa = typename X::MoxBase::MoxNboAttrLogSa;
   using Flow = typename X::MoxBase::MoxNboAttrLogSa::FlowOut;
};
template <class X>
   requires std::same_as<typename X::MoxBase, Entity>
struct BaseLog<X> {
   using Sa = Entity::MoxNboAttrLogSa;
   using Flow = NboAttrLog::FlowOut;
};

} // namespace detail

/// How far a collection with entries has come in a flow that owes it whole.
enum class Progress : std::uint8_t {
   told,    ///< it has been told whole, up to its end marker; only keys that have changed since may be owed
   owed,    ///< it is to be told from its begin, or from the flow's bookmark on
   walked,  ///< every entry has been written or parked; the end marker is still to come
   resting, ///< walked, and its end marker waits for a parked entry
};

/// What the level of `X` owes of one entity: a bit per attribute, and the changed keys of each collection. An array is owed as a
/// whole, by its bit; a collection's bit says that it is owed whole, and two more how far that has come (`Progress`).
template <class X> class LevelFlow : public detail::BaseLog<X>::Flow {
public:
   using Base = typename detail::BaseLog<X>::Flow;
   /// Bit 0 stands for the level's first identifier, whether or not an attribute has it.
   static constexpr AttributeId first = firstAttributeId(X::moxLevel);
   static constexpr unsigned words = (lastAttribute<X> - first) / 32 + 1;
   using Words = std::array<std::uint32_t, words>;

   explicit LevelFlow(AttributeId startAttribute);

   bool hasDirtyAttributes() const override;
   bool collectionsHaveSynced() const override;
   bool hasWork() const override;
   void woken() override {
      resting_ = {};
      Base::woken();
   }
   void openCollections(std::vector<AttributeId>& ids) const override;
   std::size_t dirtyKeys() const override;
   bool isMarked(Mark const& m) const override;

   template <class A> bool dirtyBit(A) const noexcept { return isSet(owed_, A::bit); }
   template <class A> void dirtyBitIs(A, bool on) noexcept { bitIs(owed_, A::bit, on); }
   /// An element of an array has changed behind the position of a resend: the array is sent once more.
   template <class A> void oweAgain(A) noexcept { bitIs(beside_, A::bit, true); }
   /// The array has been sent: clean, unless it is owed again.
   template <class A> void elementsSent(A a) noexcept {
      dirtyBitIs(a, isSet(beside_, A::bit));
      bitIs(beside_, A::bit, false);
   }

   template <class A> bool hasSynced(A a) const noexcept { return progress(a) == Progress::told; }
   template <class A> void hasSyncedIs(A a, bool on) noexcept { progressIs(a, on ? Progress::told : Progress::owed); }
   template <class A> Progress progress(A a) const noexcept {
      if (!dirtyBit(a))
         return Progress::told;
      if (!isSet(walked_, A::bit))
         return Progress::owed;
      return isSet(resting_, A::bit) ? Progress::resting : Progress::walked;
   }
   template <class A> void progressIs(A a, Progress progress) noexcept {
      dirtyBitIs(a, progress != Progress::told);
      bitIs(walked_, A::bit, progress == Progress::walked || progress == Progress::resting);
      bitIs(resting_, A::bit, progress == Progress::resting);
   }
   template <class A> bool isWalked(A) const noexcept { return isSet(walked_, A::bit); }
   /// A parked entry of the collection has been written or will never be: its end marker need not wait for that one.
   template <class A> void stopResting(A) noexcept { bitIs(resting_, A::bit, false); }
   /// The collection is owed whole, from its begin on.
   template <class A> void restarted(A a);

   /// Sets the value of the key's entry, inserting it if it is missing. \return the entry
   template <class A> DirtyKey<A>& dirtyKeyIs(A, typename A::Key const& key, bool dirty);
   template <class A> void dirtyKeyDel(A, typename A::Key const& key);
   template <class A> void dirtyKeysDelAll(A);
   /// Null while no key of the attribute was ever dirty on this flow.
   template <class A> DirtyKeys<A>* keys(A) const noexcept {
      return std::get<std::unique_ptr<DirtyKeys<A>>>(keys_).get();
   }

   /// The first attribute from `id` on of which a turn can write anything; past the last when there is none.
   AttributeId nextPending(AttributeId id) const noexcept;

private:
   static bool isSet(Words const& in, unsigned bit) noexcept { return (in[bit / 32] >> bit % 32 & 1u) != 0; }
   static void bitIs(Words& to, unsigned bit, bool on) noexcept {
      std::uint32_t const mask = 1u << bit % 32;
      to[bit / 32] = on ? to[bit / 32] | mask : to[bit / 32] & ~mask;
   }
   std::uint32_t pending(unsigned word) const noexcept { return owed_[word] | beside_[word]; }
   std::uint32_t workable(unsigned word) const noexcept { return (owed_[word] & ~resting_[word]) | beside_[word]; }
   static constexpr Words collections() noexcept {
      Words w{};
      X::MoxAttributes::forEach([&](auto a) {
         if (a.hasEntries)
            w[a.bit / 32] |= 1u << a.bit % 32;
      });
      return w;
   }

   Words owed_{};
   Words beside_{};  ///< owed beside that: collections with dirty keys, and arrays that are owed once more
   Words walked_{};  ///< of collections that are owed
   Words resting_{}; ///< of those that are walked
   typename detail::DirtyKeysOf<typename X::MoxAttributes>::Type keys_;
};

/// The share of one level of an entity type in its state adapter.
template <class X> class LevelSa : public detail::BaseLog<X>::Sa {
public:
   using Base = typename detail::BaseLog<X>::Sa;
   using Flow = LevelFlow<X>;

   AttributeId handleAttrFlowOut(AttributeId start) override;
   int handleAttrDeserialization(std::int32_t aid, DeserializationOptions options, unsigned count,
                                 Ptr<In> const& in) override;
   int handleAttrTransaction(AttributeId aid, AttrTransactionType type, unsigned count) override;
   void doNotification(AttributeId id, void* key) override;
   Ptr<FlowOut> flowOutIs(AttributeId startAttribute) override;
   void markAgain(Mark const& mark) override;
   void refreshAsked(Mark const& mark) override;
   void unmark(Mark const& mark) override;
   void markReferencesTo(std::unordered_set<Entity const*> const& targets) override;
   bool hasMembers(AttributeId id) const override;
   void announceMember(AttributeId id, Entity& member) override;
   void writeKey(Mark const& mark, std::vector<std::uint8_t>& bytes) const override;
   Mark readKey(AttributeId id, In& in) const override;

   void marksDel(AttributeId id) override;
   void tellUntold(Mark const& mark) override;
   void memberLeft(Mark const& mark) override;

   /// The operations through which the log reaches the type `X`; for its type object.
   static TypeOperations const* typeOperations() noexcept;

   LevelSa(Mox_BitSet flags, Ptr<X> const& entity, Demuxer* demuxer) : Base(flags, entity, demuxer) {}

   /// The backlog, if there is one.
   Flow* flowOut() const noexcept { return static_cast<Flow*>(this->flow_.get()); }

protected:
   X& object() const noexcept { return static_cast<X&>(*this->entity_); }

   /// The change handler of attribute `A`: writes a record now, or marks what has changed.
   template <class A, class... Key> void changed(A, Key const&... key);
   template <class A, class... Key> [[gnu::noinline]] void changedOtherwise(A, Key const&... key);
   /// The child's adapter on this stream, made if it is missing, and its announcement. Null where the announcement was given up.
   template <class A>
   Ptr<Entity::MoxNboAttrLogSa> childAdapterIs(A, Mox_BitSet flags, Ptr<typename A::Entry> const& child);
   /// As a member's announcer is called from outside: the adapter's own stream is the one.
   template <class A>
   auto childAdapterIs(A a, Mox_BitSet flags, Ptr<typename A::Entry> const& child, unsigned, Ptr<Out> const&,
                       PtrInterface*) {
      return staticCast<typename A::Entry::MoxNboAttrLogSa>(childAdapterIs(a, flags, child));
   }
   /// The child's adapter on this stream, told to remount.
   Ptr<Entity::MoxNboAttrLogSa> childAdapterDel(Ptr<Entity> const& child);

private:
   struct Reading;
   struct Turn;
   Flow& neededFlow();
   /// Runs the handler of `A`. Apart: it stands in the code of every attribute.
   template <class A> [[gnu::noinline]] void fire(A) { A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this)); }
   template <class A, class... Key> void mark(A, Key const&... key);
   template <class A> void markKey(A, typename A::Key const& key, bool isAsked = false);
   template <class A, class... Key> void writeNow(A, Key const&... key);
   template <class A> bool writeKeyNow(A, typename A::Key const& key);
   template <class A> void unparked(A a, typename A::Key const& key);
   template <class A> bool serialize(A, typename A::Key const& key);
   template <class A> void writeEntry(A, typename A::Key const& key, typename A::Entry& entry);
   template <class A> void writeRemoval(A, typename A::Key const& key);
   template <class A> bool serializeCollection(A, Flow& flow);
   template <class A> bool serializeArray(A, Flow& flow);
   template <class A> bool resendCollection(A, Flow& flow);
   template <class A> bool sendDirtyKeys(A, Flow& flow);
   template <class A> void endCollection(A, Flow& flow);
   void suspendedIs(Flow& flow, Mark mark);
   template <class A> [[gnu::noinline]] void read(A, bool isRemoval, In& in, bool isLocal);
   template <class A> void readValue(A, In& in, bool isLocal);
   template <class A> void readElement(A, In& in, bool isLocal);
   template <class A> void readRemoval(A, In& in, bool isLocal);
   template <class A> void readTarget(A, In& in, bool isLocal);
   template <class A> void readMember(A, In& in, bool isLocal);
   template <class A> void unmark(A, typename A::Key const& key);
   template <class A> void dropHere(A, typename A::Key const& key);
   template <class A, class Put, class... Key> void apply(A, Put put, Key const&... key);
   template <class A, class Put, class... Key> void applyAs(A, bool isAnswer, Put put, Key const&... key);
   template <class A> void sweep(A);
   template <class A> void marksIs(A, bool marked);
};

/// The reactor of a state adapter: carries every notification to the adapter's handler of the same name.
template <class X>
class SaReactor final : public X::template MoxForwarder<typename X::Notifiee, SaReactor<X>>,
                        public Entity::MoxNboAttrLogSa::ReactorLink {
public:
   explicit SaReactor(Entity::MoxNboAttrLogSa* sa) noexcept : ReactorLink(sa) {}

   bool isStreamAdapter() const override { return true; }
   PtrInterface* moxRawReactor() const override {
      return sa_ != nullptr ? static_cast<PtrInterface*>(sa_) : X::Notifiee::moxRawReactor();
   }
   void onZeroReferences() override {
      if (sa_ != nullptr)
         sa_->onZeroReferences();
   }
   void onNotificationException(AttributeId id) override {
      if (sa_ != nullptr)
         sa_->onNotificationException(id);
   }

   template <class A, class... Key> void forward(A, Key const&... key) {
      // The framework's own attributes are not replicated: a mirror has its own parent. The base adapter takes note of it.
      if (sa_ == nullptr)
         return;
      if constexpr (requires { requires !A::ownsMembers; })
         if (sa_->applyingTaken(A::id))
            return;
      A::fire(static_cast<typename A::Owner::MoxNboAttrLogSa&>(*sa_), key...);
   }
};

} // namespace Mox::NboAttrLog
