// SPDX-License-Identifier: Apache-2.0
#pragma once

// Everything that a user of the library needs: the entity types with their reactors and logs, watching, links in memory,
// dumps. Links between processes: "net/UnixServer.h" and "net/UnixClient.h".

#include "attrlog/LinkEnd.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirLog.h"
#include "entities/Cl10010ConfigLog.h"
#include "entities/Cl10010ConfigPtrDirLog.h"
#include "entities/Cl10010StatusDirLog.h"
#include "entities/Cl10010StatusLog.h"
#include "entities/Cl10010StatusPtrDirLog.h"
#include "entities/FecHistogramLog.h"
#include "notify/Dump.h"
#include "notify/Observe.h"
#include "siblings/AcceleratorLog.h"
#include "siblings/EthPhyIntfStatusLog.h"
#include "siblings/GpoLog.h"
#include "siblings/IntCtrlLog.h"
#include "siblings/LedConfigReactor.h"
#include "siblings/PllStatusLog.h"
#include "siblings/XcvrConfigLog.h"
#include "siblings/XcvrStatusLog.h"
