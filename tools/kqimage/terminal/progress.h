// The line on standard error that tells how far a command is: only on a terminal, and not under
// --quiet. It is gone when the object goes, so that what is printed next stands on a clean line.
#ifndef KQIMAGE_TERMINAL_PROGRESS_H
#define KQIMAGE_TERMINAL_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace kqimage {

class Progress {
 public:
  Progress(std::string verb, std::uint64_t total, bool quiet);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Bytes of the volume that are done; draws a few times a second.
  void Update(std::uint64_t done);

  double SecondsSoFar() const;

 private:
  using Clock = std::chrono::steady_clock;

  struct Sample {
    Clock::time_point time;
    std::uint64_t done;
  };

  void Draw(Clock::time_point now, std::uint64_t done);

  const std::string verb_;
  const std::uint64_t total_;
  const bool isShown_;
  const Clock::time_point start_;
  Clock::time_point lastDrawn_;
  std::deque<Sample> samples_;  // of the last seconds, for the rate
  std::size_t drawnWidth_ = 0;
};

// The line's text, cut to the terminal's width. Rate is in bytes a second, 0 when not yet known.
std::string ProgressLine(const std::string& verb, std::uint64_t done, std::uint64_t total,
                         double rate, std::size_t width);

}  // namespace kqimage

#endif
