// OperationQueue: a named queue of operations run on the global queue, with a cap on how
// many run at once.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/task.hpp"

namespace nk {

// Runs added operations on the default global queue, starting them in the order they were
// added, with at most maxConcurrentOperationCount() running at once. A maximum of 1 makes
// the queue serial; a maximum of 0 holds every operation back until it is raised. The
// default, kDefaultMaxConcurrentOperationCount (-1), lets the system decide: operations
// start at once and the shared pool bounds how many run.
//
// Destroying the OperationQueue neither waits for nor cancels its operations: those added
// keep running. An exception escaping an operation terminates the process with a message
// naming the queue.
//
// Example:
//   nk::OperationQueue uploads("uploads");
//   uploads.setMaxConcurrentOperationCount(2);
//   for (auto& file : files) uploads.addOperation([file] { upload(file); });
//   uploads.waitUntilAllOperationsAreFinished();
class OperationQueue {
 public:
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;

  // A queue with `name`; with an empty name, "OperationQueue 0x…" after its address.
  explicit OperationQueue(std::string name = {});
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;
  ~OperationQueue();

  std::string name() const;
  void setName(std::string name);

  int maxConcurrentOperationCount() const;
  // Values below -1 count as -1. Raising the maximum starts waiting operations.
  void setMaxConcurrentOperationCount(int count);

  // Adds an operation (a callable taking no arguments). Any thread.
  template <class F>
  void addOperation(F&& operation) {
    add(Task(std::forward<F>(operation)));
  }

  // Waits until every operation added so far, and any they add, has finished. Must not
  // be called from one of the queue's own operations.
  void waitUntilAllOperationsAreFinished();
  // Operations added and not yet finished.
  [[nodiscard]] std::size_t operationCount() const;

 private:
  class State;
  void add(Task&& operation);
  std::shared_ptr<State> state_;
};

}  // namespace nk
