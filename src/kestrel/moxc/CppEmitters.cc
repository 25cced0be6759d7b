// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/CppText.h"
#include "kestrel/moxc/Emitters.h"
#include "kestrel/moxc/Names.h"

#include <algorithm>
#include <functional>
#include <set>

namespace moxc {

namespace {

std::string banner(EntityType const& type) {
   auto const slash = type.schemaName.rfind('/');
   return "// Made by moxc from " + type.schemaName.substr(slash == std::string::npos ? 0 : slash + 1) +
          ": change that file, not this one.\n";
}

/// Include lines, quoted before bracketed, each sorted.
std::string includes(std::set<std::string> const& headers) {
   std::string own;
   std::string standard;
   for (std::string const& header : headers)
      if (header.starts_with('<'))
         standard += "#include " + header + '\n';
      else
         own += "#include \"" + header + "\"\n";
   return own + (own.empty() || standard.empty() ? "" : "\n") + standard;
}

std::string inNamespace(EntityType const& type, std::string const& body) {
   std::string const name = joinedWith("::", type.namespaces);
   return name.empty() ? body : "namespace " + name + " {\n\n" + body + "\n} // namespace " + name + '\n';
}

/// The type's own attributes that are no constructor parameters.
std::vector<Attribute const*> changeable(EntityType const& type) {
   std::vector<Attribute const*> result;
   std::copy_if(type.attributes.begin(), type.attributes.end(), std::back_inserter(result),
                [](Attribute const* a) { return !a->isParameter; });
   return result;
}

/// Readable parameters, own ones and those of a base that are handed on.
std::vector<Attribute const*> readableParameters(EntityType const& type) {
   std::vector<Attribute const*> result;
   std::copy_if(type.parameters.begin(), type.parameters.end(), std::back_inserter(result),
                [](Attribute const* a) { return a->id.has_value(); });
   return result;
}

/// Everything that the type stores: parameters without an identifier first, then the attributes.
std::vector<Attribute const*> stored(EntityType const& type) {
   std::vector<Attribute const*> result;
   for (Attribute const* parameter : type.parameters)
      if (!parameter->id)
         result.push_back(parameter);
   result.insert(result.end(), type.attributes.begin(), type.attributes.end());
   return result;
}

struct Member {
   AttributeKind::Storage storage;
   std::string name;
   bool isParameter;
};

/// Data members, the most strictly aligned first and otherwise in the order of the schema, so that none needs padding.
std::vector<Member> members(EntityType const& type) {
   std::vector<Member> result;
   for (Attribute const* a : stored(type))
      result.push_back({a->kind->storage(*a), a->name, a->isParameter});
   if (type.member == "hash")
      result.push_back({{"Mox::Ptr<" + type.shortName + '>', "", 8}, "moxNext", false});
   if (type.member == "tree")
      result.push_back({{"Mox::RbTreeLinks<" + type.shortName + '>', "", 8}, "moxTreeLinks", false});
   std::stable_sort(result.begin(), result.end(),
                    [](Member const& a, Member const& b) { return a.storage.alignment > b.storage.alignment; });
   return result;
}

std::string constructorParameters(EntityType const& type) {
   std::string text = "Mox::Name name";
   for (Attribute const* parameter : type.parameters) {
      bool const byValue = parameter->kind->holds() == Holds::value && parameter->value->pass == Pass::byValue;
      text += ", " + parameter->kind->valueSpelling(*parameter) + (byValue ? " " : " const& ") + parameter->name;
   }
   return text;
}

using Part = std::string (AttributeKind::*)(Attribute const&) const;

std::string forEach(std::vector<Attribute const*> const& attributes, Part part) {
   std::string text;
   for (Attribute const* a : attributes)
      text += (a->kind->*part)(*a);
   return text;
}

std::string descriptors(EntityType const& type) {
   std::string text = docComment(3, "The attributes as values, for `Mox::on` and its like.");
   text += "   struct Attr : MoxBase::Attr {\n";
   for (Attribute const* a : type.attributes) {
      text += derivedClass(6, "static constexpr struct " + a->name + "_t", a->kind->descriptorBase(*a));
      text += fill(R"(         static constexpr std::string_view name = "$x$";
         static auto& cell(auto& e) noexcept { return e.$x$_; }
)",
                   {{"x", a->name}});
      text += a->kind->descriptorCalls(*a);
      // For built-in types the checker has compared the number with the range.
      if (isNumberLiteral(a->defaultValue) && !a->value->isBuiltin)
         text += wrapped(9, "static_assert(Mox::isFirst<" + a->value->cppType + ">([] { return " + a->defaultValue +
                               "; }), \"the default " + a->defaultValue + " is no " + a->value->name + "\");");
      text += "      } " + a->name + "{};\n";
   }
   return text + "   };\n";
}

std::string typeList(std::string const& alias, std::vector<Attribute const*> const& attributes,
                     EntityType const& type) {
   std::vector<std::string> names;
   for (Attribute const* a : attributes)
      names.push_back((a->owner == &type ? std::string() : a->owner->name + "::") + "Attr::" + a->name + "_t");
   std::string const head = "   using " + alias + " = Mox::TypeList<";
   std::string const list = joinedWith(", ", names) + ">;";
   if (head.size() + list.size() <= maximumColumns)
      return head + list + '\n';
   return head + '\n' + filled("      ", list); // behind the bracket there would be few columns
}

} // namespace

