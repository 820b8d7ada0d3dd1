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
  std::string standardInput = {};   // a file; empty: as it is
};

// All programs started here have a session of their own, and so no controlling terminal but one
// that they are given.

// For the child between fork and exec: gives it that session, and the signals as a login shell
// leaves them. Who started the tests may ignore some, as nohup does, and a program would keep that.
void BeginOwnSession();

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

struct PromptResult {
  ClientResult client;             // err is what the terminal showed
  bool isEchoOffAtPrompts = true;  // at each prompt
  bool isEchoOnAtTheEnd = false;
};

// Runs the program with a controlling terminal, which is its standard error and, if that is asked
// for, its standard input. Each answer is typed when its prompt has appeared behind what was shown
// before. With a signal, that comes instead of the last answer.
struct Answer {
  std::string prompt;
  std::string text;  // with its line end
};
struct PromptOptions {
  bool standardInputIsTerminal = false;
  int signalAtTheLastPrompt = 0;  // 0: none
};
PromptResult RunClientAtPrompts(const std::vector<std::string>& arguments,
                                const std::vector<Answer>& answers,
                                const PromptOptions& options = {});

}  // namespace kqtest

#endif
