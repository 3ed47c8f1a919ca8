// Sends any lines to the control socket of an agent with any texts, and checks what must hold for
// the answers. Shared by the fuzzer and by the test that plays its corpus.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/control/control.h"
#include "agent/program/agent.h"
#include "contract/control.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/support/fuzz_input.h"

namespace zelta::test {

// Stands for an absent driver.
class NoPipes final : public agent::PipeClientPort {
 public:
  void watch(const std::vector<std::string>&) override {}
  agent::OpenedPipe open(const std::string&) override { return {}; }
  void waitForChange(std::optional<std::chrono::milliseconds>) override {}
  void cancel() override {}
};

class NamedCard final : public HeldCard {
 public:
  NamedCard(std::string name, bool in) : HeldCard(in), name_(std::move(name)) {}
  std::string name() const override { return name_; }

 private:
  const std::string name_;
};

// Whether the text is UTF-8, and can be the value of a JSON string as it is.
inline bool isUtf8(const std::string& text) {
  try {
    (void)nlohmann::json(text).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

inline void checkJson(const std::string& json, const agent::Agent::Status& status) {
  require(std::count_if(json.begin(), json.end(),
                        [](char c) { return static_cast<std::uint8_t>(c) < ' '; }) == 1 &&
              json.back() == '\n',
          "a status for programs is one line");
  const std::string id = nlohmann::json::parse(json)["session_id"];
  require(!isUtf8(status.sessionId) || id == status.sessionId, "a text comes through as it is");
  for (const std::uint32_t reader : {status.reader, status.reader + 1}) {
    require(saysCardIsIn(kControlOk + json, reader) == (status.cardIn && reader == status.reader),
            "no text makes a status say anything else");
  }
}

inline void checkAnswer(const std::string& answer) {
  const agent::ControlResult result = agent::readControlAnswer(answer);
  for (const std::uint32_t reader : {0u, 1u}) {
    require(!saysCardIsIn(answer, reader) || result.success, "only a success tells of a card");
  }
}

// A byte for the reader's number and the card, then lines: the session's id, the back end's name,
// and what clients ask. Each line is also what a client may be answered.
inline void playAnyControlLine(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  agent::Agent::Settings settings;
  const std::uint8_t first = input.byte();
  settings.reader = first / 2;
  settings.sessionId = input.text('\n');
  NamedCard card(input.text('\n'), first % 2 != 0);
  NoPipes pipes;
  agent::Log log(agent::Severity::kError, [](agent::Severity, const std::string&) {});
  agent::Agent agent(pipes, card, settings, log);
  agent.start();
  do {
    const std::string line = input.text('\n');
    const agent::Agent::Status before = agent.status();
    const std::string answer = agent::answerControl(agent, line);
    const agent::Agent::Status after = agent.status();
    const agent::ControlResult result = agent::readControlAnswer(answer);
    require(answer.back() == '\n', "an answer ends with a line break");
    require(after.sessionId == settings.sessionId, "the session stays");
    const bool inserts = line == kControlInsert && !before.cardIn;
    const bool removes = line == kControlRemove && before.cardIn;
    require((before.cardIn != after.cardIn) == (inserts || removes), "a card moves if it is told");
    const bool asks = line == kControlStatus || line == kControlStatusJson;
    require(result.success == (inserts || removes || asks), "what cannot be done is an error");
    require(result.success || std::count(answer.begin(), answer.end(), '\n') == 1,
            "an error is one line");
    checkJson(agent::statusJson(after), after);
    checkAnswer(answer);
    checkAnswer(line);
    checkAnswer(kControlOk + line);
  } while (!input.atEnd());
}

}  // namespace zelta::test
