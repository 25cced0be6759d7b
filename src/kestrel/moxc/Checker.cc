// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Checker.h"

#include "kestrel/moxc/Names.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>

namespace moxc {

namespace {

/// The value types that every schema may use without declaring them.
std::vector<ValueType> builtins() {
   struct Row {
      char const* name;
      char const* cppType;
      char const* header;
      unsigned alignment;
      bool isKey;
      bool isNumber;
      char const* zero;
      char const* doc;
   };
   static constexpr Row rows[] = {
      {"Bool", "bool", "", 1, false, false, "false", "true or false"},
      {"U8", "std::uint8_t", "<cstdint>", 1, true, true, "0", "unsigned 8-bit number"},
      {"U16", "std::uint16_t", "<cstdint>", 2, true, true, "0", "unsigned 16-bit number"},
      {"U32", "std::uint32_t", "<cstdint>", 4, true, true, "0", "unsigned 32-bit number"},
      {"U64", "Mox::U64", "kestrel/core/Identifiers.h", 8, true, true, "0", "unsigned 64-bit number"},
      {"S32", "std::int32_t", "<cstdint>", 4, true, true, "0", "signed 32-bit number"},
      {"S64", "Mox::S64", "kestrel/core/Identifiers.h", 8, true, true, "0", "signed 64-bit number"},
      {"F32", "float", "", 4, false, false, "0.0", "32-bit floating-point number"},
      {"F64", "double", "", 8, false, false, "0.0", "64-bit floating-point number"},
      {"Seconds", "double", "", 8, false, false, "0.0", "a time, or a span of time, in seconds"},
      {"String8", "Mox::String8", "kestrel/core/String8.h", 8, false, false, "\"\"", "text of 8-bit characters"},
      {"Name", "Mox::Name", "kestrel/core/String8.h", 8, true, false, "\"\"", "name of an entity or of a key"},
   };
   std::vector<ValueType> types;
   for (Row const& row : rows) {
      ValueType type;
      type.name = row.name;
      type.isBuiltin = true;
      type.cppType = row.cppType;
      type.header = row.header;
      type.pass = row.alignment == 8 ? Pass::byReference : Pass::byValue;
      type.alignment = row.alignment;
      type.isLarge = type.header == "kestrel/core/String8.h";
      type.isKey = row.isKey;
      type.isNumber = row.isNumber;
      type.zero = row.zero;
      type.doc = row.doc;
      types.push_back(std::move(type));
   }
   return types;
}

/// The most elements that an array may have.
constexpr long long mostElements = 1024;

class Checker {
public:
   explicit Checker(Diagnostics& diagnostics) : diagnostics_(diagnostics) {}

   Model check(std::vector<SchemaFile> const& files) {
      for (ValueType const& type : builtins())
         valueIs(type, {});
      for (SchemaFile const& file : files)
         for (ValueDecl const& decl : file.values)
            declareValue(decl);
      for (SchemaFile const& file : files)
         if (file.entity && !file.entity->name.value.empty())
            declareEntity(file, *file.entity);
      for (auto const& type : model_.entities)
         define(*type);
      for (auto const& type : model_.entities)
         if (!seen_.contains(type.get()))
            checkCircles(*type);
      return std::move(model_);
   }

private:
   struct Declared {
      EntityType* type;
      EntityDecl const* decl;
      enum class Progress { declared, underWay, done } progress = Progress::declared;
   };

   // Names

   void error(Position const& at, std::string text) { diagnostics_.error(at, std::move(text)); }
   void earlier(Position const& at, std::string const& what) {
      if (!at.file.empty())
         diagnostics_.note(at, "the earlier definition of " + what + " is here");
   }

   void valueIs(ValueType const& type, Position const& at) {
      auto owned = std::make_unique<ValueType>(type);
      values_.emplace(owned->name, std::pair(owned.get(), at));
      model_.values.push_back(std::move(owned));
   }

   template <class Map> static std::vector<std::string_view> keysOf(Map const& map) {
      std::vector<std::string_view> keys;
      for (auto const& [key, value] : map)
         keys.push_back(key);
      return keys;
   }

   bool isNewTypeName(Text const& name) {
      Position before;
      if (auto const value = values_.find(name.value); value != values_.end())
         before = value->second.second;
      else if (auto const entity = entities_.find(name.value); entity != entities_.end())
         before = entity->second.decl->name.at;
      else
         return true;
      error(name.at,
            "the type name " + inQuotes(name.value) + " is taken" + (before.file.empty() ? " by a built-in" : ""));
      earlier(before, inQuotes(name.value));
      return false;
   }

