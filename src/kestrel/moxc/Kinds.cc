// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Kinds.h"

#include "kestrel/moxc/CppText.h"
#include "kestrel/moxc/Model.h"

#include <algorithm>

namespace moxc {

namespace {

std::string joined(std::string_view a, std::string_view b) {
   return std::string(a) += b;
}

std::string entitySpelling(Attribute const& a) {
   return (a.entity != nullptr ? a.entity->name : a.value->cppType) + (a.constant ? " const" : "");
}

std::string virtually(Attribute const& a) {
   return a.owner->virtualMutators ? "virtual " : "";
}

std::string quotedName(Attribute const& a) {
   return '`' + a.name + '`';
}

/// The return type of an accessor that returns a copy. It must not be assignable, because the assignment would be lost.
/// The language forbids that for built-in types, texts and names forbid it themselves, and the rest is made const.
std::string handedCopy(ValueType const& value) {
   bool const isPlain = value.isBuiltin || value.header == "<cstdint>";
   return !isPlain ? "Mox::Handed<" + value.cppType + '>' : value.cppType;
}
/// How an accessor hands out what is stored.
std::string handed(ValueType const& value) {
   return value.isLarge ? value.cppType + " const&" : handedCopy(value);
}

/// The calls of attributes that hold values under keys.
std::string keyedCalls(Attribute const& a) {
   return fill(R"(         static void put(auto& e, auto const& key, auto const& v) { e.$x$Is(key, v); }
         static void drop(auto& e, auto const& key) { e.$x$Del(key); }
         static void fire(auto& to, auto const& key) { to.on$X$(key); }
)",
               {{"x", a.name}, {"X", capitalised(a.name)}});
}

/// The setter of a dirty bit.
std::string dirtyBit(Attribute const& a) {
   return inlineFunction(3, "void moxIs" + capitalised(a.name) + "DirtyIs(bool dirty)",
                         "dirtyBitIs(Attr::" + a.name + ", dirty);");
}

/// Kinds whose notification has no key: one cell, one value.
class Single : public AttributeKind {
public:
   std::string notifications(Attribute const& a) const override {
      return inlineFunction(3, "virtual void on" + capitalised(a.name) + "()", "");
   }
   std::string forwarding(Attribute const& a) const override {
      return inlineFunction(3, "void on" + capitalised(a.name) + "() override",
                            "this->self().forward(Attr::" + a.name + ");");
   }
   std::string adapterHandlers(Attribute const& a) const override {
      return inlineFunction(3, "virtual void on" + capitalised(a.name) + "()", "changed(Attr::" + a.name + ");");
   }
   std::string flowOperations(Attribute const& a) const override { return dirtyBit(a); }
   std::string memberFunctions(Attribute const& a) const override {
      std::string const v = a.name + "_";
      std::string text = inlineFunction(3, result(a) + ' ' + a.name + "() const noexcept", "return " + v + ';');
      if (!a.isParameter)
         text += mutator(a, "void", "Is", argument(a) + " v", "scalarIs", ", v");
      return text;
   }
   std::string descriptorCalls(Attribute const& a) const override {
      if (a.isParameter)
         return {};
      return fill(R"(         static void put(auto& e, auto const& v) { e.$x$Is(v); }
         static void fire(auto& to) { to.on$X$(); }
)",
                  {{"x", a.name}, {"X", capitalised(a.name)}});
   }

   /// How the accessor hands out the value, and how a mutator takes it.
   virtual std::string result(Attribute const& a) const = 0;
   virtual std::string argument(Attribute const& a) const = 0;

protected:
   static std::string mutator(Attribute const& a, std::string const& result, std::string const& suffix,
                              std::string const& parameters, std::string const& operation,
                              std::string const& arguments) {
      return inlineFunction(3, virtually(a) + result + ' ' + a.name + suffix + '(' + parameters + ')',
                            (result == "void" ? "Mox::" : "return Mox::") + operation + "<Attr::" + a.name +
                               "_t>(*this" + arguments + ");");
   }
};

class Scalar : public Single {
public:
   std::string_view word() const noexcept override { return "scalar"; }
   std::string_view meaning() const noexcept override { return "one value, read with `x()` and set with `xIs(v)`"; }
   Holds holds() const noexcept override { return Holds::value; }
   bool mayHaveDefault() const noexcept override { return true; }
   bool mayBeParameter() const noexcept override { return true; }
   std::vector<std::string> operations(std::string_view name) const override {
      return {std::string(name), joined(name, "Is")};
   }

