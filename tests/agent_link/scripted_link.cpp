#include "tests/agent_link/scripted_link.h"

#include <cstdio>

#include "contract/bytes.h"
#include "contract/wire.h"

namespace zelta::test {

namespace {

constexpr std::uintptr_t kCommandHandle = 0x1000;
constexpr std::uintptr_t kEventHandle = 0x1001;

// By `PipeCallKind`.
constexpr const char* kCallNames[] = {"convert", "create", "connect", "disconnect", "cancel",
                                      "read",    "write",  "flush",   "close"};

std::string describe(const PipeCall& call) {
  const std::string text = kCallNames[static_cast<std::size_t>(call.kind)] +
                           std::string(call.text == commandPipeName(0) ? " command" : " event");
  if (call.kind == PipeCallKind::kRead) return text + " " + std::to_string(call.size);
  return call.kind == PipeCallKind::kWrite ? text + " " + toHex(call.data) : text;
}

}  // namespace

PipeReader& ScriptedLink::startCreated(const AgentLinkTimes& times) {
  PipeReader& started = start(times);
  EXPECT_TRUE(log_.waitFor(createdText(false)));
  log_.clear();
  forgetCalls();
  return started;
}

PipeReader& ScriptedLink::startAccepted(const AgentLinkTimes& times) {
  pipes_.holdConnect(eventPipeName(0));
  PipeReader& started = startCreated(times);
  waitForInsertion();
  EXPECT_TRUE(pipes_.waitUntilBlocked(eventPipeName(0)));
  log_.clear();
  forgetCalls();
  return started;
}

std::vector<std::string> ScriptedLink::trace() const {
  const std::vector<PipeCall> calls = pipes_.calls();
  std::vector<std::string> texts;
  for (std::size_t i = forgotten_; i < calls.size(); ++i) texts.push_back(describe(calls[i]));
  return texts;
}

std::string ScriptedLink::createdText(bool command) {
  char handle[32];
  (void)std::snprintf(handle, sizeof handle, "%p",
                      reinterpret_cast<void*>(command ? kCommandHandle : kEventHandle));
  return command ? "Command named pipe created:" + commandPipeName(0) + ":" + handle
                 : "Event pipe created:" + eventPipeName(0) + ":" + handle;
}

}  // namespace zelta::test