   bool isTypeName(Text const& name) {
      if (!qualifiedParts(name.value).empty())
         return true;
      error(name.at,
            inQuotes(name.value) + " is no C++ type name; expected identifiers joined by \"::\", none a keyword");
      return false;
   }

   /// The name becomes a class, and generated code looks other names up from within its namespaces.
   bool isEntityName(Text const& name) {
      if (!isTypeName(name))
         return false;
      auto const parts = qualifiedParts(name.value);
      for (std::string_view const part : parts)
         if (part == "Mox" || part == "std" || isMacro(part)) {
            error(name.at, inQuotes(name.value) + " has a part " + inQuotes(part) +
                              ", which means something else in every generated file");
            return false;
         }
      for (auto part = parts.begin(); part != parts.end(); ++part)
         if (std::find(parts.begin(), part, *part) != part) {
            error(name.at, inQuotes(name.value) + " has the part " + inQuotes(*part) +
                              " twice, so what generated code calls by it would be the inner one");
            return false;
         }
      if (isNestedName(parts.back()) || isEntityOperation(parts.back())) {
         error(name.at, "a class cannot be called " + inQuotes(parts.back()) +
                           ": every entity has a member of that name for another purpose");
         return false;
      }
      return true;
   }

   void declareValue(ValueDecl const& decl) {
      if (decl.name.value.empty() || !isTypeName(decl.name) || !isNewTypeName(decl.name))
         return;
      static std::map<std::string_view, Pass> const passes{
         {"value", Pass::byValue}, {"reference", Pass::byReference}, {"counted", Pass::counted}};
      auto const pass = passes.find(decl.pass.value);
      if (pass == passes.end())
         error(decl.pass.at,
               "unknown \"pass\" " + inQuotes(decl.pass.value) + "; expected one of " + listed(keysOf(passes)));
      ValueType type;
      type.name = decl.name.value;
      type.cppType = decl.type;
      type.header = decl.header;
      type.pass = pass == passes.end() ? Pass::byValue : pass->second;
      long long const alignment = decl.alignment.value;
      if (alignment != 1 && alignment != 2 && alignment != 4 && alignment != 8)
         error(decl.alignment.at, "\"align\" must be 1, 2, 4 or 8 bytes, but is " + std::to_string(alignment));
      type.alignment = static_cast<unsigned>(alignment);
      type.isLarge = type.pass == Pass::byReference;
      type.isKey = decl.key;
      if (decl.count) {
         long long const count = decl.count->value;
         if (!decl.key)
            error(decl.count->at, "\"count\" says how many keys there are, but " + inQuotes(decl.name.value) +
                                     " is not declared with key = true");
         else if (count < 1 || count > mostElements)
            error(decl.count->at, "\"count\" must be from 1 to " + std::to_string(mostElements) +
                                     ", because arrays are stored inside their entities, but is " +
                                     std::to_string(count));
         type.count = static_cast<unsigned>(count);
      }
      type.zero = decl.zero;
      type.doc = decl.doc;
      valueIs(type, decl.name.at);
   }

   void declareEntity(SchemaFile const& file, EntityDecl const& decl) {
      if (!isEntityName(decl.name) || !isNewTypeName(decl.name))
         return;
      auto type = std::make_unique<EntityType>();
      type->name = decl.name.value;
      auto const parts = qualifiedParts(type->name);
      type->namespaces.assign(parts.begin(), parts.end() - 1);
      type->shortName = parts.back();
      type->imported = decl.imported;
      type->log = decl.log;
      type->virtualMutators = decl.virtualMutators;
      type->doc = decl.doc;
      type->note = decl.note;
      type->isAbstract = decl.isAbstract;
      std::filesystem::path const path =
         std::filesystem::path(file.prefix) / std::filesystem::path(file.path).filename();
      type->schemaName = path.generic_string();
      type->stem = std::filesystem::path(path).replace_extension().generic_string();
      for (char const* const ending : {".h", "Reactor.h", "Log.h"})
         if (auto const [before, isNew] = files_.emplace(type->stem + ending, decl.at); !isNew) {
            error(decl.at, "this schema would write the same files as another one: " + inQuotes(before->first));
            diagnostics_.note(before->second, "the other schema is here");
            break;
         }
      if (decl.member) {
         type->member = decl.member->value;
         if (type->member != "hash" && type->member != "tree")
            error(decl.member->at, "unknown \"member\" " + inQuotes(type->member) + "; expected \"hash\" or \"tree\"");
      }
      entities_.emplace(type->name, Declared{type.get(), &decl});
      model_.entities.push_back(std::move(type));
   }