   Storage storage(Attribute const& a) const override {
      return {a.value->cppType, '{' + a.defaultValue + '}', a.value->alignment};
   }
   std::string valueSpelling(Attribute const& a) const override { return a.value->cppType; }
   std::string result(Attribute const& a) const override { return handed(*a.value); }
   std::string argument(Attribute const& a) const override { return a.value->argument(); }
   std::string descriptorBase(Attribute const& a) const override {
      bool const isToldOfDefault = !a.defaultValue.empty() && !a.value->isBuiltin;
      return fill("Mox::$Kind$Attribute<$X$, $id$, $T$>",
                  {{"Kind", capitalised(word())},
                   {"X", a.owner->shortName},
                   {"id", std::to_string(a.id.value_or(0))},
                   {"T", a.value->cppType + (isToldOfDefault ? ", true" : "")}});
   }
};

class Optional final : public Scalar {
public:
   std::string_view word() const noexcept override { return "optional"; }
   std::string_view meaning() const noexcept override {
      return "a scalar that `xDel()` puts back to its default, returning the value it had";
   }
   bool mayHaveDefault() const noexcept override { return false; }
   bool mayBeParameter() const noexcept override { return false; }
   std::vector<std::string> operations(std::string_view name) const override {
      return {std::string(name), joined(name, "Is"), joined(name, "Del")};
   }

   std::string memberFunctions(Attribute const& a) const override {
      return Scalar::memberFunctions(a) + mutator(a, a.value->cppType, "Del", "", "optionalDel", "");
   }
   std::string descriptorCalls(Attribute const& a) const override {
      return Scalar::descriptorCalls(a) + "         static void drop(auto& e) { e." + a.name + "Del(); }\n";
   }
};

class Counter final : public Scalar {
public:
   std::string_view word() const noexcept override { return "counter"; }
   std::string_view meaning() const noexcept override {
      return "a scalar number that `xInc(delta)` moves, returning the new value; it wraps silently";
   }
   bool mayBeParameter() const noexcept override { return false; }
   std::vector<std::string> operations(std::string_view name) const override {
      return {std::string(name), joined(name, "Is"), joined(name, "Inc")};
   }

   std::string memberFunctions(Attribute const& a) const override {
      return Scalar::memberFunctions(a) +
             mutator(a, a.value->cppType, "Inc", argument(a) + " delta", "counterInc", ", delta");
   }
};

class Reference final : public Single {
public:
   std::string_view word() const noexcept override { return "reference"; }
   std::string_view meaning() const noexcept override {
      return "a counted reference to an entity that lives elsewhere; null is a value";
   }
   Holds holds() const noexcept override { return Holds::reference; }
   bool mayBeParameter() const noexcept override { return true; }
   std::vector<std::string> operations(std::string_view name) const override {
      return {std::string(name), joined(name, "Is")};
   }

   Storage storage(Attribute const& a) const override { return {valueSpelling(a), "", 8}; }
   std::vector<std::string> headers(Attribute const&) const override { return {"kestrel/core/Ptr.h"}; }
   std::string valueSpelling(Attribute const& a) const override { return "Mox::Ptr<" + entitySpelling(a) + '>'; }
   std::string result(Attribute const& a) const override { return valueSpelling(a) + " const&"; }
   std::string argument(Attribute const& a) const override { return valueSpelling(a) + " const&"; }
   std::string descriptorBase(Attribute const& a) const override {
      return fill("Mox::$Kind$Attribute<$X$, $id$, $T$>", {{"Kind", a.isParameter ? "Parameter" : "Reference"},
                                                           {"X", a.owner->shortName},
                                                           {"id", std::to_string(a.id.value_or(0))},
                                                           {"T", entitySpelling(a)}});
   }
};

/// Kinds whose notification carries a key.
class Keyed : public AttributeKind {
public:
   bool isKeyed() const noexcept override { return true; }
   std::vector<std::string> operations(std::string_view name) const override {
      return {std::string(name),      joined(name, "Is"),       joined(name, "Del"),      joined(name, "DelAll"),
              joined(name, "Notify"), joined(name, "Iterator"), "new" + capitalised(name)};
   }

