#include "core/Ptr.h"

namespace Mox {

bool VFPtrInterface::threadSafe_ = false;

} // namespace Mox