std::string emitClass(EntityType const& type) {
   std::set<std::string> headers{"kestrel/notify/Mutators.h",
                                 type.base == nullptr ? "kestrel/mox/Entity.h" : type.baseStem() + ".h"};
   for (Attribute const* a : stored(type)) {
      for (ValueType const* value : {a->value, a->key})
         if (value != nullptr && !value->header.empty())
            headers.insert(value->header);
      if (a->entity != nullptr && a->entity != &type)
         headers.insert(a->entity->stem + ".h");
      for (std::string& header : a->kind->headers(*a))
         headers.insert(std::move(header));
   }
   if (type.member == "tree")
      headers.insert("kestrel/containers/RbTreeMap.h");
   headers.insert({"<string_view>", "kestrel/core/Ptr.h", "kestrel/core/String8.h"});

   auto const own = changeable(type);
   std::string text = docComment(0, type.doc);
   text += derivedClass(0, "class " + type.shortName, "public " + std::string(type.baseName()));
   text += fill(R"(public:
   class NotifieeConst;
   class Notifiee;
   template <class MoxInterface, class MoxDerived> class MoxForwarder;
   class MoxNboAttrLogSa;
   class GenericIf_;
   class _Type;
   using MoxBase = $Base$;
   static constexpr unsigned moxLevel = $level$;
)",
                {{"Base", type.baseName()}, {"level", std::to_string(type.level)}});
   // Written where it differs from the base's, which is inherited.
   if (type.isAbstract != (type.base != nullptr && type.base->isAbstract))
      text += fill("   static constexpr bool moxIsAbstract = $abstract$;\n",
                   {{"abstract", type.isAbstract ? "true" : "false"}});
   text += '\n';
   // A message of its own, because the compiler gives many for an incomplete class.
   text += "   template <bool isThere> static constexpr void moxReactorHeader() {\n" +
           wrapped(6, "static_assert(isThere, \"include " + type.stem + "Reactor.h to watch a " + type.name + "\");") +
           "   }\n\n";
   text += wrapped(3, (type.parameters.empty() ? "explicit " : "") + type.shortName + '(' +
                         constructorParameters(type) + ");");
   text += "   ~" + type.shortName + "() override;\n";
   text += R"(
   static Mox::Ptr<Mox::MoxType const> _fwkType();
   Mox::Ptr<Mox::MoxType const> fwkType() const override { return _fwkType(); }
)";
   if (type.log != (type.base != nullptr && type.base->log))
      text += fill("   bool moxHasAttrLogInterface() const override { return $log$; }\n",
                   {{"log", type.log ? "true" : "false"}});
   if (!own.empty())
      text += "   template <class A, class... Key> void moxAnnounce(Key const&... key) const;\n";
   if (std::string const nested = forEach(own, &AttributeKind::nestedTypes); !nested.empty())
      text += '\n' + nested;
   text += '\n';
   for (Attribute const* a : stored(type))
      text += docComment(3, a->doc) + a->kind->memberFunctions(*a);
   if (type.member == "tree")
      text += fill(R"(
   // The links of the collection's tree.
   Mox::Name const& fwkKey() const noexcept { return moxName(); }
   Mox::RbTreeLinks<$X$>& moxTreeLinks() noexcept { return moxTreeLinks_; }
)",
                   {{"X", type.shortName}});
   if (type.member == "hash")
      text += fill(R"(
   // The link of the directory's hash bucket.
   Mox::Name const& fwkKey() const noexcept { return moxName(); }
   Mox::Ptr<$X$> const& moxNext() const noexcept { return moxNext_; }
   void moxNextIs(Mox::Ptr<$X$> const& next) {
      moxNext_ = next;
      moxChangeCountInc();
   }
)",
                   {{"X", type.shortName}});
   text += '\n' + descriptors(type);
   text += "   /// The level's own changeable attributes, in the order of their identifiers.\n";
   text += typeList("MoxAttributes", own, type);
   text += "   /// Constructor parameters behind the name that can be read back, in order.\n";
   text += typeList("MoxParameters", readableParameters(type), type);
   if (auto const data = members(type); !data.empty()) {
      text += "\nprivate:\n";
      for (Member const& member : data)
         text += "   " + member.storage.type + ' ' + member.name + '_' +
                 (member.isParameter ? std::string() : member.storage.initialiser) + ";\n";
   }
   text += "};\n";
   return banner(type) + "#pragma once\n\n" + includes(headers) + '\n' + inNamespace(type, text);
}

