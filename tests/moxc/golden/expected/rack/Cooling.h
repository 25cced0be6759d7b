// Made by moxc from Cooling.toml: change that file, not this one.
#pragma once

#include "containers/DynArray.h"
#include "containers/HashMap.h"
#include "containers/MapEntries.h"
#include "containers/RbTreeMap.h"
#include "core/Ptr.h"
#include "core/String8.h"
#include "notify/Mutators.h"
#include "rack/Fan.h"
#include "rack/Probe.h"
#include "rack/Unit.h"
#include "rack/Zone.h"

#include <cstdint>
#include <string_view>

namespace Rack {

/// Everything in a rack that cools.
class Cooling : public Rack::Unit {
public:
   class NotifieeConst;
   class Notifiee;
   template <class Interface, class Derived> class MoxForwarder;
   class MoxNboAttrLogSa;
   class GenericIf_;
   class _Type;
   using MoxBase = Rack::Unit;
   static constexpr unsigned moxLevel = 3;
   /// Lowest and highest identifier among the level's own attributes.
   static constexpr Mox::AttributeId moxFirstAttribute = 386;
   static constexpr Mox::AttributeId moxLastAttribute = 392;
   /// Whether the log cannot create the type, because its constructor takes what the log does not carry.
   static constexpr bool moxIsAbstract = false;

   explicit Cooling(Mox::Name name);
   ~Cooling() override;

   static Mox::Ptr<Mox::MoxType const> _fwkType();
   Mox::Ptr<Mox::MoxType const> fwkType() const override;
   Mox::String8 attributeString(Mox::AttributeId id) const override;
   bool moxHasAttrLogInterface() const override { return true; }
   using MoxBase::moxNboAttrLogSaIs;
   Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> moxNboAttrLogSaIs(Mox::Mox_BitSet flags, unsigned sequence,
                                                            Mox::Ptr<Mox::NboAttrLog::Out> const& out,
                                                            Mox::PtrInterface* parent) override;

   using MoxFanMap = Mox::HashMap<Rack::Fan, Mox::Name, Rack::Fan>;
   /// Entry of `limit`.
   class MoxLimit final : public Mox::RbTreeMapEntry<MoxLimit, std::uint8_t, float> {
   public:
      using RbTreeMapEntry::RbTreeMapEntry;
   };
   using MoxLimitMap = Mox::RbTreeMap<MoxLimit, std::uint8_t, float>;
   /// Entry of `curve`.
   class MoxCurve final : public Mox::HashMapEntry<MoxCurve, Mox::Name, std::int32_t> {
   public:
      using HashMapEntry::HashMapEntry;
   };
   using MoxCurveMap = Mox::HashMap<MoxCurve, Mox::Name, std::int32_t>;
   using MoxPressureArray = Mox::DynArray<float, Rack::Zone, 6>;
   using MoxProbeMap = Mox::RbTreeMap<Rack::Probe, Mox::Name, Rack::Probe>;
   /// Entry of `spare`.
   class MoxSpare final : public Mox::HashReferenceEntry<MoxSpare, Rack::Fan> {
   public:
      using HashReferenceEntry::HashReferenceEntry;
   };
   using MoxSpareMap = Mox::HashMap<MoxSpare, Mox::Name, Rack::Fan>;

