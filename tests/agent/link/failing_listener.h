// A listener that cannot deal with a card, so that the back end's thread that tells it fails.
#pragma once

#include <future>
#include <stdexcept>
#include <string>

#include "agent/card/card_backend.h"

namespace zelta::test {

class FailingListener final : public agent::CardListener {
 public:
  void cardInserted() override { throw std::runtime_error("no memory for the card"); }
  void cardRemoved() override {}
  void cardFailed(const char* problem) override { told_.set_value(problem); }

  // Waits for the failure.
  std::string told() { return told_.get_future().get(); }

 private:
  std::promise<std::string> told_;
};

}  // namespace zelta::test
