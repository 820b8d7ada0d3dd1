// Runs the program and collects what it does.
#ifndef KQ_TESTS_CLIENT_RUN_CLIENT_H
#define KQ_TESTS_CLIENT_RUN_CLIENT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kqtest {

struct ClientResult {
  int exitStatus = -1;  // -1: ended by a signal
  std::string out;
  std::string err;
};

struct ClientOptions {
  std::uint64_t fileSizeLimit = 0;  // bytes that a file may have; 0: any number
  std::string timeZone = {};        // TZ of the program; empty: as it is
  std::string workFolder = {};      // empty: as it is
};

ClientResult RunClient(const std::vector<std::string>& arguments,
                       const ClientOptions& options = {});

// Runs the program and stops it at the first system call of its main thread after which isReached
// holds; calls atStop, sends the signal (0: none) and lets the program go on to its end. Fails the
// test if the program ends before. There is no race: between two system calls the main thread can
// change nothing that isReached looks at.
ClientResult RunClientUntil(
    const std::vector<std::string>& arguments, const std::function<bool()>& isReached, int signal,
    const std::function<void()>& atStop = [] {});

// Runs the program with a terminal as standard error; err is what the terminal got.
ClientResult RunClientOnTerminal(const std::vector<std::string>& arguments);

}  // namespace kqtest

#endif
