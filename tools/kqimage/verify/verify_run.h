// Goes through the chunks of image files on all processors.
#ifndef KQIMAGE_VERIFY_VERIFY_RUN_H
#define KQIMAGE_VERIFY_VERIFY_RUN_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kqimage/verify/verify_chunk.h"
#include "kqimage/verify/verify_layout.h"

namespace kqimage {

enum class SumVerdict : std::uint8_t {
  kNotChecked,  // not asked for
  kAbsent,      // there is no .sha256 file
  kNoLine,      // it says nothing of this file
  kGood,
  kWrong,
};

// What has been found of one file besides what its layout tells.
struct FileFindings {
  std::vector<Damage> damages;               // the first of them, in the order of the chunks
  std::uint64_t damageCount = 0;             // of all
  std::map<std::uint32_t, bool> lostChunks;  // true: its head still tells its runs
  std::vector<VolumeRange> lostRanges;       // of what no chunk of the index holds any more
  std::uint64_t checkedChunks = 0;
  std::uint64_t streams = 0;  // of them, those with a compressed stream
  std::uint64_t badStreams = 0;
  SumVerdict sum = SumVerdict::kNotChecked;
};

// One file to go through. The layout and key must outlive the run.
struct FileTask {
  const ImageLayout* layout = nullptr;
  const DataKey* key = nullptr;  // null if it is not enciphered
};

struct VerifyScope {
  std::optional<double> sample;  // the share of the chunks, above 0 and at most 1
  bool withSums = true;          // compare with the .sha256 files
};

// The chunks of a sample of so many: at least one, evenly spread, the same in every run.
std::vector<std::uint32_t> SampledChunks(std::uint32_t count, double share);

// Bytes that the run will report as done in the end.
std::uint64_t VerifyTotal(const std::vector<FileTask>& tasks, const VerifyScope& scope);

// Called on this thread a few times a second; what it throws ends the run.
using VerifyProgress = std::function<void(std::uint64_t done)>;

// The findings of each file. A file that no reader opens is not gone through, but for its sum.
// Throws a Failure if a .sha256 file can't be read.
std::vector<FileFindings> VerifyFiles(const std::vector<FileTask>& tasks, const VerifyScope& scope,
                                      const VerifyProgress& progress);

}  // namespace kqimage

#endif
