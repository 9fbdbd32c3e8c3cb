// A program started as a separate process, the way a user starts it: its standard output and
// error go to a file, its exit status is waited for with a time-out, and it is killed if a test
// leaves it running.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace kestrel::testing {

// A child process with its standard output and error in a file; killed if still running.
class Process {
 public:
  Process(std::vector<std::string> args, const std::string& log) : log_(log) {
    pid_ = ::fork();
    if (pid_ == 0) {
      const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      std::vector<char*> argv;
      for (auto& a : args) {
        argv.push_back(a.data());
      }
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~Process() {
    if (status_ < 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }
  // Exit status (128 + signal when killed by one); waits at most `timeout`, then kills.
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > end) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
  }
  void terminate() { ::kill(pid_, SIGTERM); }
  void interrupt() { ::kill(pid_, SIGINT); }  // Ctrl-C
  std::string output() const {
    std::ifstream in(log_);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

 private:
  std::string log_;
  pid_t pid_ = -1;
  int status_ = -1;
};

}  // namespace kestrel::testing
