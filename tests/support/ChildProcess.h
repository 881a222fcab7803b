#pragma once

// Runs one of the test programs (tests/programs) as a child process, so that
// a test can watch a process exit, or kill it, without risking its own.

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace chronotick::testing {

class ChildProcess {
public:
  // Starts CT_CHILD_DIR/ct_child_<name> with `args`.
  ChildProcess(const std::string &name, const std::vector<std::string> &args) {
    const std::string path = std::string(CT_CHILD_DIR) + "/ct_child_" + name;
    std::vector<std::string> words{path};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
      pid = -1;
  }
  // A child still running when the test ends is killed, never left behind.
  ~ChildProcess() {
    if (pid > 0 && !reaped) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
  }
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  bool started() const { return pid > 0; }
  void kill(int signal = SIGKILL) {
    if (pid > 0 && !reaped)
      ::kill(pid, signal);
  }
  // Waits for the child to end, at most `limit`; false if it is still running.
  bool wait(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!reaped) {
      const pid_t result = ::waitpid(pid, &status, WNOHANG);
      if (result == pid || result < 0) {
        reaped = true;
        break;
      }
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }
  // After wait: the exit status of a child that exited, or -1 (killed by a signal).
  int exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
  bool killedBy(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }

private:
  pid_t pid = -1;
  int status = 0;
  bool reaped = false;
};

} // namespace chronotick::testing
