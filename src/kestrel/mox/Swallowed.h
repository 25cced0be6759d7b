// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Mox {

class Entity;

// What became of exceptions that nobody caught. A reactor's exception stops neither the mutator nor the other reactors:
// the default `onNotificationException` swallows it. An exception that leaves a reactor's own `onNotificationException`
// while an entity goes is swallowed too, because there is nobody to hand it to. The library prints nothing; a program
// says here what it wants done.

/// Called with a line that is ready to print, "/config/port-7.rollOff: no such pin", while the exception is current. By
/// default nothing is called; null takes the hook off. What a hook throws is dropped. Exceptions that an `Expect` scope
/// names are only counted.
///
///     Mox::exceptionHookIs([](std::string const& text) { std::cerr << text << '\n'; });
///
/// *Threads*: set it before the second thread starts; it is called on the thread of the reactor.
using ExceptionHook = std::function<void(std::string const& text)>;
void exceptionHookIs(ExceptionHook hook);

/// How many were swallowed in this process. Each reactor class has a count of its own (`ReactorClass::swallowedExceptions`).
std::uint64_t swallowedExceptions() noexcept;
/// The line of the last one, empty before the first. Of expected ones no line is kept.
std::string lastSwallowedException();

namespace detail {

/// Counts the current exception and keeps its text. It was thrown for attribute `id` of `notifier`, which may be null.
void exceptionSwallowed(Entity const* notifier, AttributeId id) noexcept;

} // namespace detail

} // namespace Mox
