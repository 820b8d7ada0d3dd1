// The options that the commands which make images share.
#ifndef KQIMAGE_COMMANDS_IMAGE_OPTIONS_H
#define KQIMAGE_COMMANDS_IMAGE_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

#include "kqimage/image/image_output.h"

namespace CLI {
class App;
}

namespace kqimage {

struct ImageOptions {
  std::optional<std::uint32_t> compression;
  std::string comment;
  bool force = false;
  bool withSum = true;  // write NAME.sha256 beside the image
  bool quiet = false;

  ImageOutputOptions Output() const;
};

// Adds --compress, --comment, --force, --no-sha256 and --quiet. defaultText tells what holds
// without --compress.
void AddImageOptions(CLI::App& command, ImageOptions& options, const std::string& defaultText);

void AddCommentOption(CLI::App& command, std::string& comment);

void AddForceOption(CLI::App& command, bool& force);

void AddNoSumOption(CLI::App& command, bool& withSum);

void AddQuietOption(CLI::App& command, bool& quiet);

}  // namespace kqimage

#endif
