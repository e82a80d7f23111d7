// simtool::ChildProcess: a program that the supervisor runs and stops. The child dies with
// the supervisor (whatever kills the supervisor), keeps the supervisor's stderr and writes
// nothing to its stdout, which carries the report.
//
//   simtool::ChildProcess p("l2ser", {"/usr/bin/zorvek-serializer", "--serializer", "l2ser"});
//   p.running();                               // false once it ended (it is then reaped)
//   p.stop(std::chrono::seconds(5));           // SIGTERM, SIGKILL after 5 s, reaped
//   p.state();                                 // "stopped", "exited with status 1", ...
//
// Used from one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace simtool {

class ChildProcess {
 public:
  // Starts argv[0] with `argv`; throws std::runtime_error naming the program when it cannot
  // be run.
  ChildProcess(std::string name, const std::vector<std::string>& argv);
  // Stops a child still running (SIGKILL) and reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  const std::string& name() const { return name_; }
  pid_t pid() const { return pid_; }
  // Whether it runs; reaps a child that ended.
  bool running();
  // Whether it ended by itself rather than by stop() or kill().
  bool endedByItself() { return !running() && !stopped_; }
  // SIGTERM, then SIGKILL when it has not exited after `grace`; returns once it is reaped.
  void stop(std::chrono::milliseconds grace);
  // SIGKILL; returns once it is reaped.
  void kill();
  // "running", "stopped", "exited with status N" or "killed by signal N".
  std::string state();

 private:
  void reap(int options);
  std::string name_;
  pid_t pid_ = -1;
  bool reaped_ = false;
  bool stopped_ = false;
  int status_ = 0;
};

}  // namespace simtool
