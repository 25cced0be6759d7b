// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <utility>

namespace MdioQuay {

/// Where a PHY sits on the management bus, as the process that built its configuration describes it. The description stays in
/// that process: it is no entity and the log does not carry it.
class QuayDesc final : public Mox::PtrInterface {
public:
   explicit QuayDesc(Mox::String8 text) : text_(std::move(text)) {}
   Mox::String8 const& text() const noexcept { return text_; }

private:
   Mox::String8 text_;
};

} // namespace MdioQuay