   std::string notifications(Attribute const& a) const override {
      std::string const on = "virtual void on" + capitalised(a.name);
      return inlineFunction(3, on + '(' + key(a) + ')', "") + inlineFunction(3, on + "moxImmediate()", "") +
             inlineFunction(3, on + "()", "");
   }
   std::string forwarding(Attribute const& a) const override {
      // The overload without a key stays visible beside the override.
      return "   using MoxInterface::on" + capitalised(a.name) + ";\n" +
             inlineFunction(3, "void on" + capitalised(a.name) + '(' + key(a) + " key) override",
                            "this->self().forward(Attr::" + a.name + ", key);");
   }
   std::string adapterHandlers(Attribute const& a) const override {
      return inlineFunction(3, "virtual void on" + capitalised(a.name) + '(' + key(a) + " key)",
                            "changed(Attr::" + a.name + ", key);");
   }
   std::string flowOperations(Attribute const& a) const override {
      std::string const x = a.name;
      std::string const X = capitalised(x);
      std::string const k = keyArgument(a);
      return "   using MoxMoxIs" + X + "Dirty = Mox::NboAttrLog::DirtyKey<Attr::" + x + "_t>;\n" +
             inlineFunction(3, "void mox" + X + "HasSyncedIs(bool synced)", "hasSyncedIs(Attr::" + x + ", synced);") +
             inlineFunction(3, "void newMoxIs" + X + "Dirty(" + k + " key, bool dirty)",
                            "dirtyKeyIs(Attr::" + x + ", key, dirty);") +
             inlineFunction(3, "void moxIs" + X + "DirtyIs(" + k + " key, bool dirty)",
                            "dirtyKeyIs(Attr::" + x + ", key, dirty);") +
             inlineFunction(3, "void moxIs" + X + "DirtyDel(" + k + " key)", "dirtyKeyDel(Attr::" + x + ", key);");
   }

protected:
   /// The key's type: reactors and handlers take it by value.
   static std::string key(Attribute const& a) { return a.key->cppType; }
   /// The key as an argument of mutators.
   static std::string keyArgument(Attribute const& a) { return a.key->argument(); }
   static std::string entry(Attribute const& a) { return "Mox" + capitalised(a.name); }
   static std::string map(Attribute const& a) { return entry(a) + "Map"; }
   /// The alias of the container's type.
   virtual std::string containerName(Attribute const& a) const { return map(a); }

   /// Operations that every keyed kind has with the same text: deleting and re-announcing.
   std::string commonFunctions(Attribute const& a, std::string const& prefix, std::string const& removed) const {
      std::string const x = a.name;
      std::string const descriptor = "<Attr::" + x + "_t>(*this";
      std::string const k = keyArgument(a);
      return inlineFunction(3, removed + ' ' + x + "Del(" + k + " key)",
                            "return Mox::" + prefix + "Del" + descriptor + ", key);") +
             inlineFunction(3, removed + ' ' + x + "Del(" + containerName(a) + "::Iterator& it)",
                            "return Mox::" + prefix + "Del" + descriptor + ", it);") +
             inlineFunction(3, "void " + x + "DelAll()", "Mox::" + prefix + "DelAll" + descriptor + ");") +
             inlineFunction(3, "void " + x + "Notify(" + k + " key) const", "Mox::keyNotify" + descriptor + ", key);");
   }
   /// The container is handed out as const, because only mutators change it; an iterator is a position to delete at.
   std::string containerAccess(Attribute const& a) const {
      std::string const type = containerName(a);
      std::string const iterator = type + "::Iterator " + a.name + "Iterator(";
      std::string const made = holds() == Holds::member ? "return Mox::memberIterator<Attr::" + a.name + "_t>(*this"
                                                        : "return " + type + "::Iterator(" + a.name + '_';
      return inlineFunction(3, type + " const& " + a.name + "() const noexcept", "return " + a.name + "_;") +
             inlineFunction(3, iterator + ')', made + ");") +
             inlineFunction(3, iterator + keyArgument(a) + " key)", made + ", key);");
   }
};

/// One value for each key.
class Array final : public Keyed {
public:
   std::string_view word() const noexcept override { return "array"; }
   std::string_view meaning() const noexcept override {
      return "one value for each key, never absent: deleting one puts back its default";
   }
   Holds holds() const noexcept override { return Holds::value; }
   bool hasKeyType() const noexcept override { return true; }
   bool isFixed() const noexcept override { return true; }
   std::vector<std::string> operations(std::string_view name) const override {
      return {std::string(name),      joined(name, "Is"),     joined(name, "Del"),
              joined(name, "DelAll"), joined(name, "Notify"), joined(name, "Iterator")};
   }

