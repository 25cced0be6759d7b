// SPDX-License-Identifier: Apache-2.0
#include "kestrel/notify/Mutators.h"

#include "kestrel/mox/MoxType.h"

namespace Mox::detail {

void throwNullTarget(Ptr<MoxType const> (*type)(), std::string_view attribute) {
   std::string text("null _");
   text.append(attribute).append(" parameter to mutator for ");
   text.append(std::string_view(type()->name())).append("::").append(attribute);
   throwRangeException(text + " not allowed\""); // the quote belongs to the text
}

} // namespace Mox::detail