   /// The fans.
   MoxFanMap const& fan() const noexcept { return fan_; }
   MoxFanMap& fan() noexcept { return fan_; }
   Mox::Ptr<Rack::Fan> fan(Mox::Name const& key) const { return Mox::memberFind<Attr::fan_t>(*this, key); }
   Mox::Ptr<Rack::Fan> fanIs(Mox::Name const& key, Mox::Ptr<Rack::Fan> const& twin) {
      return Mox::memberIs<Attr::fan_t>(*this, key, twin);
   }
   Mox::Ptr<Rack::Fan> newFan(Mox::Name const& key, Mox::Ptr<Rack::Fan> const& twin) {
      return Mox::newMember<Attr::fan_t>(*this, key, twin);
   }
   Mox::Ptr<Rack::Fan> fanDel(Mox::Name const& key) { return Mox::memberDel<Attr::fan_t>(*this, key); }
   Mox::Ptr<Rack::Fan> fanDel(MoxFanMap::Iterator& it) { return Mox::memberDel<Attr::fan_t>(*this, it); }
   void fanDelAll() { Mox::memberDelAll<Attr::fan_t>(*this); }
   void fanNotify(Mox::Name const& key) const { Mox::keyNotify<Attr::fan_t>(*this, key); }
   /// Highest temperature of each zone.
   MoxLimitMap const& limit() const noexcept { return limit_; }
   MoxLimitMap& limit() noexcept { return limit_; }
   float limit(std::uint8_t key) const { return Mox::mapValue<Attr::limit_t>(*this, key); }
   void limitIs(std::uint8_t key, float v) { Mox::mapIs<Attr::limit_t>(*this, key, v); }
   Mox::Ptr<MoxLimit> newLimit(std::uint8_t key, float v) { return Mox::newMapEntry<Attr::limit_t>(*this, key, v); }
   float limitDel(std::uint8_t key) { return Mox::mapDel<Attr::limit_t>(*this, key); }
   float limitDel(MoxLimitMap::Iterator& it) { return Mox::mapDel<Attr::limit_t>(*this, it); }
   void limitDelAll() { Mox::mapDelAll<Attr::limit_t>(*this); }
   void limitNotify(std::uint8_t key) const { Mox::keyNotify<Attr::limit_t>(*this, key); }
   /// Speed to ask for, by profile.
   MoxCurveMap const& curve() const noexcept { return curve_; }
   MoxCurveMap& curve() noexcept { return curve_; }
   std::int32_t curve(Mox::Name const& key) const { return Mox::mapValue<Attr::curve_t>(*this, key); }
   void curveIs(Mox::Name const& key, std::int32_t v) { Mox::mapIs<Attr::curve_t>(*this, key, v); }
   Mox::Ptr<MoxCurve> newCurve(Mox::Name const& key, std::int32_t v) {
      return Mox::newMapEntry<Attr::curve_t>(*this, key, v);
   }
   std::int32_t curveDel(Mox::Name const& key) { return Mox::mapDel<Attr::curve_t>(*this, key); }
   std::int32_t curveDel(MoxCurveMap::Iterator& it) { return Mox::mapDel<Attr::curve_t>(*this, it); }
   void curveDelAll() { Mox::mapDelAll<Attr::curve_t>(*this); }
   void curveNotify(Mox::Name const& key) const { Mox::keyNotify<Attr::curve_t>(*this, key); }
   /// Pressure in each zone, in pascals.
   MoxPressureArray const& pressure() const noexcept { return pressure_; }
   MoxPressureArray& pressure() noexcept { return pressure_; }
   float pressure(Rack::Zone key) const { return pressure_[key]; }
   void pressureIs(Rack::Zone key, float v) { Mox::arrayIs<Attr::pressure_t>(*this, key, v); }
   float pressureDel(Rack::Zone key) { return Mox::arrayDel<Attr::pressure_t>(*this, key); }
   float pressureDel(MoxPressureArray::Iterator& it) { return Mox::arrayDel<Attr::pressure_t>(*this, it); }
   void pressureDelAll() { Mox::arrayDelAll<Attr::pressure_t>(*this); }
   void pressureNotify(Rack::Zone key) const { Mox::keyNotify<Attr::pressure_t>(*this, key); }
   /// Fan under observation, or null.
   Mox::Ptr<Rack::Fan const> const& watched() const noexcept { return watched_; }
   void watchedIs(Mox::Ptr<Rack::Fan const> const& v) { Mox::scalarIs<Attr::watched_t>(*this, v); }
   /// The probes.
   MoxProbeMap const& probe() const noexcept { return probe_; }
   MoxProbeMap& probe() noexcept { return probe_; }
   Mox::Ptr<Rack::Probe> probe(Mox::Name const& key) const { return Mox::memberFind<Attr::probe_t>(*this, key); }
   Mox::Ptr<Rack::Probe> probeIs(Mox::Name const& key) { return Mox::memberIs<Attr::probe_t>(*this, key); }
   Mox::Ptr<Rack::Probe> newProbe(Mox::Name const& key) { return Mox::newMember<Attr::probe_t>(*this, key); }
   Mox::Ptr<Rack::Probe> probeDel(Mox::Name const& key) { return Mox::memberDel<Attr::probe_t>(*this, key); }
   Mox::Ptr<Rack::Probe> probeDel(MoxProbeMap::Iterator& it) { return Mox::memberDel<Attr::probe_t>(*this, it); }
   void probeDelAll() { Mox::memberDelAll<Attr::probe_t>(*this); }
   void probeNotify(Mox::Name const& key) const { Mox::keyNotify<Attr::probe_t>(*this, key); }
   /// Fans that could take over.
   MoxSpareMap const& spare() const noexcept { return spare_; }
   MoxSpareMap& spare() noexcept { return spare_; }
   void spareIs(Mox::Ptr<Rack::Fan> const& v) { Mox::referenceIs<Attr::spare_t>(*this, v); }
   Mox::Ptr<MoxSpare> newSpare(Mox::Ptr<Rack::Fan> const& v) { return Mox::newReferenceEntry<Attr::spare_t>(*this, v); }
   Mox::Ptr<Rack::Fan> spareDel(Mox::Name const& key) { return Mox::mapDel<Attr::spare_t>(*this, key); }
   Mox::Ptr<Rack::Fan> spareDel(MoxSpareMap::Iterator& it) { return Mox::mapDel<Attr::spare_t>(*this, it); }
   void spareDelAll() { Mox::mapDelAll<Attr::spare_t>(*this); }
   void spareNotify(Mox::Name const& key) const { Mox::keyNotify<Attr::spare_t>(*this, key); }

