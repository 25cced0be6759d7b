// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/Ptr.h"

namespace Mox {

bool VFPtrInterface::threadSafe_ = false;

void PtrInterface::sharedReferenceInc() const noexcept {
   word_.fetch_add(1, std::memory_order_relaxed);
}

void PtrInterface::sharedReferenceDec() const noexcept {
   if (((word_.fetch_sub(1, std::memory_order_acq_rel) - 1) & countMask) == 0)
      lastReference();
}

} // namespace Mox
