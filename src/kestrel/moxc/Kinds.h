// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace moxc {

struct Attribute;

/// What an attribute's `value` names.
enum class Holds {
   value,     ///< a value type
   reference, ///< an entity type, or a counted object, by pointer
   member,    ///< an entity type whose instances the attribute creates and owns
};

/// What the compiler knows about one kind of attribute: its rules in schemas, and its text in each generated file. One
/// object per kind; a new kind is a new class in Kinds.cc and a row in `allKinds`.
class AttributeKind {
public:
   virtual ~AttributeKind() = default;

   // In schemas

   /// The word that schemas use.
   virtual std::string_view word() const noexcept = 0;
   /// A phrase for people who read the tables of attributes.
   virtual std::string_view meaning() const noexcept = 0;
   virtual Holds holds() const noexcept = 0;
   /// Whether the schema names the type of a key.
   virtual bool hasKeyType() const noexcept { return false; }
   /// Whether a notification carries a key: kinds with a key type, and collections keyed by their members' names.
   virtual bool isKeyed() const noexcept { return hasKeyType(); }
   /// Whether there is a value for each key, so that the key type must say how many keys there are.
   virtual bool isFixed() const noexcept { return false; }
   /// The link that members carry, in the word of their schemas' field `member`; empty for kinds without members.
   virtual std::string_view memberLink() const noexcept { return {}; }
   virtual bool mayHaveDefault() const noexcept { return false; }
   /// Whether a constructor parameter can be of this kind.
   virtual bool mayBeParameter() const noexcept { return false; }
   /// Names of the member functions that an attribute `name` adds to its class.
   virtual std::vector<std::string> operations(std::string_view name) const = 0;
   /// Names of the classes that it nests in its class.
   virtual std::vector<std::string> classes(std::string_view) const { return {}; }

   // In C++

   struct Storage {
      std::string type;
      std::string initialiser; ///< with its braces; may be empty
      unsigned alignment;
   };
   virtual Storage storage(Attribute const& a) const = 0;
   /// Headers that the class needs for the storage, beside those of the value types.
   virtual std::vector<std::string> headers(Attribute const&) const { return {}; }
   /// Type as the log and reflection see it: the value, the pointer, the entity.
   virtual std::string valueSpelling(Attribute const& a) const = 0;
   /// Classes nested in the entity's.
   virtual std::string nestedTypes(Attribute const&) const { return {}; }
   /// Accessors and mutators.
   virtual std::string memberFunctions(Attribute const& a) const = 0;
   /// Base class of the attribute's descriptor.
   virtual std::string descriptorBase(Attribute const& a) const = 0;
   /// The calls that a descriptor carries, beside its name and cell.
   virtual std::string descriptorCalls(Attribute const& a) const = 0;
   /// Slots of the reactor interface.
   virtual std::string notifications(Attribute const& a) const = 0;
   /// Override in the forwarder.
   virtual std::string forwarding(Attribute const& a) const = 0;
   /// Handlers of the attribute-log adapter.
   virtual std::string adapterHandlers(Attribute const& a) const = 0;
   /// Operations of the adapter's backlog.
   virtual std::string flowOperations(Attribute const& a) const = 0;
};

std::vector<AttributeKind const*> const& allKinds();
AttributeKind const* findKind(std::string_view word);

/// `name` with its first letter raised.
std::string capitalised(std::string_view name);

} // namespace moxc
