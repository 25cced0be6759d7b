#include "run/Options.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace Job;

Options parse(std::vector<char const*> arguments) {
   arguments.insert(arguments.begin(), "run");
   return parseOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(Options, WhatIsGivenArrivesAndTheRestHasItsDefault) {
   Options const all = parse({"--ports", "50", "--steps=7", "--seed", "18446744073709551615", "--trace", "a b.csv",
                              "--socket", "/tmp/x", "--speed", "2.5e-1", "--json"});
   EXPECT_EQ(all.ports, 50u);
   EXPECT_EQ(all.steps, 7u);
   EXPECT_EQ(all.seed, 18446744073709551615u);
   EXPECT_EQ(all.trace, "a b.csv");
   EXPECT_EQ(all.socket, "/tmp/x");
   EXPECT_EQ(all.speed, 0.25);
   EXPECT_TRUE(all.json);
   Options const none = parse({});
   EXPECT_TRUE(none.trace.empty() && none.socket.empty() && none.help.empty() && !none.driver && !none.json);
   EXPECT_GT(none.speed, 0);
   EXPECT_EQ(none.seed, 1u);
}

} // namespace
