// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Checker.h"
#include "kestrel/moxc/Emitters.h"
#include "kestrel/moxc/SchemaReader.h"

#include <iostream>
#include <optional>
#include <stdexcept>

namespace moxc {

namespace {

constexpr std::string_view usage =
   R"(usage: moxc [--out DIR] [--unit NAME] [--docs FILE] [--list] [--prefix DIR] [--import FILE]... FILE...

Checks the schemas and writes C++ for each FILE below DIR, and the tables of attributes to the file of --docs.

  --out DIR      folder of the generated files
  --prefix DIR   folder below DIR of the headers of the schemas that follow, as include lines name it
  --import FILE  a schema that the others refer to; nothing is written for it
  --unit NAME    also write NAMERegistration.cc, which registers the types of all FILEs
  --docs FILE    also write the tables of attributes of all FILEs
  --list         print the paths of the files that would be written, and write nothing
  --version      print the version, and do nothing
)";

/// A command line that makes no sense.
struct UsageError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct Options {
   struct Input {
      std::string path;
      std::string prefix;
      bool imported;
   };
   std::optional<std::string> out;
   std::optional<std::string> docs;
   std::string unit;
   bool list = false;
   bool help = false;
   bool version = false;
   std::vector<Input> inputs;
};

Options parse(std::vector<std::string> const& arguments) {
   Options options;
   std::string prefix;
   for (std::size_t i = 0; i != arguments.size(); ++i) {
      std::string const& word = arguments[i];
      auto const operand = [&]() -> std::string const& {
         if (++i == arguments.size())
            throw UsageError(word + " needs an operand");
         return arguments[i];
      };
      if (word == "--out")
         options.out = operand();
      else if (word == "--docs")
         options.docs = operand();
      else if (word == "--unit")
         options.unit = operand();
      else if (word == "--prefix")
         prefix = operand();
      else if (word == "--import")
         options.inputs.push_back({operand(), prefix, true});
      else if (word == "--list")
         options.list = true;
      else if (word == "--help")
         options.help = true;
      else if (word == "--version")
         options.version = true;
      else if (word.starts_with('-'))
         throw UsageError(
            "unknown option " + inQuotes(word) +
            suggestion(word, {"--out", "--docs", "--unit", "--prefix", "--import", "--list", "--help", "--version"}));
      else
         options.inputs.push_back({word, prefix, false});
   }
   if (options.help || options.version)
      return options;
   if (options.inputs.empty())
      throw UsageError("expected at least one schema");
   if (!options.out && !options.docs)
      throw UsageError("expected --out or --docs");
   return options;
}

Output emit(Model const& model, Options const& options) {
   Output output;
   if (options.out) {
      std::filesystem::path const folder = *options.out;
      for (auto const& type : model.entities) {
         if (type->imported)
            continue;
         output.fileIs(folder / (type->stem + ".h"), emitClass(*type));
         output.fileIs(folder / (type->stem + "Reactor.h"), emitReactor(*type));
         if (type->log)
            output.fileIs(folder / (type->stem + "Log.h"), emitLog(*type));
         output.fileIs(folder / (type->stem + ".cc"), emitSource(*type));
      }
      if (!options.unit.empty())
         output.fileIs(folder / (options.unit + "Registration.cc"), emitRegistration(model, options.unit));
   }
   if (options.docs)
      output.fileIs(*options.docs, emitDocumentation(model));
   return output;
}

int run(Options const& options) {
   if (options.help || options.version) {
      std::cout << (options.help ? usage : "moxc " KESTREL_VERSION "\n");
      return 0;
   }
   std::vector<std::string> paths;
   for (Options::Input const& input : options.inputs)
      paths.push_back(input.path);
   Diagnostics diagnostics;
   std::vector<SchemaFile> files;
   for (std::size_t i = 0; i != paths.size(); ++i)
      files.push_back(readSchema(paths[i], options.inputs[i].prefix, options.inputs[i].imported, diagnostics));
   Model const model = checkSchemas(files, diagnostics);
   if (diagnostics.errorCount() != 0) {
      diagnostics.print(std::cerr, paths);
      std::cerr << "moxc: " << diagnostics.errorCount() << (diagnostics.errorCount() == 1 ? " error" : " errors")
                << ", nothing written\n";
      return 1;
   }
   Output const output = emit(model, options);
   if (options.list)
      output.list(std::cout);
   else
      output.write();
   return 0;
}

} // namespace

} // namespace moxc

int main(int argc, char** argv) {
   try {
      return moxc::run(moxc::parse({argv + 1, argv + argc}));
   } catch (moxc::UsageError const& error) {
      std::cerr << "moxc: error: " << error.what() << "\n\n" << moxc::usage;
      return 2;
   } catch (std::exception const& error) {
      std::cerr << error.what() << '\n';
      return 1;
   }
}
