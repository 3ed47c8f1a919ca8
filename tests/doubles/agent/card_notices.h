// A card's listener that records its notices: "in " and "out ".
//
// Any thread may call.
#pragma once

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>

#include "agent/card/card_backend.h"
#include "tests/support/shared.h"

namespace zelta::test {

class CardNotices : public agent::CardListener {
 public:
  virtual ~CardNotices() = default;

  void cardInserted() override { add("in "); }
  void cardRemoved() override { add("out "); }
  void cardFailed(const char* problem) override { ADD_FAILURE() << problem; }

  // Waits until exactly these notices have come.
  void waitFor(const std::string& text) {
    text_.lock().wait([&](const std::string& told) { return told == text; });
  }
  std::string text() { return *text_.lock(); }

 protected:
  void add(const std::string& word) { *text_.lock() += word; }

 private:
  Shared<std::string> text_;
};

// A listener that cannot handle a card, so that the back end's notifying thread fails.
class FailingNotices final : public CardNotices {
 public:
  void cardInserted() override { throw std::runtime_error("no memory for the card"); }
  void cardFailed(const char* problem) override { told_.set_value(problem); }
  // Waits for the failure.
  std::string told() { return told_.get_future().get(); }

 private:
  std::promise<std::string> told_;
};

}  // namespace zelta::test
