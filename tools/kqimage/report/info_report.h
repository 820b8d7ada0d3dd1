// What kqimage info prints: all that can be known of an image, without its password or with it.
#ifndef KQIMAGE_REPORT_INFO_REPORT_H
#define KQIMAGE_REPORT_INFO_REPORT_H

#include <kqimageapi.h>

#include <cstdint>
#include <optional>
#include <string>

#include "kqimage/report/chain_report.h"
#include "kqimage/report/origin_report.h"

namespace kqimage {

// What came of a password that was given to be tried.
enum class PasswordVerdict {
  kNotTried,   // none was given, or the image is plain
  kRight,      // a wrong one ends the command with a failure
  kUnchecked,  // the image's encryption can't tell
  kDoubtful,   // nor can it, but with this one the header makes no sense
};

struct InfoReport {
  std::string path;
  std::uint64_t fileSize = 0;
  ImageFileInfo2 info = {};
  PasswordVerdict password = PasswordVerdict::kNotTried;
  ChainReport chain = {};
  std::optional<OriginReport> origin = {};  // none without the password of an enciphered image
};

// Lines of a label and a value. Carried values that are zero are left out.
std::string TextReport(const InfoReport& report);

// One JSON object that has the same keys for every image; the manual page lists them.
std::string JsonReport(const InfoReport& report);

}  // namespace kqimage

#endif
