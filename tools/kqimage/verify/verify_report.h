// What kqimage verify prints.
#ifndef KQIMAGE_VERIFY_VERIFY_REPORT_H
#define KQIMAGE_VERIFY_VERIFY_REPORT_H

#include <optional>
#include <string>
#include <vector>

#include "kqimage/verify/verify_losses.h"
#include "kqimage/verify/verify_members.h"
#include "kqimage/verify/verify_run.h"

namespace kqimage {

struct VerifyReport {
  const LayoutStore* store = nullptr;
  std::vector<std::size_t> files;      // in the store: all that were gone through, each once
  std::vector<FileFindings> findings;  // of the store's files
  std::vector<VerifiedChain> chains;
  std::vector<std::vector<ImageLoss>> losses;  // of each chain
  std::vector<std::string> dependents;         // images that build on a damaged one
  std::optional<double> sample;
  double seconds = 0;

  bool IsFileSound(std::size_t file) const;
  bool IsSound() const;
};

std::string TextReport(const VerifyReport& report);

// One JSON object; the manual page lists its keys.
std::string JsonReport(const VerifyReport& report);

}  // namespace kqimage

#endif
