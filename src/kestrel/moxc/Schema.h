// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/moxc/Diagnostics.h"

#include <optional>
#include <string>
#include <vector>

namespace moxc {

/// What the schemas say, word for word: read but not yet checked against each other.

using Text = Located<std::string>;

/// One attribute, or one constructor parameter; a parameter may go without an identifier.
struct AttributeDecl {
   Position at;
   std::optional<Located<long long>> id;
   Text name;
   Text kind; ///< "scalar" where the schema says nothing
   std::optional<Text> value;
   std::optional<Text> key;
   std::optional<Text> defaultValue;
   bool constant = false;
   std::optional<Located<bool>> inherited;
   std::string doc;
   std::string note;
};

/// A mutator to call at the end of the constructor: `name`Is(`expression`).
struct ConstructDecl {
   Text name;
   std::string expression;
};

struct EntityDecl {
   Position at;
   bool imported = false;
   Text name;
   Text base; ///< "Mox::Entity" where the schema says nothing
   std::optional<Located<std::vector<std::string>>> baseArguments;
   std::optional<Text> member;
   bool log = true;
   bool virtualMutators = false;
   bool isAbstract = false;
   std::string doc;
   std::string note;
   std::vector<AttributeDecl> parameters;
   std::vector<AttributeDecl> attributes;
   std::vector<ConstructDecl> construct;
};

struct ValueDecl {
   Position at;
   Text name;
   std::string type; ///< C++ spelling; the name where the schema says nothing
   std::string header;
   Text pass; ///< "value", "reference" or "counted"
   Located<long long> alignment;
   bool key = false;
   std::optional<Located<long long>> count;
   std::string zero;
   std::string doc;
};

struct SchemaFile {
   std::string_view path;
   std::string
      prefix; ///< folder of the generated headers below the include folder; empty or without a slash at its end
   bool imported = false;
   std::optional<EntityDecl> entity;
   std::vector<ValueDecl> values;
};

} // namespace moxc
