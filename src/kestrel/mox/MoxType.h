// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <string_view>
#include <vector>

namespace Mox {

class Entity;
struct DumpLine;

namespace NboAttrLog {
struct TypeOperations;
}

/// What the framework does to an entity whose type it does not know. One table per type, filled by the templates.
struct EntityOperations {
   /// Deletes the members of every collection that this level of the type owns, with notifications: all of them,
   /// whatever reactors throw or put back. Throws the first exception of a reactor when all are gone.
   void (*membersDelAll)(Entity&) = nullptr;
   /// Calls `visit(context, attribute, member)` for every member that this level owns, in iteration order.
   void (*visitMembers)(Entity&, void* context, void (*visit)(void*, AttributeId, Entity&)) = nullptr;
   /// Faults in the structure of this level's own collections (order of trees and chains, counts, parent links).
   unsigned (*auditErrors)(Entity const&, unsigned depth) = nullptr;
   /// Name of the attribute of this level, or empty.
   std::string_view (*attributeName)(AttributeId) = nullptr;
   /// Appends a line per attribute and key of this level, and those of the members below it.
   void (*dumpLines)(Entity const&, std::vector<DumpLine>& lines) = nullptr;
   /// Instantiating collections of this level.
   unsigned collections = 0;
   /// The attribute log of the type; null where it has none.
   NboAttrLog::TypeOperations const* log = nullptr;
   /// The type is only a base of others. No peer makes an entity of exactly this type, so a reference to one arrives as
   /// null.
   bool isAbstract = false;
};

/// The type object: name, base and operations of one entity type. Created once, at the first request, and kept for the
/// life of the process.
class MoxType : public PtrInterface {
public:
   MoxType(std::string_view qualifiedName, Ptr<MoxType const> base, EntityOperations const& operations);

   /// Qualified name, "Hardware::ClariPhy::Cl10010Config".
   String8 const& name() const noexcept { return name_; }
   Ptr<MoxType const> const& base() const noexcept { return base_; }
   /// Depth of the type's class chain: 0 for `Mox::PtrInterface`, 1 for `Mox::Entity`.
   unsigned level() const noexcept { return level_; }
   EntityOperations const& operations() const noexcept { return operations_; }
   bool derivesFrom(MoxType const& other) const noexcept;

   /// The type of that name, or null. Runs the initialisers that libraries have registered since the last request.
   static Ptr<MoxType const> find(std::string_view qualifiedName);

private:
   String8 name_;
   Ptr<MoxType const> base_;
   unsigned level_;
   EntityOperations operations_;
};

/// Registers the types of one library with the type tree when the library is loaded: the one static object that a
/// registration unit has. The initialiser itself runs at the first request for a type by name.
class TypeRegistration {
public:
   using Initialiser = void (*)();
   explicit TypeRegistration(Initialiser initialiser);
};

} // namespace Mox