   /// The attributes as values, for `Mox::on` and its like.
   struct Attr : MoxBase::Attr {
      static constexpr struct fan_t
         : Mox::KeyedAttribute<Mox::Kind::hashCollection, Cooling, 386, Mox::Name, Rack::Fan, Rack::Fan, MoxFanMap> {
         static constexpr std::string_view name = "fan";
         static auto& cell(auto& e) noexcept { return e.fan_; }
         static auto put(auto& e, auto const& key, auto const&... more) { return e.fanIs(key, more...); }
         static void drop(auto& e, auto const& key) { e.fanDel(key); }
         static void fire(auto& to, auto const& key) { to.onFan(key); }
      } fan{};
      static constexpr struct limit_t
         : Mox::KeyedAttribute<Mox::Kind::map, Cooling, 387, std::uint8_t, float, MoxLimit, MoxLimitMap> {
         static constexpr std::string_view name = "limit";
         static auto& cell(auto& e) noexcept { return e.limit_; }
         static void put(auto& e, auto const& key, auto const& v) { e.limitIs(key, v); }
         static void drop(auto& e, auto const& key) { e.limitDel(key); }
         static void fire(auto& to, auto const& key) { to.onLimit(key); }
      } limit{};
      static constexpr struct curve_t
         : Mox::KeyedAttribute<Mox::Kind::hashMap, Cooling, 388, Mox::Name, std::int32_t, MoxCurve, MoxCurveMap> {
         static constexpr std::string_view name = "curve";
         static auto& cell(auto& e) noexcept { return e.curve_; }
         static void put(auto& e, auto const& key, auto const& v) { e.curveIs(key, v); }
         static void drop(auto& e, auto const& key) { e.curveDel(key); }
         static void fire(auto& to, auto const& key) { to.onCurve(key); }
      } curve{};
      static constexpr struct pressure_t : Mox::ArrayAttribute<Cooling, 389, MoxPressureArray> {
         static constexpr std::string_view name = "pressure";
         static auto& cell(auto& e) noexcept { return e.pressure_; }
         static void put(auto& e, auto const& key, auto const& v) { e.pressureIs(key, v); }
         static void drop(auto& e, auto const& key) { e.pressureDel(key); }
         static void fire(auto& to, auto const& key) { to.onPressure(key); }
      } pressure{};
      static constexpr struct watched_t : Mox::ReferenceAttribute<Cooling, 390, Rack::Fan const> {
         static constexpr std::string_view name = "watched";
         static auto& cell(auto& e) noexcept { return e.watched_; }
         static void put(auto& e, auto const& v) { e.watchedIs(v); }
         static void fire(auto& to) { to.onWatched(); }
      } watched{};
      static constexpr struct probe_t
         : Mox::KeyedAttribute<Mox::Kind::collection, Cooling, 391, Mox::Name, Rack::Probe, Rack::Probe, MoxProbeMap> {
         static constexpr std::string_view name = "probe";
         static auto& cell(auto& e) noexcept { return e.probe_; }
         static auto put(auto& e, auto const& key, auto const&... more) { return e.probeIs(key, more...); }
         static void drop(auto& e, auto const& key) { e.probeDel(key); }
         static void fire(auto& to, auto const& key) { to.onProbe(key); }
      } probe{};
      static constexpr struct spare_t : Mox::ReferencesAttribute<Cooling, 392, Rack::Fan, MoxSpare, MoxSpareMap> {
         static constexpr std::string_view name = "spare";
         static auto& cell(auto& e) noexcept { return e.spare_; }
         static void put(auto& e, auto const& v) { e.spareIs(v); }
         static void drop(auto& e, auto const& key) { e.spareDel(key); }
         static void fire(auto& to, auto const& key) { to.onSpare(key); }
      } spare{};
   };
   /// The level's own changeable attributes, in the order of their identifiers.
   using MoxAttributes = Mox::TypeList<Attr::fan_t, Attr::limit_t, Attr::curve_t, Attr::pressure_t, Attr::watched_t,
                                       Attr::probe_t, Attr::spare_t>;
   /// Constructor parameters behind the name that can be read back, in order.
   using MoxParameters = Mox::TypeList<>;

private:
   MoxFanMap fan_{4};
   MoxLimitMap limit_;
   MoxCurveMap curve_{4};
   Mox::Ptr<Rack::Fan const> watched_;
   MoxProbeMap probe_;
   MoxSpareMap spare_{4};
   MoxPressureArray pressure_;
};

} // namespace Rack

// The delivery passes are compiled with the type, so that nobody else needs its reactor interface.
extern template void Mox::announceKey<Rack::Cooling::Attr::fan_t>(Rack::Cooling const&, Mox::Name const&);
extern template void Mox::announceKey<Rack::Cooling::Attr::limit_t>(Rack::Cooling const&, std::uint8_t const&);
extern template void Mox::announceKey<Rack::Cooling::Attr::curve_t>(Rack::Cooling const&, Mox::Name const&);
extern template void Mox::announceKey<Rack::Cooling::Attr::pressure_t>(Rack::Cooling const&, Rack::Zone const&);
extern template void Mox::announce<Rack::Cooling::Attr::watched_t>(Rack::Cooling const&);
extern template void Mox::announceKey<Rack::Cooling::Attr::probe_t>(Rack::Cooling const&, Mox::Name const&);
extern template void Mox::announceKey<Rack::Cooling::Attr::spare_t>(Rack::Cooling const&, Mox::Name const&);
