#include "run/Options.h"
#include "support/Thrown.h"

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

TEST(Options, WrongUseIsOneClearLine) {
   struct {
      std::vector<char const*> arguments;
      char const* message;
   } const table[] = {
      {{"--ports", "0"}, "--ports: expected a number from 1 to 10000, got '0'"},
      {{"--ports", "10001"}, "--ports: expected a number from 1 to 10000, got '10001'"},
      {{"--steps", "1.5"}, "--steps: expected a number from 1 to 1000000, got '1.5'"},
      {{"--seed", "18446744073709551616"},
       "--seed: expected a number from 0 to 18446744073709551615, got '18446744073709551616'"},
      {{"--speed", "-0.1"}, "--speed: expected a number from 0 to 1000000, got '-0.1'"},
      {{"--speed", "nan"}, "--speed: expected a number from 0 to 1000000, got 'nan'"},
      {{"--ports", "3\n\x1b[2J"}, "--ports: expected a number from 1 to 10000, got '3..[2J'"},
      {{"trace.csv"}, "expected the options that --help lists, got 'trace.csv'"},
      {{"--trace", ""}, "--trace: expected a path, got an empty text"},
   };
   for (auto const& c : table)
      EXPECT_EQ(thrownBy<UsageError>([&] { parse(c.arguments); }), c.message);
   EXPECT_THROW(parse({"--socket"}), UsageError);
}

} // namespace