std::string emitReactor(EntityType const& type) {
   std::string const baseReactor =
      type.base == nullptr ? "kestrel/notify/EntityReactor.h" : type.baseStem() + "Reactor.h";
   std::string const base(type.baseName());
   std::string const& X = type.shortName;
   auto const own = changeable(type);

   std::string text = "/// Watches a `" + X + "`: override the notifications that matter.\n";
   text += fill(R"(class $X$::NotifieeConst : public Mox::ReactorOf<$X$> {
public:
   Mox::Ptr<$Type$ const> notifier() const noexcept { return notifierOfType<$Type$>(); }
)",
                {{"X", X}, {"Type", type.name}});
   if (!own.empty())
      text += '\n' + forEach(own, &AttributeKind::notifications);
   text +=
      fill(R"(};

/// The variant for reactors that change the entity they watch.
class $X$::Notifiee : public $X$::NotifieeConst {
public:
   Mox::Ptr<$Type$> notifier() const noexcept { return changeable<$Type$>(); }
};

/// Carries every notification to `MoxDerived::forward(attribute, key...)`.
template <class MoxInterface, class MoxDerived>
class $X$::MoxForwarder : public $Base$::MoxForwarder<MoxInterface, MoxDerived> {
public:
$forwarding$};
)",
           {{"X", X}, {"Type", type.name}, {"Base", base}, {"forwarding", forEach(own, &AttributeKind::forwarding)}});
   return banner(type) + "#pragma once\n\n" + includes({type.stem + ".h", baseReactor}) + '\n' +
          inNamespace(type, text);
}

std::string emitLog(EntityType const& type) {
   std::set<std::string> headers{"kestrel/attrlog/LevelSa.h", type.stem + "Reactor.h"};
   if (type.base != nullptr)
      headers.insert(type.baseStem() + "Log.h");
   auto const own = changeable(type);
   for (Attribute const* a : own)
      if (a->kind->holds() == Holds::member && a->entity != &type)
         headers.insert(a->entity->stem + "Log.h");
   std::string const sa = "class " + type.shortName + "::MoxNboAttrLogSa";
   std::string const text =
      fill(R"(/// Mirrors a `$X$` over one stream.
class $X$::MoxNboAttrLogSa : public Mox::NboAttrLog::LevelSa<$X$> {
public:
   /// The reactor through which the entity reaches its adapter.
   using MoxNboAttrLogSaAdapter_ = Mox::NboAttrLog::SaReactor<$Type$>;
   class FlowOut;
   using LevelSa::LevelSa;
$handlers$};

/// Backlog of one `$X$` on one stream.
$backlog$public:
   using LevelFlow::LevelFlow;
$flow$};
)",
           {{"X", type.shortName},
            {"Type", type.name}, // qualified: a base of the adapter may have a member of the short name
            {"backlog", derivedClass(0, sa + "::FlowOut", "public Mox::NboAttrLog::LevelFlow<" + type.name + '>')},
            {"handlers", (own.empty() ? "" : "\n") + forEach(own, &AttributeKind::adapterHandlers)},
            {"flow", (own.empty() ? "" : "\n") + forEach(own, &AttributeKind::flowOperations)}});
   // Without these, every type that has this one as base or member compiles its templates once more.
   std::string const once = fill(R"(
extern template class Mox::NboAttrLog::LevelSa<$X$>;
extern template class Mox::NboAttrLog::LevelFlow<$X$>;
)",
                                 {{"X", type.name}});
   return banner(type) + "#pragma once\n\n" + includes(headers) + '\n' + inNamespace(type, text) + once;
}

