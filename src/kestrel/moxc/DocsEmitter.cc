// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Emitters.h"

namespace moxc {

namespace {

std::string code(std::string_view text) {
   return '`' + std::string(text) + '`';
}

/// Text for a table's cell.
std::string cell(std::string_view text) {
   std::string result;
   for (char const c : text)
      if (c == '|') {
         // A backslash before it would take the escape for itself.
         result.append(result.size() - (result.find_last_not_of('\\') + 1), '\\');
         result += "\\|";
      } else {
         result += c == '\n' ? ' ' : c;
      }
   return result;
}

std::string valueText(Attribute const& a) {
   if (a.entity != nullptr)
      return code(a.entity->name) + (a.constant ? " (const)" : "");
   return code(a.value->name);
}

std::string defaultText(Attribute const& a) {
   if (a.isParameter)
      return "as constructed";
   switch (a.kind->holds()) {
   case Holds::reference:
      return a.kind->isKeyed() ? "empty" : "null";
   case Holds::member:
      return "empty";
   case Holds::value:
      break;
   }
   if (a.kind->isKeyed() && !a.kind->isFixed())
      return "empty";
   std::string_view text = a.defaultValue.empty() ? std::string_view(a.value->zero) : a.defaultValue;
   // The suffix tells the C++ compiler that a number is a float; people need none.
   if (text.size() > 1 && text.back() == 'F' && text[text.size() - 2] >= '0' && text[text.size() - 2] <= '9')
      text.remove_suffix(1);
   return (a.kind->isFixed() ? "each " : "") + code(text);
}

std::string keyText(Attribute const& a) {
   if (a.key == nullptr)
      return {};
   return code(a.key->name) + (a.kind->isFixed() ? ", 0 to " + std::to_string(a.key->count - 1) : "");
}

std::string typeSection(EntityType const& type) {
   std::string text = "## " + type.name + "\n\n" + type.doc + "\n\n";
   text += "Base " + code(type.baseName()) + ", level " + std::to_string(type.level) + ", own identifiers from " +
           std::to_string(firstId(type.level)) + " to " + std::to_string(lastId(type.level)) + '.';
   text += type.log ? "\n" : " Without an attribute log: a mirrored reference to it arrives as null.\n";
   if (!type.member.empty())
      text += std::string("Can be a member of ") + (type.member == "hash" ? "a hash" : "an ordered") +
              " collection, under its name.\n";
   if (!type.parameters.empty()) {
      text += "\nConstructed from its name and, in this order:\n\n";
      for (Attribute const* p : type.parameters) {
         text += "- " + code(p->name) + " (" + valueText(*p) + ")";
         text += p->isInherited ? ": handed to the base.\n" : ": " + p->doc + '\n';
      }
   }
   if (!type.construct.empty()) {
      text += "\nSet at construction:";
      for (ConstructValue const& value : type.construct)
         text += (&value == &type.construct.front() ? " " : ", ") + code(value.attribute->name) + " = " +
                 code(value.expression);
      text += ".\n";
   }
   if (type.attributes.empty())
      return text + "\nIt has no attributes of its own.\n";
   text += "\n| Id | Attribute | Kind | Type | Key | Default | Meaning |\n|---|---|---|---|---|---|---|\n";
   for (Attribute const* a : type.attributes) {
      text += "| " + std::to_string(*a->id) + " | " + code(a->name) + " | " +
              std::string(a->isParameter ? std::string_view("parameter") : a->kind->word()) + " | " + valueText(*a) +
              " | " + keyText(*a) + " | " + defaultText(*a) + " | " + cell(a->doc) + " |\n";
   }
   std::string notes;
   if (!type.note.empty())
      notes += "\n" + type.note + "\n";
   for (Attribute const* a : type.attributes)
      if (!a->note.empty())
         notes += "\n- " + code(a->name) + ": " + a->note;
   if (!notes.empty())
      text += "\nWhy these types:\n" + notes + (notes.back() == '\n' ? "" : "\n");
   return text;
}

} // namespace

std::string emitDocumentation(Model const& model) {
   std::string text = R"(# Attributes

Every entity type with its attributes. This page is made by `moxc` from the schemas; change those, not this page.

An identifier is the attribute's number everywhere: in the log, in reflection, and in what a throwing reactor is told. It
is never given to another attribute. Where a unit is not named, the value is raw, in the driver's unit.

## Kinds

| Kind | What it is |
|---|---|
)";
   for (AttributeKind const* kind : allKinds())
      text += "| " + code(kind->word()) + " | " + std::string(kind->meaning()) + " |\n";
   text += R"(| `parameter` | handed to the constructor, read with `x()`, never changed |

Keyed kinds have `xIs(k, v)`, `xDel(k)`, `xDelAll()` and `xNotify(k)`; a collection has `xIs(name)`, which finds or
creates, and references are set with `xIs(entity)`.

## Value types

The record header states the width of a value that is an integer of 16, 32 or 64 bits in C++; other values carry their own length
or need none.

| Type | C++ | Default | Meaning |
|---|---|---|---|
)";
   for (auto const& value : model.values)
      if (value->pass != Pass::counted)
         text += "| " + code(value->name) + " | " + code(value->cppType) + " | " + code(value->zero) + " | " +
                 cell(value->doc) + " |\n";
   text += R"(
## Mox::Entity

The base of every type, level 1.

| Id | Attribute | Meaning |
|---|---|---|
| 130 | `name` | the entity's name, fixed at construction |
| 131 | `parent` | the entity whose collection owns this one, or null |
)";
   for (auto const& type : model.entities)
      if (!type->imported)
         text += '\n' + typeSection(*type);
   return text;
}

} // namespace moxc
