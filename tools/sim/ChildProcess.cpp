#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace simtool {

ChildProcess::ChildProcess(std::string name, const std::vector<std::string>& argv)
    : name_(std::move(name)) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  // exec's failure comes back through a pipe that a successful exec closes.
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0)
    throw std::runtime_error("cannot start " + name_ + ": pipe: " + std::strerror(errno));
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) {
    close(report[0]);
    close(report[1]);
    throw std::runtime_error("cannot start " + name_ + ": fork: " + std::strerror(errno));
  }
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);  // the supervisor died before the line above
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    execv(args[0], args.data());
    const int error = errno;
    [[maybe_unused]] const ssize_t n = write(report[1], &error, sizeof error);
    _exit(127);
  }
  close(report[1]);
  int error = 0;
  const ssize_t n = read(report[0], &error, sizeof error);
  close(report[0]);
  if (n == sizeof error) {
    reap(0);
    throw std::runtime_error("cannot run " + argv[0] + ": " + std::strerror(error));
  }
}

ChildProcess::~ChildProcess() {
  if (running()) kill();
}

void ChildProcess::reap(int options) {
  if (reaped_) return;
  if (waitpid(pid_, &status_, options) == pid_) reaped_ = true;
}

bool ChildProcess::running() {
  reap(WNOHANG);
  return !reaped_;
}

void ChildProcess::stop(std::chrono::milliseconds grace) {
  if (!running()) return;
  stopped_ = true;
  ::kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + grace;
  while (running() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  if (running()) kill();
}

void ChildProcess::kill() {
  if (!running()) return;
  stopped_ = true;
  ::kill(pid_, SIGKILL);
  reap(0);
}

std::string ChildProcess::state() {
  if (running()) return "running";
  if (WIFSIGNALED(status_)) return "killed by signal " + std::to_string(WTERMSIG(status_));
  const int code = WEXITSTATUS(status_);
  if (stopped_ && code == 0) return "stopped";
  return "exited with status " + std::to_string(code);
}

}  // namespace simtool