   std::vector<std::string> classes(std::string_view name) const override {
      return {"Mox" + capitalised(name) + "Array"};
   }

   Storage storage(Attribute const& a) const override {
      return {containerName(a), "", std::max(a.value->alignment, 4u)}; // the array has counts of its own
   }
   std::vector<std::string> headers(Attribute const&) const override { return {"kestrel/containers/DynArray.h"}; }
   std::string valueSpelling(Attribute const& a) const override { return a.value->cppType; }
   std::string nestedTypes(Attribute const& a) const override {
      return wrapped(3, "using " + containerName(a) + " = Mox::DynArray<" + a.value->cppType + ", " + key(a) + ", " +
                           std::to_string(a.key->count) + ">;");
   }
   std::string memberFunctions(Attribute const& a) const override {
      std::string const x = a.name;
      std::string const t = a.value->cppType;
      return containerAccess(a) +
             inlineFunction(3, handed(*a.value) + ' ' + x + '(' + keyArgument(a) + " key) const",
                            "return " + x + "_[key];") +
             inlineFunction(3, "void " + x + "Is(" + keyArgument(a) + " key, " + a.value->argument() + " v)",
                            "Mox::arrayIs<Attr::" + x + "_t>(*this, key, v);") +
             commonFunctions(a, "array", t);
   }
   std::string descriptorBase(Attribute const& a) const override {
      return fill("Mox::ArrayAttribute<$X$, $id$, $Array$>",
                  {{"X", a.owner->shortName}, {"id", std::to_string(a.id.value_or(0))}, {"Array", containerName(a)}});
   }
   std::string descriptorCalls(Attribute const& a) const override { return keyedCalls(a); }
   /// No key is ever marked: an array is sent whole.
   std::string flowOperations(Attribute const& a) const override { return dirtyBit(a); }

protected:
   std::string containerName(Attribute const& a) const override { return entry(a) + "Array"; }
};

/// Values under keys.
class ValueMap : public Keyed {
public:
   Holds holds() const noexcept override { return Holds::value; }
   bool hasKeyType() const noexcept override { return true; }
   std::vector<std::string> classes(std::string_view name) const override {
      return {"Mox" + capitalised(name), "Mox" + capitalised(name) + "Map"};
   }

   /// The container template, "RbTreeMap" or "HashMap".
   virtual std::string container() const = 0;

   std::vector<std::string> headers(Attribute const&) const override {
      return {"kestrel/containers/" + container() + ".h", "kestrel/containers/MapEntries.h"};
   }
   std::string valueSpelling(Attribute const& a) const override { return a.value->cppType; }
   std::string nestedTypes(Attribute const& a) const override {
      std::string const types = '<' + entry(a) + ", " + key(a) + ", " + a.value->cppType + '>';
      return docComment(3, "Entry of " + quotedName(a) + '.') +
             derivedClass(3, "class " + entry(a) + " final", "public Mox::" + container() + "Entry" + types) +
             "   public:\n      using " + container() + "Entry::" + container() + "Entry;\n   };\n" +
             wrapped(3, "using " + map(a) + " = Mox::" + container() + types + ';');
   }
   std::string memberFunctions(Attribute const& a) const override {
      std::string const x = a.name;
      std::string const t = a.value->cppType;
      std::string const both = keyArgument(a) + " key, " + a.value->argument() + " v";
      std::string const call = "<Attr::" + x + "_t>(*this, key";
      return containerAccess(a) +
             inlineFunction(3, handedCopy(*a.value) + ' ' + x + '(' + keyArgument(a) + " key) const",
                            "return Mox::mapValue" + call + ");") +
             inlineFunction(3, "void " + x + "Is(" + both + ')', "Mox::mapIs" + call + ", v);") +
             inlineFunction(3, "Mox::Ptr<" + entry(a) + "> new" + capitalised(x) + '(' + both + ')',
                            "return Mox::newMapEntry" + call + ", v);") +
             commonFunctions(a, "map", t);
   }
   std::string descriptorBase(Attribute const& a) const override {
      return fill(
         "Mox::KeyedAttribute<Mox::Kind::$kind$, $X$, $id$, $Map$>",
         {{"kind", word()}, {"X", a.owner->shortName}, {"id", std::to_string(a.id.value_or(0))}, {"Map", map(a)}});
   }
   std::string descriptorCalls(Attribute const& a) const override { return keyedCalls(a); }
};