   // Entities

   /// Checks a type, its bases first. False when the type stands in a circle of bases.
   bool define(EntityType& type) {
      Declared& declared = entities_.at(type.name);
      if (declared.progress != Declared::Progress::declared)
         return declared.progress == Declared::Progress::done;
      declared.progress = Declared::Progress::underWay;
      EntityDecl const& decl = *declared.decl;
      bool const hasBase = resolveBase(type, decl);
      declared.progress = Declared::Progress::done;

      checkBaseArguments(type, decl, hasBase);
      for (AttributeDecl const& row : decl.parameters)
         define(type, row, true, hasBase);
      for (AttributeDecl const& row : decl.attributes)
         define(type, row, false, hasBase);
      for (ConstructDecl const& row : decl.construct)
         define(type, row, hasBase);
      checkCreation(type, decl);
      return true;
   }

   /// The log creates an entity from its name and the parameters that can be read back.
   void checkCreation(EntityType const& type, EntityDecl const& decl) {
      if (type.isAbstract)
         return;
      for (Attribute const* parameter : type.parameters)
         if (!parameter->id && (type.log || !type.member.empty())) {
            error(places_.at(parameter),
                  "the parameter " + inQuotes(parameter->name) +
                     " has no identifier, so nobody but its maker can create the type; give it one, or the entity "
                     "abstract = true");
            diagnostics_.note(decl.name.at, inQuotes(type.name) + " is defined here");
         }
   }

   bool resolveBase(EntityType& type, EntityDecl const& decl) {
      if (decl.base.value == "Mox::Entity")
         return true;
      auto const base = entities_.find(decl.base.value);
      if (base == entities_.end()) {
         auto known = keysOf(entities_);
         known.push_back("Mox::Entity");
         std::string const hint = suggestion(decl.base.value, known);
         error(decl.base.at,
               "unknown base " + inQuotes(decl.base.value) +
                  (hint.empty() ? "; expected \"Mox::Entity\" or an entity of these schemas or of an --import" : hint));
         return false;
      }
      if (base->second.progress == Declared::Progress::underWay || !define(*base->second.type)) {
         error(decl.base.at,
               "the base " + inQuotes(decl.base.value) + " derives from " + inQuotes(type.name) + " itself");
         return false;
      }
      type.base = base->second.type;
      type.level = type.base->level + 1;
      if (type.level == highestLevel + 1) // once for all types below it
         error(decl.base.at, inQuotes(type.name) + " would be at level " + std::to_string(type.level) +
                                "; a chain of bases ends at level " + std::to_string(highestLevel) +
                                ", where Mox::Entity is 1");
      if (type.log && !type.base->log)
         error(decl.at,
               "a type with a log needs a base with one, but " + inQuotes(type.base->name) + " has log = false");
      return true;
   }

   void checkBaseArguments(EntityType& type, EntityDecl const& decl, bool hasBase) {
      type.baseArguments = decl.baseArguments ? decl.baseArguments->value : std::vector<std::string>{"name"};
      std::vector<std::string_view> expected{"name"};
      if (type.base != nullptr)
         for (Attribute const* parameter : type.base->parameters)
            expected.push_back(parameter->name);
      if (hasBase && type.baseArguments.size() != expected.size())
         error(decl.baseArguments ? decl.baseArguments->at : decl.base.at,
               "the base " + inQuotes(type.baseName()) + " is constructed from " + std::to_string(expected.size()) +
                  " (" + listed(expected) + "), but \"baseArguments\" has " +
                  std::to_string(type.baseArguments.size()));
   }

   // Attributes

