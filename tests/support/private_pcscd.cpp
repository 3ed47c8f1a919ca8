#include "tests/support/private_pcscd.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "tests/support/temp_folder.h"

extern char** environ;

extern "C" {
#include <sys/pidfd.h>  // says nothing of C linkage itself
}

namespace zelta::test {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

constexpr char kSocketFile[] = "pcscd.comm";

// pcscd 1.9.9 may lose a signal that asks it to end in good order, with no reader at all: its main
// thread looks for the request once when the signal interrupts its wait, and another thread may
// note the request only after that. An orderly end takes it a second.
constexpr std::chrono::milliseconds kSignalAgain{2500};

fs::path socketFolder() { return PrivatePcscd::folder() / "run" / "pcscd"; }
fs::path configurationFolder() { return PrivatePcscd::folder() / "reader.conf.d"; }
fs::path logFile() { return PrivatePcscd::folder() / "pcscd.log"; }

// All that the driver can log.
constexpr char kRegistry[] =
    "Windows Registry Editor Version 5.00\n\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin]\n"
    "\"zelta.event_filter_mode\"=dword:00000003\n";

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environment() {
  std::vector<std::string> variables;
  for (char** each = environ; *each != nullptr; ++each) variables.emplace_back(*each);
#ifdef ZELTA_PCSCD_PRELOAD
  variables.emplace_back("PCSCD_PRELOAD=" ZELTA_PCSCD_PRELOAD);
  // pcscd's own leaks are not ours to report.
  variables.emplace_back("ASAN_OPTIONS=detect_leaks=0");
#endif
  return variables;
}

// Whether the socket is among the files that something has happened to.
bool tellsOfSocket(const platform::ScopedFd& watch) {
  alignas(inotify_event) char events[4096];
  const ssize_t size = read(watch.get(), events, sizeof events);
  for (ssize_t offset = 0; offset < size;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(events + offset);
    if (event->len > 0 && std::string(event->name) == kSocketFile) return true;
    offset += static_cast<ssize_t>(sizeof(inotify_event)) + event->len;
  }
  return false;
}

}  // namespace

const fs::path& PrivatePcscd::folder() {
  static const TempFolder folder;
  static const ScopedVariable socket("PCSCLITE_CSOCK_NAME",
                                     (folder.path() / "run" / "pcscd" / kSocketFile).string());
  static const ScopedVariable pipes("ZELTA_PIPE_ROOT", (folder.path() / "pipe").string());
  return folder.path();
}

PrivatePcscd::~PrivatePcscd() {
  if (running()) end(SIGKILL);
}

bool PrivatePcscd::start(const Options& options) {
  fs::remove_all(configurationFolder());
  fs::create_directories(configurationFolder());
  fs::create_directories(socketFolder());
  std::ofstream(folder() / "registry.reg") << kRegistry;
  if (!options.readerConfiguration.empty()) {
    std::ofstream(configurationFolder() / "readers") << options.readerConfiguration;
  }
  fs::remove(socketFolder() / kSocketFile);
  // The socket's mode is set once it listens.
  const platform::ScopedFd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (inotify_add_watch(watch.get(), socketFolder().c_str(), IN_ATTRIB) < 0) return false;
  return spawn(options) && waitForSocket(watch);
}

bool PrivatePcscd::spawn(const Options& options) {
  std::vector<std::string> words{ZELTA_PRIVATE_PCSCD_SCRIPT, folder().string(), handlerPath_};
  words.insert(words.end(), options.arguments.begin(), options.arguments.end());
  std::vector<std::string> variables = environment();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logFile().c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t started = 0;
  const int failed = posix_spawn(&started, words[0].c_str(), &actions, nullptr,
                                 pointers(words).data(), pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return false;
  process_ = started;
  processEnd_.reset(pidfd_open(process_, 0));
  return processEnd_.valid();
}

bool PrivatePcscd::waitForSocket(const platform::ScopedFd& watch) const {
  const auto limit = Clock::now() + kLimit;
  for (;;) {
    pollfd states[] = {{watch.get(), POLLIN, 0}, {processEnd_.get(), POLLIN, 0}};
    const auto left = std::chrono::duration_cast<milliseconds>(limit - Clock::now()).count();
    if (left <= 0 || poll(states, 2, static_cast<int>(left)) <= 0 || states[1].revents != 0) {
      return false;
    }
    if (tellsOfSocket(watch)) return true;
  }
}

std::optional<PrivatePcscd::End> PrivatePcscd::end(int number) {
  if (!running()) return std::nullopt;
  const auto begun = Clock::now();
  bool ended = false;
  do {
    kill(process_, number);
    ended = waitForEnd(kSignalAgain);
  } while (!ended && Clock::now() - begun < kLimit);
  if (!ended) kill(process_, SIGKILL);
  int status = 0;
  waitpid(process_, &status, 0);
  process_ = 0;
  processEnd_.reset();
  if (!ended) return std::nullopt;
  End how;
  if (WIFEXITED(status)) how.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) how.signal = WTERMSIG(status);
  how.took = std::chrono::duration_cast<milliseconds>(Clock::now() - begun);
  return how;
}

bool PrivatePcscd::waitForEnd(milliseconds limit) const {
  pollfd state{processEnd_.get(), POLLIN, 0};
  return poll(&state, 1, static_cast<int>(limit.count())) > 0;
}

std::string PrivatePcscd::log() const {
  std::ostringstream text;
  text << std::ifstream(logFile()).rdbuf();
  return text.str();
}

std::string PrivatePcscd::driverLog() {
  std::ostringstream text;
  for (const auto& entry : fs::recursive_directory_iterator(folder() / "data")) {
    if (!entry.is_regular_file()) continue;
    text << "--- " << entry.path().filename().string() << '\n'
         << std::ifstream(entry.path()).rdbuf();
  }
  return text.str();
}

}  // namespace zelta::test
