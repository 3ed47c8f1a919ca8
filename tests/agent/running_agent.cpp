#include "tests/agent/running_agent.h"

#include <algorithm>
#include <utility>

namespace zelta::test {

namespace {

std::size_t countIn(const std::vector<std::string>& lines, const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(),
                    [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

}  // namespace

agent::Log::Sink LogLines::sink() {
  return [this](agent::Severity severity, const std::string& line) {
    lines_.add(std::string(agent::severityName(severity)) + ": " + line);
  };
}

std::size_t LogLines::count(const std::string& text) const { return countIn(lines_.all(), text); }

void LogLines::waitFor(const std::string& text) const {
  lines_.awaitUntil([&](const auto& lines) { return countIn(lines, text) != 0; });
}

agent::Timing patientTiming() {
  agent::Timing timing;
  timing.driverLimit = kLong;
  timing.answerLimit = kLong;
  timing.grace = kLong;
  return timing;
}

RunningAgent::RunningAgent(agent::CardBackend& card, agent::Timing timing,
                           agent::OnFailure onFailure, std::unique_ptr<agent::PipeClientPort> pipes,
                           agent::TraceSink* trace)
    : log_(agent::Severity::kDebug, lines_.sink()), pipes_(std::move(pipes)) {
  agent::Agent::Settings settings;
  settings.sessionId = kSession;
  settings.timing = timing;
  settings.onConnection = [this](bool connected) { *connected_.lock() = connected; };
  settings.onFailure = std::move(onFailure);
  settings.trace = trace;
  agent_ = std::make_unique<agent::Agent>(*pipes_, card, settings, log_);
  agent_->start();
  thread_ = std::thread([this] { agent::guarded(failTest, [this] { agent_->run(); }); });
}

void RunningAgent::stop() {
  agent_->stop();
  if (thread_.joinable()) thread_.join();
}

}  // namespace zelta::test
