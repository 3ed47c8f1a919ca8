// A pcscd of the test's own with the reader, started by private_pcscd.sh. Needs root.
//
// The process has one folder for it, since pcsc-lite's client library looks up its socket once;
// `instance` after `instance` may run there, one at a time. The first one sets
// PCSCLITE_CSOCK_NAME and ZELTA_PIPE_ROOT for the process, so that the client library and agents
// of the test find it.
// Threads: the owner's. No call waits longer than `kLimit`.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::test {

class PrivatePcscd {
 public:
  static constexpr std::chrono::milliseconds kLimit{60000};

  struct Options {
    std::vector<std::string> arguments = {"--info"};
    // The reader configuration; empty: the reader and nothing else.
    std::string readerConfiguration;
  };
  // How it ended.
  struct End {
    std::optional<int> exitCode;  // none: by a signal
    int signal = 0;
    std::chrono::milliseconds took{0};  // from the request to the end
  };

  explicit PrivatePcscd(std::string handlerPath) : handlerPath_(std::move(handlerPath)) {}
  // Kills it if it still runs.
  ~PrivatePcscd();
  PrivatePcscd(const PrivatePcscd&) = delete;
  PrivatePcscd& operator=(const PrivatePcscd&) = delete;

  // Returns when clients can connect; false if it ended or nothing happened.
  bool start(const Options& options);
  // Sends the signal, more than once if need be, and waits for the end; none if it did not
  // end, which kills it.
  std::optional<End> end(int number);
  bool running() const { return process_ > 0; }

  // What it has printed since its start.
  std::string log() const;
  // The driver's log files of all instances so far, each after its name.
  static std::string driverLog();
  static const std::filesystem::path& folder();

 private:
  bool spawn(const Options& options);
  bool waitForSocket(const platform::ScopedFd& watch) const;
  bool waitForEnd(std::chrono::milliseconds limit) const;

  const std::string handlerPath_;
  pid_t process_ = 0;
  platform::ScopedFd processEnd_;  // readable when the process has ended
};

}  // namespace zelta::test
