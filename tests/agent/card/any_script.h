// Plays any text as a script with any commands, and checks what must always hold. Shared by the
// fuzzer and by the test that plays its corpus.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "agent/card/script.h"
#include "agent/card/script_card.h"
#include "tests/support/fuzz_input.h"

namespace zelta::test {

// Checks that insertions and removals alternate, beginning with an insertion.
class TurnsOnly final : public agent::CardListener {
 public:
  void cardInserted() override { move(true); }
  void cardRemoved() override { move(false); }
  void cardFailed(const char* problem) override { require(false, problem); }

 private:
  void move(bool in) {
    require(in_ != in, "a card that is in is not inserted, one that is out not removed");
    in_ = in;
  }

  bool in_ = false;  // notices come one at a time
};

// The script if the text is one; otherwise checks that the error names a line of the text.
inline std::optional<agent::Script> parseAny(const std::string& text) {
  try {
    return agent::parseScript(text);
  } catch (const agent::ScriptError& error) {
    const std::string message = error.what();
    require(message.rfind("line ", 0) == 0, "a message begins with its line");
    const unsigned long line = std::strtoul(message.c_str() + std::strlen("line "), nullptr, 10);
    const auto breaks = static_cast<unsigned long>(std::count(text.begin(), text.end(), '\n'));
    require(line <= breaks + 1, "the line is one of the script's");
    return std::nullopt;
  }
}

// Removes all delays from the script.
inline void hasten(agent::Script& script) {
  const std::chrono::milliseconds now{0};
  script.atr.delay = now;
  script.otherwise.delay = now;
  for (agent::Script::Reply& reply : script.replies) {
    for (agent::ScriptResponse& response : reply.responses) response.delay = now;
  }
  for (agent::Script::Timed& timed : script.timed) timed.at = now;
  for (agent::Script::Trigger& trigger : script.triggers) trigger.delay = now;
}

// A command that the pattern describes.
inline Bytes commandFor(const agent::CommandPattern& pattern) {
  Bytes command;
  for (const std::optional<std::uint8_t>& byte : pattern.bytes) command.push_back(byte.value_or(0));
  if (pattern.open) command.push_back(0);
  return command;
}

// Whether the answer is one of the script's for the command, whichever is due.
inline bool isAnswerTo(const agent::Script& script, const Bytes& command, const Bytes& answer) {
  for (const agent::Script::Reply& reply : script.replies) {
    if (!reply.pattern.matches(command)) continue;
    return std::any_of(reply.responses.begin(), reply.responses.end(),
                       [&](const auto& response) { return response.to(command) == answer; });
  }
  return script.otherwise.to(command) == answer;
}

// The script ends with a zero byte; after it come commands, each after its length.
inline void playAnyScript(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  std::optional<agent::Script> script = parseAny(input.text('\0'));
  if (!script) return;
  for (const agent::Script::Reply& reply : script->replies) {
    const Bytes command = commandFor(reply.pattern);
    require(reply.pattern.matches(command), "a pattern matches what it describes");
    require(isAnswerTo(*script, command, script->responseTo(command).to(command)),
            "the first reply that matches counts");
  }
  hasten(*script);

  TurnsOnly listener;
  agent::ScriptCard card(*script, script->cardIn);
  card.start(listener);
  // A card that has left meanwhile is silent.
  const auto check = [](const Bytes& answer, bool isExpected) {
    require(answer.empty() || isExpected, "a card that answers, answers by its script");
  };
  for (const Bytes& atr : {card.reset(), card.atr()}) check(atr, atr == script->atr.to({}));
  card.ready();
  while (!input.atEnd()) {
    const Bytes command = input.bytes(input.byte());
    const Bytes answer = card.transmit(command);
    check(answer, isAnswerTo(*script, command, answer));
  }
  (void)card.remove();
  (void)card.insert();
  card.stop();
}

}  // namespace zelta::test
