#pragma once

#include <cstddef>

/// Calls of `operator new` in this program so far, arrays included.
std::size_t allocations() noexcept;
