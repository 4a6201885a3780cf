// Three nodes of a replicated log, as real processes on this machine.
#pragma once

#include <signal.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "tests/gateway/engines/NodeDisk.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid::fleet {

// Everything stands in a scratch folder, listens on loopback only, and ends with the object. One
// thread, the one that made it: nodes die with that thread.
class LogCluster {
 public:
  static constexpr std::size_t size = 3;
  // What the nodes write on: the machine's own disk, or each its own, which can be full and lose
  // its power (NodeDisk).
  enum class Disks { shared, own };

  virtual ~LogCluster() = default;
  LogCluster(const LogCluster&) = delete;
  LogCluster& operator=(const LogCluster&) = delete;

  // What publishers and readers are given.
  virtual std::string url() const = 0;
  // The node that orders the messages of a stream; nothing where none is known.
  virtual std::optional<std::size_t> leaderOf(const std::string& stream) = 0;
  // Whether the node says that it serves.
  virtual bool serves(std::size_t node) = 0;

  // Returns at once.
  void start(std::size_t node);
  // SIGKILL; returns when it has ended.
  void kill(std::size_t node);
  void freeze(std::size_t node) { _nodes[node]->freeze(); }
  void thaw(std::size_t node) { _nodes[node]->signal(SIGCONT); }
  bool isRunning(std::size_t node) { return _nodes[node] && _nodes[node]->isRunning(); }
  // False where one that was started does not serve in time.
  [[nodiscard]] bool awaitAll(std::chrono::seconds limit);
  // Starts those that do not serve once more, as an operator would; false where that does not help.
  [[nodiscard]] bool repair();

  NodeDisk& disk(std::size_t node) { return *_disks.at(node); }
  // User and system time that the nodes which run have taken since they were started.
  std::chrono::nanoseconds cpuTime() const;
  // The bytes that they hold in memory.
  std::size_t residentBytes() const;
  // The last lines that a node wrote, for messages of what went wrong.
  std::string lastWords(std::size_t node) const;

 protected:
  explicit LogCluster(Disks disks);

  // What starts a node. Its standard output and error go to a file.
  virtual ChildProcess::Program program(std::size_t node) const = 0;
  // To be called by the destructor of the class that tells the program.
  void stopAll();

  std::string folder(std::size_t node) const;
  const ScratchFolder& scratch() const { return _scratch; }

 private:
  const ScratchFolder _scratch;
  std::array<std::unique_ptr<NodeDisk>, size> _disks;
  std::array<std::unique_ptr<ChildProcess>, size> _nodes;
};

// The output of a program that ended with 0; nothing otherwise.
std::optional<std::string> outputOf(const ChildProcess::Program& program);

}  // namespace corvid::fleet
