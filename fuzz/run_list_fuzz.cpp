// Any bytes as a run list. What is read is written again and then reads the same.
#include <vector>

#include "codec/run_list.h"
#include "fuzz/fuzz_input.h"

namespace {

std::vector<kq::Run> ReadAll(const std::uint8_t* list, std::size_t size) {
  std::vector<kq::Run> runs;
  kq::RunReader reader{.Cursor = list, .End = list + size};
  kq::Run run;
  while (kq::NextRun(&reader, &run.offset, &run.length)) runs.push_back(run);
  FUZZ_CHECK(reader.Cursor >= list && reader.Cursor <= reader.End);
  return runs;
}

// The format has no entry for some pairs of runs; what the writer makes of them ends the list.
bool CanBeRead(const kq::Run& last, const kq::Run& next) {
  const std::uint64_t step = next.offset - last.offset;
  if (last.length == 0) return (step & 0xFF) != kq::kRunListEnd;
  return next.length != last.length || (step != 0 && ~step != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const kqfuzz::Bytes list(data, data + size);
  const std::vector<kq::Run> runs = ReadAll(list.data(), list.size());
  if (runs.empty()) return 0;

  kqfuzz::Bytes again(runs.size() * kq::kLongestRunEntry + 1, kq::kRunListEnd);
  kq::RunWriter writer{};
  writer.Cursor = again.data();
  writer.End = again.data() + again.size();
  for (const kq::Run& run : runs) {
    if (!CanBeRead(writer.LastRun, run)) return 0;
    FUZZ_CHECK(kq::EnterRun(&writer, run));
  }
  FUZZ_CHECK(ReadAll(again.data(), again.size()) == runs);
  return 0;
}
