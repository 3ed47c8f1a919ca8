// The presence, with pcscd's polling function played by the test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "pcsc/card_presence.h"

namespace zelta::pcsc {

inline constexpr std::chrono::milliseconds kShort{30};
inline constexpr std::chrono::milliseconds kLong{120000};

class CardPresenceTest : public testing::Test {
 protected:
  void enter() {
    presence_.expectCard();
    ASSERT_TRUE(presence_.cardEntered());
  }

  // Whether the polling function comes back before its time has run out.
  bool returnsAtOnce() {
    const auto begun = std::chrono::steady_clock::now();
    presence_.awaitChange(kLong);
    return std::chrono::steady_clock::now() - begun < kLong / 2;
  }
  bool takesItsTime() {
    const auto begun = std::chrono::steady_clock::now();
    presence_.awaitChange(kShort);
    return std::chrono::steady_clock::now() - begun >= kShort;
  }

  CardPresence presence_;
};

}  // namespace zelta::pcsc
