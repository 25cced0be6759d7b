// SPDX-License-Identifier: Apache-2.0
#include "run/Sides.h"

#include "run/Held.h"
#include "run/Line.h"
#include "run/Pipe.h"

#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/net/UnixClient.h"

#include <gtest/gtest.h>

#include <string_view>

#include <unistd.h>

namespace {

using namespace Job;
using namespace std::chrono_literals;
using namespace Hardware::ClariPhy;

/// A driver that goes through all the words and holds something else at the end.
int falseDriver(int argc, char** argv) {
   Options const options = parseOptions(argc, argv);
   Pipe pipe(STDIN_FILENO, ::dup(STDOUT_FILENO));
   auto const status = Mox::make<Cl10010StatusDir>("status");
   Mox::UnixClient client("false driver");
   client.exportRoot(status);
   auto const config = client.mount<Cl10010ConfigDir>("config");
   client.connect(options.socket);
   client.waitUntil([&] { return client.state("config") == Mox::LinkEnd::State::live; }, 5s);
   pipe.sendLine(word::played);
   for (std::string_view const word : {word::stop, word::dump}) {
      while (pipe.line(0ms) != word)
         client.pollOnce(5ms);
      if (word == word::stop)
         pipe.sendLine(std::string(word::stopped) + " 0 0 0 0");
   }
   pipe.sendText("/a = 1\n");
   return 0;
}

TEST(Sides, DriverThatHoldsSomethingElseIsADifference) {
   testing::internal::CaptureStdout();
   Outcome const outcome = configure(Options(), simulatedLine(2, 5, 1), 0);
   std::string const out = testing::internal::GetCapturedStdout();
   EXPECT_EQ(outcome, Outcome::differ);
   EXPECT_NE(out.find("/a: here (absent), in the driver 1"), std::string::npos) << out;
}

TEST(Sides, WhatDiffersIsToldByItsPathAndANamesakeToo) {
   Held held{Mox::make<Cl10010ConfigDir>("config"), Mox::make<Cl10010ConfigPtrDir>("driven"),
             Mox::make<Cl10010StatusDir>("status"), Mox::make<Cl10010StatusPtrDir>("watched")};
   held.driven->phyConfigIs(held.config->phyConfigIs("S1/1"));
   auto const lines = held.status->phyStatusIs("S1/1", nullptr, nullptr)->ldpcHistogramsIs("line");
   EXPECT_EQ(held.references(), 1u);
   std::string const before = held.text("left");
   EXPECT_EQ(differences(before, held.text("right"), 1), std::vector<std::string>());
   lines->histogramIs(31, 7);
   lines->histogramIs(30, 6);
   EXPECT_EQ(differences(held.text("left"), before, 1),
             (std::vector<std::string>{"/status/S1%2F1/ldpcHistograms/line.histogram[30]: here 6, in the driver 0",
                                       "and 1 more"}));
   // On both sides, where the paths alone would not tell.
   held.driven->phyConfigIs(Mox::make<Cl10010Config>("S1/1"));
   EXPECT_EQ(differences(held.text("left"), held.text("right"), 9),
             (std::vector<std::string>{
                "/driven.phyConfig[S1%2F1] itself: here no entity of left, in the driver no entity of right"}));
}

TEST(Sides, WhatIsKnownOfALostDriverIsSaidAndNotTheLessOfIt) {
   std::string const closed(Mox::peerClosed), broken = "stream \"driver\", offset 7: expected a length",
                                              end = "exit status 4";
   EXPECT_EQ(lossText(broken, end), "the driver process was lost: " + broken + " (exit status 4)");
   EXPECT_EQ(lossText(broken, {}), "the driver process was lost: " + broken);
   EXPECT_EQ(lossText(closed, end), "the driver process ended too early: exit status 4");
   EXPECT_EQ(lossText({}, end), "the driver process ended too early: exit status 4");
}

} // namespace

int main(int argc, char** argv) {
   for (int i = 1; i < argc; ++i)
      if (std::string_view(argv[i]) == "--driver")
         return falseDriver(argc, argv);
   testing::InitGoogleTest(&argc, argv);
   return RUN_ALL_TESTS();
}