std::string emitSource(EntityType const& type) {
   std::string const& X = type.shortName;
   std::string text;

   std::vector<std::string> arguments = type.baseArguments;
   bool const hasParameters =
      std::any_of(type.parameters.begin(), type.parameters.end(), [](Attribute const* p) { return !p->isInherited; });
   for (std::string& argument : arguments)
      if (argument == "name")
         argument = "std::move(name)";
   std::vector<std::string> initialisers{std::string(type.baseName()) + '(' + joinedWith(", ", arguments) + ')'};
   if (hasParameters)
      for (Member const& member : members(type))
         if (member.isParameter)
            initialisers.push_back(member.name + "_(" + member.name + ')');
   std::string construct;
   for (ConstructValue const& value : type.construct)
      construct += wrapped(3, value.attribute->name + "Is(" + value.expression + ");");
   std::string const brace = construct.empty() ? " {}" : " {";
   std::string const head = X + "::" + X + '(' + constructorParameters(type) + ')';
   std::string const line = head + " : " + joinedWith(", ", initialisers) + brace;
   if (line.size() <= maximumColumns)
      text += line + '\n';
   else
      text += wrapped(0, head) + "   : " + joinedWith(",\n     ", initialisers) + brace + '\n';
   if (!construct.empty())
      text += construct + "}\n";

   text += fill(R"(
$X$::~$X$() {
   moxEnd();
}

Mox::Ptr<Mox::MoxType const> $X$::_fwkType() {
$return$}
)",
                {{"X", X},
                 {"return", wrapped(3, "return Mox::typeOf<" + X + ">(\"" + type.name + "\", " +
                                          (type.log ? "MoxNboAttrLogSa::typeOperations()" : "nullptr") + ");")}});
   bool const hasPasses = !changeable(type).empty();
   if (hasPasses)
      text += fill(R"(
template <class A, class... Key> void $X$::moxAnnounce(Key const&... key) const {
   Mox::deliver<A>(*this, key...);
}
)",
                   {{"X", X}});
   text = inNamespace(type, text);
   if (hasPasses || type.log)
      text += "\n// What templates make of the type, compiled here once.\n";
   if (hasPasses)
      text += "template struct Mox::DeliveryPasses<" + type.name + ">;\n";
   if (type.log)
      text += fill(R"(template class Mox::NboAttrLog::LevelSa<$X$>;
template class Mox::NboAttrLog::LevelFlow<$X$>;
)",
                   {{"X", type.name}});
   std::set<std::string> headers{"kestrel/notify/TypeOperations.h", "<utility>"};
   if (type.log)
      headers.insert("kestrel/attrlog/LevelSaImpl.h");
   return banner(type) + "#include \"" + type.stem + (type.log ? "Log.h" : "Reactor.h") + "\"\n\n" + includes(headers) +
          '\n' + text;
}

std::string emitRegistration(Model const& model, std::string const& unit) {
   std::set<std::string> headers{"kestrel/mox/MoxType.h"};
   std::string calls;
   std::string names;
   for (auto const& type : model.entities)
      if (!type->imported) {
         headers.insert(type->stem + ".h");
         calls += "   " + type->name + "::_fwkType();\n";
         names += (names.empty() ? "\n   \"" : "\\0\"\n   \"") + type->name;
      }
   return "// Made by moxc: the types of " + unit + ", made known when the library is loaded.\n" + includes(headers) +
          fill(R"(
// A linker that is told this name takes the unit from a static library although nothing calls into it. Hidden, because two
// libraries of one process may have a unit of the same name.
extern "C" [[gnu::visibility("hidden")]] void moxInit$Unit$() {
$calls$}

namespace {

Mox::TypeRegistration const registration(&moxInit$Unit$);

// The qualified names of the library's types, for tools that look into the file without loading it.
#if defined(__has_cpp_attribute) && __has_cpp_attribute(gnu::retain)
[[gnu::retain]]
#endif
[[gnu::section(".mox.type"), gnu::used]] alignas(1) constexpr char typeNames[] =$names$";

} // namespace
)",
               {{"Unit", unit}, {"calls", calls}, {"names", names}});
}

} // namespace moxc
