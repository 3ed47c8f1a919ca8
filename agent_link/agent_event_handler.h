// The event listener's view of a reader: handles what its agent reports.
//
// Threads: called on the server thread, with no lock held. An exception ends the handling of that
// event only; if `agentLost` throws, the thread ends.
#pragma once

namespace zelta {

class AgentEventHandler {
 public:
  // Both pipes have a client; the card has not been reported yet.
  virtual void agentConnected() = 0;
  virtual void cardInserted() = 0;
  virtual void cardRemoved() = 0;
  // The event pipe broke. Disconnects both pipes.
  virtual void agentLost() = 0;

 protected:
  ~AgentEventHandler() = default;
};

}  // namespace zelta
