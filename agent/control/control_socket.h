// The local socket, on Windows the named pipe, through which `zelta-agent ctl` reaches the running
// agent.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/control/control_feed.h"
#include "agent/program/failure.h"

namespace zelta::agent {

// The agent's end. One thread serves one client after the other; a client that does not ask within
// a second is dropped. A client that asks for a trace gets its own thread until it
// leaves. The socket is made for the agent's own user and root; the service opens it to its group.
// The pipe is for the agent's own user and administrators.
class ControlServer {
 public:
  // Answers one line, on the server's thread.
  using Handler = std::function<std::string(const std::string& line)>;

  virtual ~ControlServer() = default;  // ends the thread and removes the socket

  // Removes the socket and its link, so that no further client comes. Any thread; may be repeated.
  virtual void removePath() = 0;
};

// Makes missing folders and replaces a socket that a dead agent left. Throws std::runtime_error
// with a message for people, for example if a live agent has the path. `onFailure` is called if the
// server's thread ends by an exception, for example one from the handler.
//
// If `link` is given, makes a symbolic link to the socket there and replaces another agent's. An
// agent that may not write there goes without.
//
// `openFeed` makes the feeds of traces; without it there are none.
//
// A pipe has no folder, link or traces.
std::unique_ptr<ControlServer> openControlServer(const std::string& path,
                                                 ControlServer::Handler handler,
                                                 OnFailure onFailure, const std::string& link = {},
                                                 OpenFeed openFeed = {});

// The most clients that are fed at a time.
inline constexpr std::size_t kMostFeeds = 4;

// No agent listens; the message says at which paths.
class NoAgentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Asks the agent at the first of the paths at which one listens. Throws NoAgentError if none does,
// and std::runtime_error with a message for people if one must not be asked or the answer does not
// come within 10 seconds.
std::string askAgent(const std::vector<std::string>& paths, const std::string& line);

}  // namespace zelta::agent
