// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/SchemaReader.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace moxc {

namespace {

std::string_view typeWord(toml::node const& node) {
   switch (node.type()) {
   case toml::node_type::table:
      return "a table";
   case toml::node_type::array:
      return "an array";
   case toml::node_type::string:
      return "a string";
   case toml::node_type::integer:
      return "an integer";
   case toml::node_type::floating_point:
      return "a floating-point number";
   case toml::node_type::boolean:
      return "a boolean";
   case toml::node_type::date:
   case toml::node_type::time:
   case toml::node_type::date_time:
      return "a date or time";
   case toml::node_type::none:
      break;
   }
   return "nothing";
}

template <class T> constexpr std::string_view expectedWord;
template <> constexpr std::string_view expectedWord<std::string> = "a string";
template <> constexpr std::string_view expectedWord<bool> = "true or false";
template <> constexpr std::string_view expectedWord<std::int64_t> = "an integer";
template <> constexpr std::string_view expectedWord<toml::table> = "a table";
template <> constexpr std::string_view expectedWord<toml::array> = "an array of tables";

/// Takes the fields out of one table. Fields that nobody asked for are reported at the end.
class FieldReader {
public:
   FieldReader(toml::table const& table, std::string what, std::string_view file, Diagnostics& diagnostics)
      : table_(table), what_(std::move(what)), file_(file), diagnostics_(diagnostics) {}

   Position position(toml::source_region const& source) const {
      return {file_, source.begin.line, source.begin.column};
   }
   Position at() const { return position(table_.source()); }

   template <class T> std::optional<Located<T>> optional(std::string_view field) {
      toml::node const* const node = find(field);
      if (node == nullptr)
         return {};
      if (auto const* const value = node->as<T>())
         return Located<T>{value->get(), position(node->source())};
      wrongType(field, *node, expectedWord<T>);
      return {};
   }

   Located<std::string> required(std::string_view field) {
      if (table_.get(field) == nullptr)
         diagnostics_.error(at(), what_ + " has no " + inQuotes(field) + "; it is required");
      auto text = optional<std::string>(field).value_or(Located<std::string>{{}, at()});
      if (table_.get(field) != nullptr && text.value.empty() && table_.get(field)->is_string())
         diagnostics_.error(text.at, inQuotes(field) + " of " + what_ + " is empty");
      return text;
   }

   /// Text for people, which goes into comments: a line of one that ends in a backslash would take the next line with it.
   std::string documentation() {
      auto doc = required("doc");
      for (std::size_t at = 0; (at = doc.value.find('\\', at)) != std::string::npos; ++at)
         if (at + 1 == doc.value.size() || std::isspace(static_cast<unsigned char>(doc.value[at + 1]))) {
            diagnostics_.error(doc.at, "\"doc\" of " + what_ +
                                          " has a word that ends in a backslash, which a comment of C++ cannot have at "
                                          "the end of a line; put it in quotation marks");
            break;
         }
      return std::move(doc.value);
   }

   std::string text(std::string_view field, std::string_view absent = {}) {
      auto found = optional<std::string>(field);
      return found ? found->value : std::string(absent);
   }
   bool flag(std::string_view field, bool absent) {
      auto found = optional<bool>(field);
      return found ? found->value : absent;
   }

   toml::table const* subtable(std::string_view field) { return structure<toml::table>(field); }

   /// Calls `read` with each table of an array of tables.
   template <class Read> void tables(std::string_view field, Read read) {
      toml::array const* const array = structure<toml::array>(field);
      if (array == nullptr)
         return;
      for (toml::node const& element : *array)
         if (auto const* const table = element.as_table())
            read(*table);
         else
            wrongType(field, element, "a table { … }");
   }

   std::optional<Located<std::vector<std::string>>> texts(std::string_view field) {
      toml::node const* const node = find(field);
      if (node == nullptr)
         return {};
      Located<std::vector<std::string>> result{{}, position(node->source())};
      toml::array const* const array = node->as_array();
      if (array == nullptr) {
         wrongType(field, *node, "an array of strings");
         return result;
      }
      for (toml::node const& element : *array)
         if (auto const* const text = element.as_string())
            result.value.push_back(text->get());
         else
            wrongType(field, element, "a string");
      return result;
   }

   void finish() {
      for (auto const& [key, node] : table_) {
         std::string_view const name = key.str();
         if (std::find(asked_.begin(), asked_.end(), name) == asked_.end())
            diagnostics_.error(position(key.source()),
                               what_ + " has an unknown field " + inQuotes(name) +
                                  (suggestion(name, asked_).empty() ? "; expected one of " + listed(asked_)
                                                                    : suggestion(name, asked_)));
      }
   }

private:
   toml::node const* find(std::string_view field) {
      asked_.push_back(field);
      return table_.get(field);
   }
   template <class T> T const* structure(std::string_view field) {
      toml::node const* const node = find(field);
      if (node == nullptr)
         return nullptr;
      if (auto const* const structure = node->as<T>())
         return structure;
      wrongType(field, *node, expectedWord<T>);
      return nullptr;
   }
   void wrongType(std::string_view field, toml::node const& node, std::string_view expected) {
      diagnostics_.error(position(node.source()), inQuotes(field) + " of " + what_ + " must be " +
                                                     std::string(expected) + ", but is " + std::string(typeWord(node)));
   }

   toml::table const& table_;
   std::string what_;
   std::string_view file_;
   Diagnostics& diagnostics_;
   std::vector<std::string_view> asked_;
};

class SchemaReader {
public:
   SchemaReader(std::string_view path, Diagnostics& diagnostics) : path_(path), diagnostics_(diagnostics) {}

