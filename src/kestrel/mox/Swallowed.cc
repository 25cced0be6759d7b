// SPDX-License-Identifier: Apache-2.0
#include "kestrel/mox/Swallowed.h"

#include "kestrel/core/Callback.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/mox/Entity.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <utility>

namespace Mox {

namespace {

std::atomic<std::uint64_t> count{0};

struct Word {
   std::mutex mutex;
   std::string last;
   Callback<void(std::string const&)> hook;
};

Word& word() {
   // Never destroyed: statics of the program may hold the last reference to an entity.
   static auto* const theWord = ::new Word;
   return *theWord;
}

/// What the current exception says; nothing where somebody expects it.
std::optional<std::string> textOfCurrent() {
   try {
      throw;
   } catch (Exception const& e) {
      if (e.id() != 0 && Expect::isExpected(e.id()))
         return std::nullopt;
      return e.what();
   } catch (std::exception const& e) {
      return e.what();
   } catch (...) {
      return "an exception of a foreign type";
   }
}

} // namespace

void exceptionHookIs(ExceptionHook hook) {
   word().hook = std::move(hook);
}

std::uint64_t swallowedExceptions() noexcept {
   return count.load(std::memory_order_relaxed);
}

std::string lastSwallowedException() {
   std::lock_guard const lock(word().mutex);
   return word().last;
}

void detail::exceptionSwallowed(Entity const* notifier, AttributeId id) noexcept {
   count.fetch_add(1, std::memory_order_relaxed);
   try {
      auto const thrown = textOfCurrent();
      if (!thrown)
         return;
      std::string text;
      if (notifier != nullptr)
         text = notifier->fullName().str() +
                (id == attr::zeroReferences ? " as it goes" : "." + notifier->attributeString(id).str()) + ": ";
      text += *thrown;
      {
         std::lock_guard const lock(word().mutex);
         word().last = text;
      }
      if (word().hook)
         word().hook(text);
   } catch (...) { // NOLINT(bugprone-empty-catch): the hook threw, or no memory for the text: the count remains
   }
}

} // namespace Mox