class Map final : public ValueMap {
public:
   std::string_view word() const noexcept override { return "map"; }
   std::string_view meaning() const noexcept override { return "values by key, in ascending order of the keys"; }
   std::string container() const override { return "RbTreeMap"; }
   Storage storage(Attribute const& a) const override { return {map(a), "", 8}; }
};

class HashMap final : public ValueMap {
public:
   std::string_view word() const noexcept override { return "hashMap"; }
   std::string_view meaning() const noexcept override { return "values by key, in the order of the keys' hashes"; }
   std::string container() const override { return "HashMap"; }
   Storage storage(Attribute const& a) const override { return {map(a), "{4}", 8}; }
};

/// Entities that the attribute owns, under their names.
class Members : public Keyed {
public:
   Holds holds() const noexcept override { return Holds::member; }
   std::vector<std::string> classes(std::string_view name) const override {
      return {"Mox" + capitalised(name) + "Map"};
   }

   /// The container template, "RbTreeMap" or "HashMap".
   virtual std::string container() const = 0;

   std::vector<std::string> headers(Attribute const&) const override {
      return {"kestrel/containers/" + container() + ".h"};
   }
   std::string valueSpelling(Attribute const& a) const override { return a.entity->name; }
   std::string nestedTypes(Attribute const& a) const override {
      return wrapped(3, "using " + map(a) + " = Mox::" + container() + '<' + a.entity->name + ", " + key(a) + ", " +
                           a.entity->name + ">;");
   }
   std::string memberFunctions(Attribute const& a) const override {
      std::string const x = a.name;
      std::string const pointer = "Mox::Ptr<" + a.entity->name + '>';
      std::string const find = '(' + keyArgument(a) + " key)";
      std::string declared = keyArgument(a) + " key";
      std::string passed = "<Attr::" + x + "_t>(*this, key";
      for (Attribute const* parameter : a.entity->parameters) {
         declared += ", " + parameter->kind->valueSpelling(*parameter) + " const& " + parameter->name;
         passed += ", " + parameter->name;
      }
      return containerAccess(a) +
             inlineFunction(3, "Mox::Ptr<" + a.entity->name + " const> " + x + find + " const",
                            "return Mox::memberFind<Attr::" + x + "_t>(*this, key);") +
             inlineFunction(3, pointer + ' ' + x + find, "return Mox::memberFind<Attr::" + x + "_t>(*this, key);") +
             inlineFunction(3, pointer + ' ' + x + "Is(" + declared + ')', "return Mox::memberIs" + passed + ");") +
             inlineFunction(3, pointer + " new" + capitalised(x) + '(' + declared + ')',
                            "return Mox::newMember" + passed + ");") +
             commonFunctions(a, "member", pointer);
   }
   std::string descriptorBase(Attribute const& a) const override {
      return fill(
         "Mox::KeyedAttribute<Mox::Kind::$kind$, $X$, $id$, $Map$>",
         {{"kind", word()}, {"X", a.owner->shortName}, {"id", std::to_string(a.id.value_or(0))}, {"Map", map(a)}});
   }
   std::string descriptorCalls(Attribute const& a) const override {
      return fill(
         R"(         static auto put(auto& e, auto const& key, auto const&... more) { return e.$x$Is(key, more...); }
         static void drop(auto& e, auto const& key) { e.$x$Del(key); }
         static void fire(auto& to, auto const& key) { to.on$X$(key); }
)",
         {{"x", a.name}, {"X", capitalised(a.name)}});
   }
   std::string adapterHandlers(Attribute const& a) const override {
      std::string const x = a.name;
      std::string const member = "Mox::Ptr<" + a.entity->name + "> const& child";
      return Keyed::adapterHandlers(a) +
             inlineFunction(
                3,
                "Mox::Ptr<" + a.entity->name + "::MoxNboAttrLogSa> " + x +
                   "NboAttrLogAdapterIs(Mox::Mox_BitSet flags, " + member +
                   ", unsigned sequence, Mox::Ptr<Mox::NboAttrLog::Out> const& out, Mox::PtrInterface* parent)",
                "return childAdapterIs(Attr::" + x + ", flags, child, sequence, out, parent);") +
             inlineFunction(3, "Mox::Ptr<Mox::Entity::MoxNboAttrLogSa> " + x + "NboAttrLogAdapterDel(" + member + ')',
                            "return childAdapterDel(child);");
   }
};

