#include "kqimage/terminal/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kRedrawInterval{100};
constexpr seconds kRateWindow{10};  // long enough to smooth, short enough to follow a change
constexpr milliseconds kRateSettling{500};
constexpr std::size_t kBarWidth = 24;

std::size_t TerminalWidth() {
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

}  // namespace

std::string ProgressLine(const std::string& verb, std::uint64_t done, std::uint64_t total,
                         double rate, std::size_t width) {
  const double share = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
  std::string line = fmt::format("{} {:3.0f}%  {} of {}", verb, std::floor(share * 100),
                                 SizeText(done), SizeText(total));
  if (rate > 0) {
    const double left = static_cast<double>(total - std::min(done, total)) / rate;
    line += fmt::format("  {}/s", SizeText(static_cast<std::uint64_t>(rate)));
    // Far beyond anything a person waits for, and within what the conversion can hold.
    constexpr double kLongest = 1e9;
    if (left < kLongest) {
      line += fmt::format("  {} left", DurationText(static_cast<std::uint64_t>(std::ceil(left))));
    }
  }
  // The last column stays free: a terminal may wrap behind it.
  if (line.size() + 4 + kBarWidth < width) {
    const auto filled = static_cast<std::size_t>(share * kBarWidth);
    line += "  [" + std::string(std::min(filled, kBarWidth), '#') +
            std::string(kBarWidth - std::min(filled, kBarWidth), '.') + "]";
  }
  if (line.size() >= width) line.resize(width - 1);
  return line;
}

Progress::Progress(std::string verb, std::uint64_t total, bool quiet)
    : verb_(std::move(verb)),
      total_(total),
      isShown_(!quiet && isatty(STDERR_FILENO) == 1),
      start_(Clock::now()) {
  samples_.push_back({start_, 0});
  if (isShown_) Draw(start_, 0);
}

Progress::~Progress() {
  // To the end of the line, where the terminal may have put a ^C behind the text.
  constexpr const char* kClearLine = "\r\x1b[K";
  if (drawnWidth_ > 0) fmt::print(stderr, "{}", kClearLine);
}

void Progress::Update(std::uint64_t done) {
  if (!isShown_) return;
  const Clock::time_point now = Clock::now();
  if (now - lastDrawn_ < kRedrawInterval) return;
  samples_.push_back({now, done});
  while (samples_.size() > 2 && now - samples_[1].time > kRateWindow) samples_.pop_front();
  Draw(now, done);
}

void Progress::Draw(Clock::time_point now, std::uint64_t done) {
  const Sample& oldest = samples_.front();
  const std::chrono::duration<double> span = now - oldest.time;
  double rate = 0;
  if (span >= kRateSettling) rate = static_cast<double>(done - oldest.done) / span.count();
  const std::string line = ProgressLine(verb_, done, total_, rate, TerminalWidth());
  const std::size_t padding = drawnWidth_ > line.size() ? drawnWidth_ - line.size() : 0;
  fmt::print(stderr, "\r{}{}", line, std::string(padding, ' '));
  std::fflush(stderr);
  drawnWidth_ = line.size();
  lastDrawn_ = now;
}

double Progress::SecondsSoFar() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

}  // namespace kqimage
