// Starts the least agent as a child process. Used by one thread.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

extern char** environ;

namespace zelta::benchmarks {

class AgentProcess {
 public:
  explicit AgentProcess(const char* program) {
    int commands[2];
    int answers[2];
    if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, commands[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, answers[1], STDOUT_FILENO);
    std::string name = program;
    char* words[] = {name.data(), nullptr};
    if (posix_spawn(&process_, program, &actions, nullptr, words, environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    close(commands[0]);
    close(answers[1]);
    commands_ = fdopen(commands[1], "w");
    answers_ = fdopen(answers[0], "r");
  }
  ~AgentProcess() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    (void)std::fclose(commands_);
    (void)std::fclose(answers_);
  }
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  // `word` is "insert" or "remove"; returns the time at which the agent began to send the event.
  std::chrono::steady_clock::time_point move(const char* word) {
    (void)std::fprintf(commands_, "%s\n", word);
    (void)std::fflush(commands_);
    char nanoseconds[32];
    if (std::fgets(nanoseconds, sizeof nanoseconds, answers_) == nullptr) std::abort();
    return std::chrono::steady_clock::time_point(
        std::chrono::nanoseconds(std::strtoll(nanoseconds, nullptr, 10)));
  }

 private:
  pid_t process_ = 0;
  std::FILE* commands_ = nullptr;
  std::FILE* answers_ = nullptr;
};

}  // namespace zelta::benchmarks