   void define(EntityType& type, AttributeDecl const& decl, bool isParameter, bool hasBase) {
      if (decl.inherited && decl.inherited->value) {
         inherit(type, decl, hasBase);
         return;
      }
      auto owned = std::make_unique<Attribute>();
      Attribute& attribute = *owned;
      attribute.name = decl.name.value;
      attribute.constant = decl.constant;
      attribute.doc = decl.doc;
      attribute.note = decl.note;
      attribute.isParameter = isParameter;
      attribute.owner = &type;
      if (decl.defaultValue)
         attribute.defaultValue = decl.defaultValue->value;
      attribute.kind = findKind(decl.kind.value);
      if (attribute.kind == nullptr)
         unknownKind(decl);
      else
         checkKind(attribute, decl, isParameter);
      if (hasBase)
         checkIdentifier(type, attribute, decl);
      if (!attribute.name.empty())
         checkName(type, attribute, decl);

      checkHeaders(attribute, decl);
      places_.emplace(&attribute, decl.name.at);
      if (attribute.id)
         type.attributes.push_back(&attribute);
      if (isParameter)
         type.parameters.push_back(&attribute);
      type.owned.push_back(std::move(owned));
   }

   void inherit(EntityType& type, AttributeDecl const& decl, bool hasBase) {
      std::vector<std::string_view> known;
      if (type.base != nullptr)
         for (Attribute const* parameter : type.base->parameters) {
            if (parameter->name == decl.name.value && parameter->id) {
               auto owned = std::make_unique<Attribute>(*parameter);
               owned->isInherited = true;
               type.parameters.push_back(owned.get());
               type.owned.push_back(std::move(owned));
               return;
            }
            if (parameter->id)
               known.push_back(parameter->name);
         }
      if (hasBase)
         error(decl.name.at, "the base " + inQuotes(type.baseName()) + " has no readable parameter " +
                                inQuotes(decl.name.value) + " to inherit" +
                                (known.empty() ? std::string() : "; expected one of " + listed(known)));
   }

   void unknownKind(AttributeDecl const& decl) {
      std::vector<std::string_view> words;
      for (AttributeKind const* kind : allKinds())
         words.push_back(kind->word());
      std::string const hint = suggestion(decl.kind.value, words);
      error(decl.kind.at,
            "unknown kind " + inQuotes(decl.kind.value) + (hint.empty() ? "; expected one of " + listed(words) : hint));
   }

   static std::string phrase(Attribute const& attribute) {
      return "the " + std::string(attribute.kind->word()) + " " + inQuotes(attribute.name);
   }

   void checkKind(Attribute& attribute, AttributeDecl const& decl, bool isParameter) {
      AttributeKind const& kind = *attribute.kind;
      if (isParameter && !kind.mayBeParameter())
         error(decl.kind.at, "a constructor parameter is a \"scalar\" or a \"reference\", but " +
                                inQuotes(decl.name.value) + " is of kind " + inQuotes(kind.word()));
      if (decl.value && !decl.value->value.empty())
         kind.holds() == Holds::value ? resolveValue(attribute, *decl.value)
                                      : resolveEntity(attribute, *decl.value, isParameter && !decl.id);
      if (kind.hasKeyType() && !decl.key)
         error(decl.at, phrase(attribute) + " has no \"key\"; it is required");
      else if (!kind.hasKeyType() && decl.key)
         error(decl.key->at, phrase(attribute) + " takes no \"key\"" +
                                (kind.isKeyed() ? "; its entities are keyed by their names" : ""));
      else if (decl.key)
         resolveKey(attribute, *decl.key);
      else if (kind.isKeyed())
         attribute.key = values_.find("Name")->second.first;
      if (decl.defaultValue && (!kind.mayHaveDefault() || isParameter))
         error(decl.defaultValue->at, isParameter
                                         ? "the parameter " + inQuotes(attribute.name) + " takes no \"default\""
                                         : phrase(attribute) + " takes no \"default\"");
      else if (decl.defaultValue && attribute.value != nullptr)
         checkDefault(*attribute.value, *decl.defaultValue);
      if (isParameter && decl.id && kind.holds() == Holds::value)
         error(decl.id->at, "a parameter with an identifier must be a \"reference\"; without one, " +
                               inQuotes(attribute.name) + " may hold a value");
      if (attribute.constant && kind.holds() != Holds::reference)
         error(decl.at, phrase(attribute) + " takes no \"constant\"; only references have it");
      if (kind.word() == "counter" && attribute.value != nullptr && !attribute.value->isNumber)
         error(decl.value->at,
               "a counter counts in whole numbers, but " + inQuotes(attribute.value->name) + " is none");
   }

