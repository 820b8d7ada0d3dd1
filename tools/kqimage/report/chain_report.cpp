#include "kqimage/report/chain_report.h"

#include "kqimage/image/chain_finder.h"
#include "kqimage/system/next_name.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/json_path.h"
#include "kqimage/terminal/text.h"

namespace kqimage {

ChainReport ReportChain(const std::string& image, const std::vector<std::string>& folders) {
  ChainReport report;
  try {
    for (const ImageFile& file : FindChain(image, folders)) report.files.push_back(file.path);
  } catch (const Failure& failure) {
    report.problem = failure.what();
  }
  try {
    report.nextImage = NextIncrementPath(image);
  } catch (const UsageFailure&) {
    // The image's own name does not follow the convention.
  }
  report.keyFile = KeyFilePath(image);
  return report;
}

std::vector<std::pair<std::string, std::string>> ChainLines(const ChainReport& report,
                                                            bool isEnciphered) {
  std::vector<std::pair<std::string, std::string>> lines;
  for (const std::string& file : report.files) {
    lines.emplace_back(lines.empty() ? "Chain" : "", Printable(file));
  }
  if (report.files.empty()) lines.emplace_back("Chain", "BROKEN: " + report.problem);
  lines.emplace_back("Next increment", report.nextImage ? Printable(*report.nextImage)
                                                        : "no name follows from this one");
  if (isEnciphered) {
    lines.emplace_back("Key file", report.keyFile
                                       ? Printable(*report.keyFile)
                                       : "none: the image's name has no tag such as -b001");
  }
  return lines;
}

void AddChain(nlohmann::ordered_json& object, const ChainReport& report) {
  object["chain"] = nullptr;
  object["chainProblem"] = nullptr;
  if (report.files.empty()) {
    object["chainProblem"] = report.problem;
  } else {
    object["chain"] = JsonPaths(report.files);
  }
  object["nextImage"] = nullptr;
  if (report.nextImage) AddPath(object, "nextImage", *report.nextImage);
  object["keyFile"] = nullptr;
  if (report.keyFile) AddPath(object, "keyFile", *report.keyFile);
}

}  // namespace kqimage
