// A driver host as a separate process, for the tests of the module, whose path is its argument.
// Prints "up" when the driver is up; then takes one command a line and answers each with a line.
// Ends with its input.
//
//   control CODE CAPACITY [HEX]   an I/O control with that input: "STATUS OUTPUT"
//   submit CODE                   one that waits, without buffers: "ok" when it is in the driver
//   result                        waits for the one submitted last: "STATUS OUTPUT"
//   down                          takes the driver down and unloads it: "ok"
//   exit CODE                     ends the process, whatever the driver is doing
//
// CODE of a control, STATUS, OUTPUT and HEX are hexadecimal.
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "contract/bytes.h"
#include "host/driver_host.h"
#include "host/driver_module.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLong = 60s;

std::string textOf(const host::IoResult& result) {
  return host::codeText(result.status) + " " + toHex(result.output);
}

class HostProgram {
 public:
  explicit HostProgram(const std::string& module) : host_(host::DriverHost::load(module)) {
    host_->bringUp();
    file_ = host_->open(L"dev0");
  }

  std::string obey(std::istringstream command) {
    std::string verb;
    command >> verb;
    if (verb == "control") return control(command);
    if (verb == "submit") return submit(command);
    if (verb == "result") return operation_->wait(kLong) ? textOf(operation_->result()) : "nothing";
    if (verb == "down") {
      host_->tearDown();
      return host_->unload() ? "ok" : "stays loaded";
    }
    if (verb == "exit") {
      int code = 0;
      command >> code;
      std::exit(code);
    }
    return "no such command";
  }

 private:
  std::string control(std::istringstream& arguments) {
    std::uint32_t code = 0;
    std::size_t capacity = 0;
    std::string input;
    arguments >> std::hex >> code >> std::dec >> capacity >> input;
    return textOf(file_->control(code, parseHex(input).value_or(Bytes()), capacity, kLong));
  }

  std::string submit(std::istringstream& arguments) {
    std::uint32_t code = 0;
    arguments >> std::hex >> code;
    operation_ = file_->submit(code, {}, 0, nullptr);
    return "ok";
  }

  const std::unique_ptr<host::DriverHost> host_;
  std::shared_ptr<host::File> file_;
  std::shared_ptr<host::IoOperation> operation_;
};

}  // namespace
}  // namespace zelta::test

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    zelta::test::HostProgram host(argv[1]);
    std::cout << "up" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
      std::cout << host.obey(std::istringstream(line)) << std::endl;
    }
  } catch (const std::exception& error) {
    std::cout << error.what() << std::endl;
    return 1;
  }
  return 0;
}