   void read(toml::table const& root, SchemaFile& file) {
      FieldReader fields(root, "the schema", path_, diagnostics_);
      if (toml::table const* const table = fields.subtable("entity"))
         file.entity = entity(*table, file.imported);
      fields.tables("value", [&](toml::table const& table) { file.values.push_back(value(table)); });
      fields.finish();
      if (root.empty())
         diagnostics_.error({path_, 1, 1}, "the schema is empty; expected [entity] or [[value]]");
   }

private:
   EntityDecl entity(toml::table const& table, bool imported) {
      FieldReader fields(table, "the entity", path_, diagnostics_);
      EntityDecl decl;
      decl.at = fields.at();
      decl.imported = imported;
      decl.name = fields.required("name");
      decl.base = fields.optional<std::string>("base").value_or(Text{"Mox::Entity", decl.at});
      decl.baseArguments = fields.texts("baseArguments");
      decl.member = fields.optional<std::string>("member");
      decl.log = fields.flag("log", true);
      decl.virtualMutators = fields.flag("virtual", false);
      decl.isAbstract = fields.flag("abstract", false);
      decl.doc = fields.documentation();
      decl.note = fields.text("note");
      fields.tables("parameters", [&](toml::table const& row) { decl.parameters.push_back(attribute(row, true)); });
      fields.tables("attributes", [&](toml::table const& row) { decl.attributes.push_back(attribute(row, false)); });
      if (toml::table const* const values = fields.subtable("construct")) {
         for (auto const& [key, node] : *values) {
            Position const at = fields.position(key.source());
            if (auto const* const text = node.as_string())
               decl.construct.push_back({{std::string(key.str()), at}, text->get()});
            else
               diagnostics_.error(fields.position(node.source()),
                                  "the value of " + inQuotes(key.str()) +
                                     " at construction must be a string that holds a C++ expression, but is " +
                                     std::string(typeWord(node)));
         }
      }
      // The parser keeps tables sorted by key; people expect the order of the schema.
      std::stable_sort(decl.construct.begin(), decl.construct.end(), [](auto const& a, auto const& b) {
         return std::pair(a.name.at.line, a.name.at.column) < std::pair(b.name.at.line, b.name.at.column);
      });
      fields.finish();
      return decl;
   }

   AttributeDecl attribute(toml::table const& table, bool isParameter) {
      std::string what = isParameter ? "a parameter" : "an attribute";
      if (auto const name = table["name"].value<std::string>())
         what = (isParameter ? "the parameter " : "the attribute ") + inQuotes(*name);
      FieldReader fields(table, what, path_, diagnostics_);
      AttributeDecl decl;
      decl.at = fields.at();
      if (auto const id = fields.optional<std::int64_t>("id"))
         decl.id = Located<long long>{id->value, id->at};
      else if (!isParameter && table.get("id") == nullptr)
         diagnostics_.error(decl.at, what + " has no \"id\"; it is required");
      decl.name = fields.required("name");
      decl.kind = fields.optional<std::string>("kind").value_or(Text{"scalar", decl.at});
      if (isParameter)
         decl.inherited = fields.optional<bool>("inherited");
      bool const inherited = decl.inherited && decl.inherited->value;
      if (inherited) {
         fields.finish();
         return decl;
      }
      decl.value = fields.required("value");
      decl.key = fields.optional<std::string>("key");
      decl.defaultValue = fields.optional<std::string>("default");
      decl.constant = fields.flag("constant", false);
      decl.doc = fields.documentation();
      decl.note = fields.text("note");
      fields.finish();
      return decl;
   }

   ValueDecl value(toml::table const& table) {
      FieldReader fields(table, "a value type", path_, diagnostics_);
      ValueDecl decl;
      decl.at = fields.at();
      decl.name = fields.required("name");
      decl.type = fields.text("type", decl.name.value);
      decl.header = fields.required("header").value;
      decl.pass = fields.optional<std::string>("pass").value_or(Text{"value", decl.at});
      decl.alignment = {4, decl.at};
      if (auto const alignment = fields.optional<std::int64_t>("align"))
         decl.alignment = {alignment->value, alignment->at};
      decl.key = fields.flag("key", false);
      if (auto const count = fields.optional<std::int64_t>("count"))
         decl.count = Located<long long>{count->value, count->at};
      decl.zero = fields.text("zero", "0");
      decl.doc = fields.documentation();
      fields.finish();
      return decl;
   }

   std::string_view path_;
   Diagnostics& diagnostics_;
};

} // namespace

SchemaFile readSchema(std::string_view path, std::string prefix, bool imported, Diagnostics& diagnostics) {
   SchemaFile file{path, std::move(prefix), imported, {}, {}};
   std::string const name(path);
   std::error_code ignored;
   std::ifstream in(name, std::ios::binary);
   if (!in || std::filesystem::is_directory(name, ignored)) {
      diagnostics.error({path}, std::string("cannot read the schema: ") + std::strerror(in ? EISDIR : errno));
      return file;
   }
   std::string const bytes{std::istreambuf_iterator<char>(in), {}};
   try {
      toml::table const root = toml::parse(bytes, path);
      SchemaReader(path, diagnostics).read(root, file);
   } catch (toml::parse_error const& error) {
      diagnostics.error({path, error.source().begin.line, error.source().begin.column},
                        "malformed TOML: " + std::string(error.description()));
   }
   return file;
}

} // namespace moxc
