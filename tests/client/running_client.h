// Runs the program beside the test, for commands that last until they are told to end.
#ifndef KQ_TESTS_CLIENT_RUNNING_CLIENT_H
#define KQ_TESTS_CLIENT_RUNNING_CLIENT_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/client/run_client.h"

namespace kqtest {

class RunningClient {
 public:
  explicit RunningClient(const std::vector<std::string>& arguments);
  // Kills the program if it still runs.
  ~RunningClient();
  RunningClient(const RunningClient&) = delete;
  RunningClient& operator=(const RunningClient&) = delete;

  // Waits until the program has printed a line; false if it ends before.
  bool WaitForOutputLine() { return ReadLine(out_, result_.out); }
  bool WaitForErrorLine() { return ReadLine(err_, result_.err); }

  void Signal(int signal) const;

  // Waits for the end of the program.
  ClientResult Finish();

 private:
  static bool ReadLine(int fd, std::string& text);

  pid_t pid_ = -1;
  int out_ = -1;  // the reading ends of its output
  int err_ = -1;
  ClientResult result_;
};

}  // namespace kqtest

#endif
