// SPDX-License-Identifier: Apache-2.0
#pragma once

// Everything that a user of the library needs: the entity types with their reactors and logs, watching, links in memory,
// dumps. Links between processes: <kestrel/net/UnixServer.h> and <kestrel/net/UnixClient.h>.

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/attrlog/LocalLink.h"
#include "kestrel/entities/Cl10010ConfigDirLog.h"
#include "kestrel/entities/Cl10010ConfigLog.h"
#include "kestrel/entities/Cl10010ConfigPtrDirLog.h"
#include "kestrel/entities/Cl10010StatusDirLog.h"
#include "kestrel/entities/Cl10010StatusLog.h"
#include "kestrel/entities/Cl10010StatusPtrDirLog.h"
#include "kestrel/entities/FecHistogramLog.h"
#include "kestrel/notify/Dump.h"
#include "kestrel/notify/Observe.h"
#include "kestrel/siblings/AcceleratorLog.h"
#include "kestrel/siblings/EthPhyIntfStatusLog.h"
#include "kestrel/siblings/GpoLog.h"
#include "kestrel/siblings/IntCtrlLog.h"
#include "kestrel/siblings/LedConfigReactor.h"
#include "kestrel/siblings/PllStatusLog.h"
#include "kestrel/siblings/XcvrConfigLog.h"
#include "kestrel/siblings/XcvrStatusLog.h"
