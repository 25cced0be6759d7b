// SPDX-License-Identifier: Apache-2.0
// The library's headers, in a project that has others under their names.
#include "rack/SlotLog.h"

#include <kestrel/Kestrel.h>
#include <kestrel/net/UnixClient.h>
#include <kestrel/net/UnixServer.h>