   /// Checks a default that is a number, where the range of the type is known here. For other types the C++ compiler
   /// checks it (`Mox::isFirst`).
   void checkDefault(ValueType const& type, Text const& text) {
      if (!isNumberLiteral(text.value) || (!type.isNumber && type.count == 0))
         return;
      bool const isSigned = type.isNumber && type.name.front() == 'S';
      unsigned const bits = type.alignment * 8 - (isSigned ? 1 : 0);
      std::uint64_t const highest = type.count != 0 ? type.count - 1 : ~std::uint64_t{0} >> (64 - bits);
      auto const number = integerOf(text.value);
      if (!number ||
          (number->isNegative ? number->magnitude > (isSigned ? highest + 1 : 0) : number->magnitude > highest))
         error(text.at, "the default " + text.value + " is no " + inQuotes(type.name) +
                           "; expected a whole number from " + (isSigned ? "-" + std::to_string(highest + 1) : "0") +
                           " to " + std::to_string(highest));
   }

   void resolveValue(Attribute& attribute, Text const& name) {
      if (auto const value = values_.find(name.value); value != values_.end()) {
         attribute.value = value->second.first;
         if (attribute.value->pass == Pass::counted)
            error(name.at, inQuotes(name.value) +
                              " is a counted object; only a parameter of kind \"reference\" and without " +
                              "an identifier holds one");
      } else if (entities_.contains(name.value)) {
         error(name.at, inQuotes(name.value) + " is an entity type, but " + phrase(attribute) +
                           " holds values; expected a value type, or kind = \"reference\"");
      } else {
         error(name.at, "unknown value type " + inQuotes(name.value) + suggestion(name.value, keysOf(values_)));
      }
   }

   void resolveEntity(Attribute& attribute, Text const& name, bool mayBeCounted) {
      if (auto const entity = entities_.find(name.value); entity != entities_.end()) {
         attribute.entity = entity->second.type;
         bool const isMember = attribute.kind->holds() == Holds::member;
         if (isMember && attribute.entity->isAbstract) {
            error(name.at, inQuotes(name.value) + " is abstract, but " + phrase(attribute) + " creates its members");
            diagnostics_.note(entity->second.decl->name.at, inQuotes(name.value) + " is defined here");
         } else if (isMember && attribute.entity->member != attribute.kind->memberLink()) {
            error(name.at, inQuotes(name.value) + " cannot be a member of " + phrase(attribute) +
                              ": its schema has no member = " + inQuotes(attribute.kind->memberLink()));
            diagnostics_.note(entity->second.decl->name.at, inQuotes(name.value) + " is defined here");
         } else if (isMember && attribute.owner->log && !attribute.entity->log) {
            error(name.at, inQuotes(name.value) + " has log = false, but " + phrase(attribute) + " of " +
                              inQuotes(attribute.owner->name) + ", which has a log, announces its members");
            diagnostics_.note(entity->second.decl->name.at, inQuotes(name.value) + " is defined here");
         }
      } else if (auto const value = values_.find(name.value); value != values_.end()) {
         attribute.value = value->second.first;
         if (attribute.value->pass != Pass::counted || !mayBeCounted)
            error(name.at, inQuotes(name.value) + " is a value type, but " + phrase(attribute) +
                              " holds entities; expected an entity type");
      } else {
         error(name.at, "unknown entity type " + inQuotes(name.value) +
                           (suggestion(name.value, keysOf(entities_)).empty()
                               ? "; expected an entity of these schemas or of an --import"
                               : suggestion(name.value, keysOf(entities_))));
      }
   }

   void resolveKey(Attribute& attribute, Text const& name) {
      auto const value = values_.find(name.value);
      if (value == values_.end()) {
         error(name.at, "unknown key type " + inQuotes(name.value) + suggestion(name.value, keysOf(values_)));
         return;
      }
      attribute.key = value->second.first;
      if (!attribute.key->isKey) {
         error(name.at, inQuotes(name.value) + " cannot be a key: the value type is not declared with key = true");
         earlier(value->second.second, inQuotes(name.value));
      } else if (attribute.kind->isFixed() && attribute.key->count == 0) {
         error(name.at, inQuotes(name.value) + " cannot be the key of " + phrase(attribute) +
                           ": the value type is not declared with a \"count\" of its keys");
         earlier(value->second.second, inQuotes(name.value));
      }
   }

