// What the program runs until it is ended.
#pragma once

#include <string>

namespace zelta::agent {

class Service {
 public:
  Service() = default;
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  virtual ~Service() = default;

  // Serves until `stop`. May throw, for example for lack of memory; the service may be destroyed
  // then, nothing else.
  virtual void run() = 0;
  // Ends `run`, now or as soon as it is called. Any thread.
  virtual void stop() = 0;

  // Any thread, while `run` serves. The text says why not; empty is success.
  virtual std::string insertCard() = 0;
  virtual std::string removeCard() = 0;
};

}  // namespace zelta::agent
