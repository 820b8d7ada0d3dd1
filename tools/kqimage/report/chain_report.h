// What kqimage info tells of an image's place in its family: the files that it needs, the name that
// the next increment gets, and the name of the family's key file.
#ifndef KQIMAGE_REPORT_CHAIN_REPORT_H
#define KQIMAGE_REPORT_CHAIN_REPORT_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kqimage {

struct ChainReport {
  std::vector<std::string> files;  // from the full image to the image; empty if one is missing
  std::string problem;             // what is missing
  std::optional<std::string> nextImage;
  std::optional<std::string> keyFile;
};

// Looks in the image's folder and in the given ones. What is missing is no failure.
ChainReport ReportChain(const std::string& image, const std::vector<std::string>& folders);

// Labels and values. The key file is left out of those of a plain image, which needs none.
std::vector<std::pair<std::string, std::string>> ChainLines(const ChainReport& report,
                                                            bool isEnciphered);

void AddChain(nlohmann::ordered_json& object, const ChainReport& report);

}  // namespace kqimage

#endif
