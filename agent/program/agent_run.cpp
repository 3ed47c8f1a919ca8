#include "agent/program/agent_run.h"

#include <chrono>
#include <string>

#include "agent/program/options.h"

namespace zelta::agent {

namespace {

// How long a card that cannot be interrupted may hold up the end.
constexpr std::chrono::seconds kEndLimit{2};

}  // namespace

AgentRun::AgentRun(Service& service, const OnFailure& onFailure)
    : service_(service), ran_(std::async(std::launch::async, [&service, &onFailure] {
        guarded(onFailure, [&service] { service.run(); });
      })) {}

AgentRun::~AgentRun() { service_.stop(); }

int AgentRun::stop(const FailureNote& failure, Log& log, const Leave& leave) {
  service_.stop();
  const bool ended = ran_.wait_for(kEndLimit) == std::future_status::ready;
  const char* problem = failure.problem();
  if (problem != nullptr) log.error(std::string("Ending: ") + problem);
  const int exitCode = problem == nullptr ? kExitDone : kExitFailed;
  if (!ended) {
    log.warning("The card does not end its command; leaving it behind");
    leave(exitCode);
  }
  return exitCode;
}

}  // namespace zelta::agent
