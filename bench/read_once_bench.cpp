// Reads a volume and the chain that has its former state once each, front to back and one after the
// other, and prints the seconds of both: the least that an increment of the volume can take which
// compares everything.
//
//   read_once_bench VOLUME FILE[|FILE]...
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "bench/bench_chain.h"
#include "bench/qemu_io.h"

namespace {

constexpr std::uint32_t kPiece = 1 << 20;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "Usage: read_once_bench VOLUME FILE[|FILE]...\n");
    return 2;
  }
  std::vector<std::uint8_t> buffer(kPiece);
  const int volume = open(argv[1], O_RDONLY | O_CLOEXEC);
  kqbench::Require(volume >= 0, "open of the volume");
  std::uint64_t bytes = 0;
  const auto start = std::chrono::steady_clock::now();
  for (ssize_t count = 0; (count = read(volume, buffer.data(), kPiece)) > 0;) {
    bytes += static_cast<std::uint64_t>(count);
  }
  const double volumeSeconds = kqbench::SecondsSince(start);
  close(volume);
  const kqbench::OpenedChain chain(argv[2]);
  for (std::uint64_t at = 0; at < bytes; at += kPiece) chain.Read(at, &buffer);
  std::printf("%.4f %.4f\n", volumeSeconds, kqbench::SecondsSince(start) - volumeSeconds);
  return 0;
}
