// SPDX-License-Identifier: Apache-2.0
#include "kestrel/mox/MoxType.h"

#include "kestrel/core/Exceptions.h"

#include <map>
#include <string>

namespace Mox {

namespace {

struct TypeTree {
   std::map<std::string, MoxType const*, std::less<>> byName;
   std::vector<TypeRegistration::Initialiser> pending;
};

TypeTree& tree() {
   // Never destroyed: type objects outlive every other static of the process.
   static auto* const theTree = ::new TypeTree;
   return *theTree;
}

} // namespace

MoxType::MoxType(std::string_view qualifiedName, Ptr<MoxType const> base, EntityOperations const& operations)
   : name_(qualifiedName), base_(std::move(base)), level_(base_ ? base_->level() + 1 : 0), operations_(operations) {
   auto const [at, isNew] = tree().byName.try_emplace(std::string(qualifiedName), this);
   if (!isNew)
      throwInternalException("type " + at->first + " registered twice");
   referenceInc(); // the tree's own, for the life of the process
}

bool MoxType::derivesFrom(MoxType const& other) const noexcept {
   for (MoxType const* t = this; t != nullptr; t = t->base_.get())
      if (t == &other)
         return true;
   return false;
}

Ptr<MoxType const> MoxType::find(std::string_view qualifiedName) {
   // An initialiser may load another library, which then registers an initialiser of its own.
   while (!tree().pending.empty()) {
      auto const initialise = tree().pending.back();
      tree().pending.pop_back();
      initialise();
   }
   auto const at = tree().byName.find(qualifiedName);
   return at == tree().byName.end() ? Ptr<MoxType const>() : Ptr<MoxType const>(at->second);
}

TypeRegistration::TypeRegistration(Initialiser initialiser) {
   tree().pending.push_back(initialiser);
}

} // namespace Mox
