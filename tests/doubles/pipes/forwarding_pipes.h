// Pipes that forward every call to others, for doubles that change only some calls; and the one way
// to replace the system's pipes.
#pragma once

#include <string>

#include "platform/pipe/pipe.h"
#include "tests/support/scoped_port.h"

namespace zelta::test {

// The other pipes are the test's and outlive this. Any thread may call.
class ForwardingPipes : public platform::PipeApi {
 public:
  explicit ForwardingPipes(platform::PipeApi& pipes) : pipes_(pipes) {}

  bool convertSecurityDescriptor(const std::string& sddl,
                                 platform::SecurityDescriptor* out) override {
    return pipes_.convertSecurityDescriptor(sddl, out);
  }
  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override {
    return pipes_.create(name, arguments);
  }
  bool connect(platform::PipeHandleValue pipe) override { return pipes_.connect(pipe); }
  bool disconnect(platform::PipeHandleValue pipe) override { return pipes_.disconnect(pipe); }
  bool cancel(platform::PipeHandleValue pipe) override { return pipes_.cancel(pipe); }
  bool read(platform::PipeHandleValue pipe, void* data, std::uint32_t size) override {
    return pipes_.read(pipe, data, size);
  }
  bool write(platform::PipeHandleValue pipe, const void* data, std::uint32_t size) override {
    return pipes_.write(pipe, data, size);
  }
  bool flush(platform::PipeHandleValue pipe) override { return pipes_.flush(pipe); }
  bool close(platform::PipeHandleValue pipe) override { return pipes_.close(pipe); }

 private:
  platform::PipeApi& pipes_;
};

// Replaces the system's pipes for a scope.
struct ScopedPipes : ScopedPort {
  explicit ScopedPipes(platform::PipeApi& pipes) : ScopedPort(&platform::Ports::pipes, pipes) {}
};

}  // namespace zelta::test
