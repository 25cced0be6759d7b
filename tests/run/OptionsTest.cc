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
   EXPECT_NE(parse({"--help"}).help.find("--trace FILE"), std::string::npos);
}

TEST(Options, WrongUseIsOneClearLine) {
   struct {
      std::vector<char const*> arguments;
      char const* message;
   } const table[] = {
      {{"--ports", "0"}, "--ports: expected a number from 1 to 10000, got '0'"},
      {{"--ports", "10001"}, "--ports: expected a number from 1 to 10000, got '10001'"},
      {{"--steps", "ten"}, "--steps: expected a number from 1 to 1000000, got 'ten'"},
      {{"--steps", "1.5"}, "--steps: expected a number from 1 to 1000000, got '1.5'"},
      {{"--seed", "18446744073709551616"},
       "--seed: expected a number from 0 to 18446744073709551615, got '18446744073709551616'"},
      {{"--seed", "-1"}, "--seed: expected a number from 0 to 18446744073709551615, got '-1'"},
      {{"--speed", "-0.1"}, "--speed: expected a number from 0 to 1000000, got '-0.1'"},
      {{"--speed", "nan"}, "--speed: expected a number from 0 to 1000000, got 'nan'"},
      {{"--speed", "inf"}, "--speed: expected a number from 0 to 1000000, got 'inf'"},
      {{"--ports", "3\n\x1b[2J"}, "--ports: expected a number from 1 to 10000, got '3..[2J'"},
      {{"--port", "3"}, "expected the options that --help lists, got '--port'"},
      {{"trace.csv"}, "expected the options that --help lists, got 'trace.csv'"},
      {{"--trace", ""}, "--trace: expected a path, got an empty text"},
      {{"--trace"}, "--trace: expected a value, got nothing"},
      {{"--ports", "3", "--json", "--ports=3"}, "--ports: expected once, got 2 times"},
   };
   for (auto const& c : table) {
      SCOPED_TRACE(c.message);
      try {
         parse(c.arguments);
         ADD_FAILURE() << "not refused";
      } catch (UsageError const& e) {
         EXPECT_EQ(std::string(e.what()), c.message);
      }
   }
}

} // namespace