   /// The C++ compiler looks for a quoted header beside the including file first, and would find a generated header of
   /// that name.
   void checkHeaders(Attribute const& attribute, AttributeDecl const& decl) {
      auto const folder = std::filesystem::path(attribute.owner->stem).parent_path();
      for (auto const& [type, text] : {std::pair(attribute.value, &decl.value), std::pair(attribute.key, &decl.key)})
         if (type != nullptr && !type->header.empty() && *text)
            for (auto const& path : {std::filesystem::path(type->header), folder / type->header})
               if (auto const file = files_.find(path.lexically_normal().generic_string()); file != files_.end()) {
                  error((*text)->at, "the header " + inQuotes(type->header) + " of " + inQuotes(type->name) +
                                        " would be the one that is made of a schema; give it another name");
                  diagnostics_.note(file->second, "that schema is here");
                  break;
               }
   }

   // Identifiers and names of attributes

   void checkIdentifier(EntityType const& type, Attribute& attribute, AttributeDecl const& decl) {
      if (!decl.id)
         return;
      long long const id = decl.id->value;
      unsigned const first = firstId(type.level);
      unsigned const last = lastId(type.level);
      attribute.id = static_cast<unsigned>(id);
      if (auto const use = reservedIdentifier(id)) {
         error(decl.id->at, "identifier " + std::to_string(id) + " is the framework's own (" + std::string(*use) +
                               "); " + inQuotes(type.name) + " numbers from " + std::to_string(first) + " to " +
                               std::to_string(last));
         return;
      }
      if (id < first || id > last) {
         error(decl.id->at, "identifier " + std::to_string(id) + " is outside the range of " + inQuotes(type.name) +
                               ", a type at level " + std::to_string(type.level) + ": expected " +
                               std::to_string(first) + " to " + std::to_string(last));
         return;
      }
      for (Attribute const* other : type.attributes)
         if (other->id == attribute.id) {
            error(decl.id->at, "identifier " + std::to_string(id) + " is taken by " + inQuotes(other->name));
            earlier(places_.at(other), inQuotes(other->name));
            return;
         }
      if (!type.attributes.empty() && *type.attributes.back()->id > *attribute.id) {
         Attribute const& before = *type.attributes.back();
         error(decl.id->at,
               "identifiers must ascend, but " + std::to_string(id) + " follows " + std::to_string(*before.id));
         diagnostics_.note(places_.at(&before), inQuotes(before.name) + " is here");
      }
   }

   void checkName(EntityType const& type, Attribute const& attribute, AttributeDecl const& decl) {
      std::string const& name = attribute.name;
      if (!isIdentifier(name) || name.find('_') != std::string::npos) {
         error(decl.name.at, inQuotes(name) + " is no attribute name; expected a letter, then letters and digits");
      } else if (isCppKeyword(name)) {
         error(decl.name.at, inQuotes(name) + " is a C++ keyword and cannot name an attribute");
      } else if (isMacro(name)) {
         error(decl.name.at, inQuotes(name) + " is a macro of a standard header and cannot name an attribute");
      } else if (name[0] >= 'A' && name[0] <= 'Z') {
         // With a small letter first, no two attributes can share a notification on + capitalised name.
         std::string lower = name;
         lower[0] = static_cast<char>(lower[0] - 'A' + 'a');
         error(decl.name.at,
               "attribute names begin with a small letter; expected " + inQuotes(lower) + ", found " + inQuotes(name));
      } else if (name == type.shortName) {
         error(decl.name.at, inQuotes(name) + " is the name of the class itself");
      } else {
         checkCollisions(type, attribute, decl);
      }
   }

