// Named pipes as UNIX stream sockets: the table of handles and the calls through it.
#include "platform/pipe/pipe.h"

#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/pipe/pipe_end_linux.h"
#include "platform/pipe/pipe_path.h"
#include "platform/pipe/sddl.h"
#include "platform/process/error.h"
#include "platform/process/never_destroyed.h"
#include "platform/sync/sync.h"

namespace zelta::platform {

namespace {

using Entries = std::vector<AccessEntry>;

// The distance between the numbers of two handles, as on Windows.
constexpr std::uintptr_t kHandleStep = 4;

// A pipe without a security descriptor admits its creator and the system.
Entries defaultEntries() {
  return {{true, Trustee::kOwner, true, true}, {true, Trustee::kSystem, true, true}};
}

bool succeed(std::uint32_t error) {
  if (error != error::kSuccess) setLastError(error);
  return error == error::kSuccess;
}

// A handle is a number that is never given out twice, so that a closed one is not mistaken for
// another. Descriptors are never freed; each text has one, however often it is converted.
class LinuxPipes final : public PipeApi {
 public:
  bool convertSecurityDescriptor(const std::string& sddl, SecurityDescriptor* out) override {
    return guarded([&] {
      SddlResult parsed = parseSddl(sddl);
      if (parsed.error != error::kSuccess) return parsed.error;
      auto made = std::make_unique<Entries>(std::move(parsed.entries));
      const MutexLock lock(mutex_);
      *out = descriptors_.try_emplace(sddl, std::move(made)).first->second.get();
      return error::kSuccess;
    });
  }

  PipeHandleValue create(const std::string& name, const PipeArguments& arguments) override {
    PipeHandleValue handle = invalidPipe();
    guarded([&] { return makePipe(name, arguments, &handle); });
    return handle;
  }

  bool connect(PipeHandleValue pipe) override {
    return call(pipe, [](PipeEnd& end) { return end.connect(); });
  }

  bool disconnect(PipeHandleValue pipe) override {
    return call(pipe, [](PipeEnd& end) { return end.disconnect(); });
  }

  bool cancel(PipeHandleValue pipe) override {
    return call(pipe, [](PipeEnd& end) { return end.cancel(); });
  }

  bool read(PipeHandleValue pipe, void* data, std::uint32_t size) override {
    return call(pipe, [&](PipeEnd& end) { return end.read(data, size); });
  }

  bool write(PipeHandleValue pipe, const void* data, std::uint32_t size) override {
    return call(pipe, [&](PipeEnd& end) { return end.write(data, size); });
  }

  bool flush(PipeHandleValue pipe) override {
    return call(pipe, [](PipeEnd& end) { return end.flush(); });
  }

  bool close(PipeHandleValue pipe) override {
    return guarded([&] {
      std::unique_ptr<Pipe> closing;  // destroyed after the table is unlocked
      MutexLock lock(mutex_);
      const auto found = pipes_.find(pipe);
      if (found == pipes_.end()) return error::kInvalidHandle;
      closing = std::move(found->second);
      pipes_.erase(found);
      lock.unlock();
      closing->end.close();
      lock.lock();
      left_.wait(lock, [&] { return closing->calls == 0; });
      return error::kSuccess;
    });
  }

 private:
  struct Pipe {
    Pipe(std::string path, PipeAccess access) : end(std::move(path), std::move(access)) {}
    PipeEnd end;
    // Under way on the end, which lives until they have left. Guarded by the table's mutex.
    int calls = 0;
  };

  // Keeps the pipe of a handle alive during a call.
  class Visit {
   public:
    Visit(LinuxPipes& pipes, PipeHandleValue handle) : pipes_(pipes) {
      const MutexLock lock(pipes_.mutex_);
      const auto found = pipes_.pipes_.find(handle);
      if (found == pipes_.pipes_.end()) return;
      pipe_ = found->second.get();
      ++pipe_->calls;
    }
    ~Visit() {
      if (pipe_ == nullptr) return;
      const MutexLock lock(pipes_.mutex_);
      if (--pipe_->calls == 0) pipes_.left_.notifyAll();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    // Null if the handle is not a pipe's.
    Pipe* pipe() const { return pipe_; }

   private:
    LinuxPipes& pipes_;
    Pipe* pipe_ = nullptr;
  };

  // Exceptions (out of memory) stop here.
  template <typename Call>
  static bool guarded(Call body) {
    try {
      return succeed(body());
    } catch (const std::exception&) {
      return succeed(error::kNotEnoughMemory);
    }
  }

  template <typename Call>
  bool call(PipeHandleValue pipe, Call body) {
    return guarded([&] {
      const Visit visit(*this, pipe);
      return visit.pipe() == nullptr ? error::kInvalidHandle : body(visit.pipe()->end);
    });
  }

  std::uint32_t makePipe(const std::string& name, const PipeArguments& arguments,
                         PipeHandleValue* handle) {
    const std::string path = pipeSocketPath(name);
    if (path.empty()) return error::kInvalidName;
    std::optional<Entries> entries = entriesOf(arguments.securityDescriptor);
    if (!entries) return error::kInvalidSecurityDescriptor;
    auto pipe = std::make_unique<Pipe>(std::filesystem::absolute(path).string(),
                                       PipeAccess(std::move(*entries), systemPipeAccounts()));
    if (const std::uint32_t error = pipe->end.open()) return error;
    const MutexLock lock(mutex_);
    lastHandle_ += kHandleStep;
    const auto made = reinterpret_cast<PipeHandleValue>(lastHandle_);
    // If this throws, the pipe is destroyed and its path removed.
    pipes_.emplace(made, std::move(pipe));
    *handle = made;
    return error::kSuccess;
  }

  std::optional<Entries> entriesOf(SecurityDescriptor descriptor) {
    if (descriptor == nullptr) return defaultEntries();
    const MutexLock lock(mutex_);
    for (const auto& known : descriptors_) {
      if (known.second.get() == descriptor) return *known.second;
    }
    return std::nullopt;
  }

  Mutex mutex_;
  ConditionVariable left_;  // the last call under way on a pipe
  std::uintptr_t lastHandle_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<PipeHandleValue, std::unique_ptr<Pipe>> pipes_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::string, std::unique_ptr<Entries>> descriptors_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace

PipeApi& systemPipes() {
  static NeverDestroyed<LinuxPipes> pipes;
  return pipes.get();
}

}  // namespace zelta::platform
