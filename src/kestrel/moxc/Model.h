// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/moxc/Kinds.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace moxc {

/// The checked schemas, as the emitters see them. Nothing changes after the checker has built it; pointers between the
/// parts stay valid as long as the model.

/// How a value travels as an argument.
enum class Pass {
   byValue,
   byReference,
   counted, ///< an object behind a counted pointer that is no entity; only constructor parameters hold one
};

struct ValueType {
   std::string name;    ///< as schemas spell it
   std::string cppType; ///< as C++ spells it
   std::string header;  ///< include path, with its brackets for a header of the standard library; empty for built-ins
   Pass pass = Pass::byValue;
   unsigned alignment = 8; ///< of the C++ type, in bytes; members are laid out by it
   bool isLarge = false;   ///< accessors hand out a reference
   bool isBuiltin = false; ///< every schema may use it without declaring it
   bool isKey = false;
   unsigned count = 0;    ///< of a bounded key: there are the keys 0 to `count` - 1; 0 otherwise
   bool isNumber = false; ///< an integer that a counter can hold
   std::string zero;      ///< what a default-constructed value reads as
   std::string doc;

   /// The C++ type as a mutator takes it.
   std::string argument() const { return pass == Pass::byReference ? cppType + " const&" : cppType; }
};

struct EntityType;

struct Attribute {
   std::optional<unsigned> id; ///< always there, except in a parameter that is not readable
   std::string name;
   AttributeKind const* kind = nullptr;
   ValueType const* value = nullptr;   ///< null where the attribute holds entities
   EntityType const* entity = nullptr; ///< null where the attribute holds values
   ValueType const* key = nullptr;
   bool constant = false;    ///< a reference to a const entity
   std::string defaultValue; ///< C++ expression; empty: the value type's own default
   std::string doc;
   std::string note;
   bool isParameter = false; ///< handed to the constructor and never changed
   bool isInherited = false; ///< a parameter that only passes a base's parameter on
   EntityType const* owner = nullptr;
};

struct ConstructValue {
   Attribute const* attribute; ///< of the type or of a base
   std::string expression;
};

struct EntityType {
   std::vector<std::string> namespaces;
   std::string shortName;
   std::string name;                 ///< qualified
   EntityType const* base = nullptr; ///< null: Mox::Entity
   unsigned level = 2;
   std::vector<std::string> baseArguments; ///< C++ expressions, the name's included
   std::string member; ///< the collection's link that instances carry, "hash" or "tree"; empty for none
   bool log = true;
   bool virtualMutators = false;
   bool imported = false; ///< known but not to be emitted
   std::string doc;
   std::string note;
   std::string schemaName;  ///< file name of the schema, with the prefix of its headers
   std::string stem;        ///< include path of the generated files without their endings
   bool isAbstract = false; ///< cannot be created from a stream
   /// Constructor parameters after the name, in order.
   std::vector<Attribute const*> parameters;
   /// What the type itself adds, in ascending order of identifiers; readable parameters come first.
   std::vector<Attribute const*> attributes;
   std::vector<ConstructValue> construct;
   std::vector<std::unique_ptr<Attribute>> owned;

   std::string baseStem() const { return base == nullptr ? std::string() : base->stem; }
   std::string_view baseName() const noexcept { return base == nullptr ? std::string_view("Mox::Entity") : base->name; }
};

struct Model {
   std::vector<std::unique_ptr<ValueType>> values;
   /// In the order of the command line; imported types are among them.
   std::vector<std::unique_ptr<EntityType>> entities;
};

/// The highest level that a type may have: `Mox::ReactorClass` has room for levels 0 to 7.
constexpr unsigned highestLevel = 7;

/// Identifiers that a type at `level` may give to its own attributes.
constexpr unsigned firstId(unsigned level) noexcept {
   return level * 128 + 2;
}
constexpr unsigned lastId(unsigned level) noexcept {
   return level * 128 + 127;
}

} // namespace moxc