   void checkCollisions(EntityType const& type, Attribute const& attribute, AttributeDecl const& decl) {
      for (EntityType const* owner = &type; owner != nullptr; owner = owner->base)
         for (auto const& other : owner->owned)
            if (other->name == attribute.name && !other->isInherited) {
               error(decl.name.at,
                     "the attribute " + inQuotes(attribute.name) + " is defined twice" +
                        (owner == &type ? std::string() : "; the base " + inQuotes(owner->name) + " has it"));
               earlier(places_.at(other.get()), inQuotes(attribute.name));
               return;
            }
      if (attribute.kind == nullptr)
         return;
      std::string const notification = "on" + capitalised(attribute.name);
      if (isReactorOperation(notification)) {
         error(decl.name.at, "the attribute " + inQuotes(attribute.name) + " would be announced with " + notification +
                                "(), which every reactor has for another purpose");
         return;
      }
      if (attribute.isParameter && attribute.name == "key") {
         error(decl.name.at,
               "a parameter cannot be called \"key\": that is the name of a member in the calls that create it");
         return;
      }
      for (std::string const& name : attribute.kind->classes(attribute.name))
         if (isNestedName(name)) {
            error(decl.name.at, "the attribute " + inQuotes(attribute.name) + " would have a class " + name +
                                   ", which every entity has for another purpose");
            return;
         }
      auto const names = declared(attribute);
      for (std::string const& name : names) {
         if (isEntityOperation(name)) {
            error(decl.name.at,
                  "the attribute " + inQuotes(attribute.name) + " would hide the entity operation " + name + "()");
            return;
         }
         if (name == type.shortName) {
            error(decl.name.at, "the attribute " + inQuotes(attribute.name) + " would declare " + name +
                                   ", the name of the class itself");
            return;
         }
         for (EntityType const* owner = &type; owner != nullptr; owner = owner->base)
            for (auto const& other : owner->owned) {
               if (other->isInherited || other->kind == nullptr)
                  continue;
               auto const taken = declared(*other);
               if (std::find(taken.begin(), taken.end(), name) != taken.end()) {
                  bool const isClass = name.starts_with("Mox");
                  error(decl.name.at, (isClass ? "the class " + name : "the operation " + name + "()") +
                                         " of the attribute " + inQuotes(attribute.name) + " is also one of " +
                                         inQuotes(other->name));
                  earlier(places_.at(other.get()), inQuotes(other->name));
                  return;
               }
            }
      }
   }

   /// Everything that an attribute declares in the entity's class and its reactors.
   static std::vector<std::string> declared(Attribute const& attribute) {
      auto names = attribute.kind->operations(attribute.name);
      for (std::string& name : attribute.kind->classes(attribute.name))
         names.push_back(std::move(name));
      // Notifications are in a class of their own, so that an attribute may have the name of a notification.
      names.push_back("Notifiee::on" + capitalised(attribute.name));
      if (attribute.kind->isKeyed())
         names.push_back(names.back() + "moxImmediate");
      return names;
   }

   /// Headers include those of the base and of the entities that attributes refer to; a circle would not compile.
   void checkCircles(EntityType const& type) {
      seen_.insert(&type);
      path_.push_back(&type);
      auto const visit = [&](EntityType const* other, Position const& at) {
         if (other == nullptr || other == &type)
            return;
         auto const start = std::find(path_.begin(), path_.end(), other);
         if (start == path_.end()) {
            if (!seen_.contains(other))
               checkCircles(*other);
            return;
         }
         std::vector<std::string_view> names;
         for (auto step = start; step != path_.end(); ++step)
            names.push_back((*step)->name);
         error(at, "the headers of " + listed(names) +
                      " would include each other; break the circle, for instance with a " +
                      "reference to a common base");
      };
      visit(type.base, entities_.at(type.name).decl->base.at);
      for (auto const& attribute : type.owned)
         if (!attribute->isInherited)
            visit(attribute->entity, places_.at(attribute.get()));
      path_.pop_back();
   }

   void define(EntityType& type, ConstructDecl const& decl, bool hasBase) {
      std::vector<std::string_view> known;
      for (EntityType const* owner = &type; owner != nullptr; owner = owner->base)
         for (Attribute const* attribute : owner->attributes) {
            if (attribute->isParameter || attribute->kind == nullptr || attribute->kind->isKeyed())
               continue;
            if (attribute->name == decl.name.value) {
               type.construct.push_back({attribute, decl.expression});
               return;
            }
            known.push_back(attribute->name);
         }
      if (hasBase)
         error(decl.name.at, inQuotes(decl.name.value) + " cannot be set at construction: " + inQuotes(type.name) +
                                " has no such changeable attribute with one value" +
                                suggestion(decl.name.value, known));
   }

   Diagnostics& diagnostics_;
   Model model_;
   std::map<std::string, std::pair<ValueType const*, Position>, std::less<>> values_;
   std::map<std::string, Declared, std::less<>> entities_;
   std::map<std::string, Position> files_;
   std::map<Attribute const*, Position> places_;
   std::set<EntityType const*> seen_;
   std::vector<EntityType const*> path_;
};

} // namespace

Model checkSchemas(std::vector<SchemaFile> const& files, Diagnostics& diagnostics) {
   return Checker(diagnostics).check(files);
}

} // namespace moxc
