// The handler's library as pcscd uses it: loaded by its path, called through its symbols, with the
// real driver module behind it.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <vector>

#include "pcsc/ifd_api.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

class HandlerLibrary {
 public:
  using PollFunction = RESPONSECODE (*)(DWORD lun, int milliseconds);
  using StopFunction = RESPONSECODE (*)(DWORD lun);

  HandlerLibrary() : library_(dlopen(ZELTA_HANDLER, RTLD_LAZY)) {
    EXPECT_NE(library_, nullptr) << dlerror();
    find("IFDHCreateChannelByName", &createByName);
    find("IFDHCreateChannel", &create);
    find("IFDHCloseChannel", &close);
    find("IFDHGetCapabilities", &getCapabilities);
    find("IFDHSetCapabilities", &setCapabilities);
    find("IFDHSetProtocolParameters", &setProtocol);
    find("IFDHPowerICC", &power);
    find("IFDHTransmitToICC", &transmit);
    find("IFDHControl", &control);
    find("IFDHICCPresence", &presence);
  }
  ~HandlerLibrary() { EXPECT_EQ(dlclose(library_), 0); }
  HandlerLibrary(const HandlerLibrary&) = delete;
  HandlerLibrary& operator=(const HandlerLibrary&) = delete;

  decltype(&IFDHCreateChannelByName) createByName = nullptr;
  decltype(&IFDHCreateChannel) create = nullptr;
  decltype(&IFDHCloseChannel) close = nullptr;
  decltype(&IFDHGetCapabilities) getCapabilities = nullptr;
  decltype(&IFDHSetCapabilities) setCapabilities = nullptr;
  decltype(&IFDHSetProtocolParameters) setProtocol = nullptr;
  decltype(&IFDHPowerICC) power = nullptr;
  decltype(&IFDHTransmitToICC) transmit = nullptr;
  decltype(&IFDHControl) control = nullptr;
  decltype(&IFDHICCPresence) presence = nullptr;

  template <typename Function>
  Function function(DWORD lun, DWORD tag) const {
    Function found = nullptr;
    DWORD length = sizeof found;
    EXPECT_EQ(getCapabilities(lun, tag, &length, reinterpret_cast<PUCHAR>(&found)), IFD_SUCCESS);
    EXPECT_EQ(length, sizeof found);
    return found;
  }

 private:
  template <typename Function>
  void find(const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(library_, name));
    EXPECT_NE(*function, nullptr) << name;
  }

  void* const library_;
};

// The module's surroundings; made before the library is loaded.
class HandlerWorld {
 public:
  // For a process that ends without destructors.
  void removeFolder() const { std::filesystem::remove_all(folder_.path()); }

 private:
  TempFolder folder_;
  ScopedVariable module_{"ZELTA_MODULE", ZELTA_VSC_MODULE};
  ScopedVariable pipes_{"ZELTA_PIPE_ROOT", folder_.file("pipe")};
  ScopedVariable registry_{"ZELTA_REGISTRY", folder_.file("registry.reg")};
  ScopedVariable data_{"ZELTA_PROGRAM_DATA", folder_.file("data")};
};

}  // namespace zelta::test
