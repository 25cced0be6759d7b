// SPDX-License-Identifier: Apache-2.0
#include "attrlog/LocalLink.h"
#include "entities/Cl10010Config.h"
#include "entities/Cl10010Status.h"
#include "notify/Dump.h"
#include "siblings/EthPhyIntfStatus.h"

#include <gtest/gtest.h>

namespace {

using namespace Mox;
using namespace Hardware::ClariPhy;

/// A root that was made with other parameters than its owner's can't be put right: the reader must be told.
TEST(RootParameters, OthersThanTheOwnersAreNoLiveMirror) {
   auto const config = make<Cl10010Config>("config");
   auto const interface = make<Interface::EthPhyIntfStatus>("eth");
   auto const ours = make<Cl10010Status>("status", config, interface);
   LocalLink link;
   link.left().exportRoot(config);
   link.left().exportRoot(ours);
   auto const theirs = make<Cl10010Status>("status", nullptr, nullptr);
   link.right().mountIs(theirs);
   link.settle();
   EXPECT_FALSE(link.right().state("status") == LinkEnd::State::live && !diff(*ours, *theirs).empty())
      << diff(*ours, *theirs).front().path << " differs in a mirror that says it is live";
   EXPECT_NE(link.right().reason("status"), "");
}

} // namespace
