// What an image's header keeps of the volume's origin, as kqimage info tells it.
#ifndef KQIMAGE_REPORT_ORIGIN_REPORT_H
#define KQIMAGE_REPORT_ORIGIN_REPORT_H

#include <kqimageapi.h>

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kqimage/volume/disk_tables.h"

namespace kqimage {

struct OriginReport {
  // Of the library. Its texts stand below; its pointers mean nothing.
  ProtectedInfoEx info = {};
  std::string label;       // FirstText
  std::string fileSystem;  // SecondText
  std::string disk;        // ThirdText
  std::string list;
  // Of a disk with an MBR, from the copy of its tables. The library's own answer for a logical
  // partition counts in other units.
  std::optional<DiskPartition> partition = {};
};

// Reads it with the image's password; null for a plain image. Nothing if the header has no sectors
// for it.
std::optional<OriginReport> ReadOrigin(const std::string& path, const char* password);

// Labels and values, for lines of text.
using LabelledLines = std::vector<std::pair<std::string, std::string>>;
LabelledLines OriginLines(const OriginReport& report);

nlohmann::ordered_json OriginJson(const OriginReport& report);

}  // namespace kqimage

#endif
