// SPDX-License-Identifier: Apache-2.0
#include "Watchers.h"

namespace bench {

namespace {

class CountingReactor final : public Hardware::ClariPhy::Cl10010Config::NotifieeConst {
public:
   void onRefClock() override { ++calls_; }

private:
   std::uint64_t calls_ = 0;
};

class CountingObserver final : public Observer {
public:
   void onRefClock() override { ++calls_; }
   void onValue(std::uint32_t value) override { calls_ += value; }

private:
   std::uint64_t calls_ = 0;
};

} // namespace

Mox::Ptr<Hardware::ClariPhy::Cl10010Config::NotifieeConst> makeReactor() {
   return Mox::make<CountingReactor>();
}

std::unique_ptr<Observer> makeObserver() {
   return std::make_unique<CountingObserver>();
}

} // namespace bench