class Collection final : public Members {
public:
   std::string_view word() const noexcept override { return "collection"; }
   std::string_view meaning() const noexcept override {
      return "entities that the attribute creates by name and owns, in ascending order of the names";
   }
   std::string_view memberLink() const noexcept override { return "tree"; }
   std::string container() const override { return "RbTreeMap"; }
   Storage storage(Attribute const& a) const override { return {map(a), "", 8}; }
};

class HashCollection final : public Members {
public:
   std::string_view word() const noexcept override { return "hashCollection"; }
   std::string_view meaning() const noexcept override {
      return "entities that the attribute creates by name and owns, in the order of the names' hashes";
   }
   std::string_view memberLink() const noexcept override { return "hash"; }
   std::string container() const override { return "HashMap"; }
   Storage storage(Attribute const& a) const override { return {map(a), "{4}", 8}; }
};

/// Entities that live elsewhere, under their own names.
class HashReferences final : public Keyed {
public:
   std::string_view word() const noexcept override { return "hashReferences"; }
   std::string_view meaning() const noexcept override {
      return "counted references to entities that live elsewhere, under the entities' names, in the order of their "
             "hashes";
   }
   Holds holds() const noexcept override { return Holds::reference; }
   std::vector<std::string> classes(std::string_view name) const override {
      return {"Mox" + capitalised(name), "Mox" + capitalised(name) + "Map"};
   }

   Storage storage(Attribute const& a) const override { return {map(a), "{4}", 8}; }
   std::vector<std::string> headers(Attribute const&) const override {
      return {"kestrel/containers/HashMap.h", "kestrel/containers/MapEntries.h"};
   }
   std::string valueSpelling(Attribute const& a) const override { return "Mox::Ptr<" + entitySpelling(a) + '>'; }
   std::string nestedTypes(Attribute const& a) const override {
      std::string const types = '<' + entry(a) + ", ";
      return docComment(3, "Entry of " + quotedName(a) + '.') +
             derivedClass(3, "class " + entry(a) + " final",
                          "public Mox::HashReferenceEntry" + types + entitySpelling(a) + '>') +
             "   public:\n      using HashReferenceEntry::HashReferenceEntry;\n   };\n" +
             wrapped(3, "using " + map(a) + " = Mox::HashMap" + types + key(a) + ", " + entitySpelling(a) + ">;");
   }
   std::string memberFunctions(Attribute const& a) const override {
      std::string const x = a.name;
      std::string const argument = '(' + valueSpelling(a) + " const& v)";
      std::string const call = "<Attr::" + x + "_t>(*this, v);";
      return containerAccess(a) + inlineFunction(3, "void " + x + "Is" + argument, "Mox::referenceIs" + call) +
             inlineFunction(3, "Mox::Ptr<" + entry(a) + "> new" + capitalised(x) + argument,
                            "return Mox::newReferenceEntry" + call) +
             commonFunctions(a, "map", valueSpelling(a));
   }
   std::string descriptorBase(Attribute const& a) const override {
      return fill("Mox::ReferencesAttribute<$X$, $id$, $Map$>",
                  {{"X", a.owner->shortName}, {"id", std::to_string(a.id.value_or(0))}, {"Map", map(a)}});
   }
   std::string descriptorCalls(Attribute const& a) const override {
      return fill(R"(         static void put(auto& e, auto const& v) { e.$x$Is(v); }
         static void drop(auto& e, auto const& key) { e.$x$Del(key); }
         static void fire(auto& to, auto const& key) { to.on$X$(key); }
)",
                  {{"x", a.name}, {"X", capitalised(a.name)}});
   }
};

} // namespace

std::vector<AttributeKind const*> const& allKinds() {
   static Scalar const scalar;
   static Optional const optional;
   static Counter const counter;
   static Reference const reference;
   static Array const array;
   static Map const map;
   static HashMap const hashMap;
   static Collection const collection;
   static HashCollection const hashCollection;
   static HashReferences const hashReferences;
   static std::vector<AttributeKind const*> const kinds{
      &scalar, &optional, &counter, &reference, &array, &map, &hashMap, &collection, &hashCollection, &hashReferences};
   return kinds;
}

AttributeKind const* findKind(std::string_view word) {
   for (AttributeKind const* kind : allKinds())
      if (kind->word() == word)
         return kind;
   return nullptr;
}

std::string capitalised(std::string_view name) {
   std::string result(name);
   if (!result.empty() && result[0] >= 'a' && result[0] <= 'z')
      result[0] = static_cast<char>(result[0] - 'a' + 'A');
   return result;
}

} // namespace moxc
