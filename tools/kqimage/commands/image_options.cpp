#include "kqimage/commands/image_options.h"

#include <fmt/format.h>
#include <kqimageapi.h>
#include <kqimageformat.h>

#include <CLI/CLI.hpp>
#include <iterator>
#include <map>

#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

const std::map<std::string, std::uint32_t>& CompressionNames() {
  static const std::map<std::string, std::uint32_t> names = {
      {"none", KQ_COMPRESSION_NONE},
      {"lzo", KQ_COMPRESSION_LZO},
      {"lzo-huffman", KQ_COMPRESSION_LZO_HUFFMAN},
      {"lzw", KQ_COMPRESSION_LZW},
      {"lzss", KQ_COMPRESSION_LZSS}};
  return names;
}

std::string CheckCompression(const std::string& name) {
  if (CompressionNames().contains(name)) return {};
  return fmt::format("\"{}\" is none of none, lzo, lzo-huffman, lzw, lzss", Printable(name));
}

// The library cuts a comment that doesn't fit and drops one that is not UTF-8. Better to say so
// before the work than to lose words.
std::string CheckComment(const std::string& comment) {
  constexpr std::size_t kMaxUnits = std::size(ImageFileInfo{}.comment) - 1;
  const auto units = Utf16Units(comment);
  if (!units) return "the text is not valid UTF-8";
  if (*units > kMaxUnits) {
    return fmt::format("the text has {} characters, {} more than an image can show", *units,
                       *units - kMaxUnits);
  }
  return {};
}

}  // namespace

ImageOutputOptions ImageOptions::Output() const {
  return {.existing = force ? OutputFile::Existing::kReplace : OutputFile::Existing::kRefuse,
          .withSum = withSum,
          .quiet = quiet};
}

void AddCommentOption(CLI::App& command, std::string& comment) {
  command.add_option("--comment", comment, "A text to keep in the image")
      ->check(CheckComment)
      ->type_name("TEXT");
}

void AddForceOption(CLI::App& command, bool& force) {
  command.add_flag("--force", force, "Replace a file that has the new image's name");
}

void AddNoSumOption(CLI::App& command, bool& withSum) {
  command.add_flag("!--no-sha256", withSum,
                   "Write no NAME.sha256 beside the image, the line that sha256sum -c reads and "
                   "verify compares the file with");
}

void AddQuietOption(CLI::App& command, bool& quiet) {
  command.add_flag("-q,--quiet", quiet, "Print nothing but errors");
}

void AddImageOptions(CLI::App& command, ImageOptions& options, const std::string& defaultText) {
  command
      .add_option_function<std::string>(
          "--compress",
          [&options](const std::string& name) {
            options.compression = CompressionNames().at(name);
          },
          "none, lzo or lzo-huffman; " + defaultText +
              ". For other readers: lzw or lzss, which this program can't read back, neither to "
              "restore nor to make an increment")
      ->check(CheckCompression)
      ->type_name("TYPE");
  AddCommentOption(command, options.comment);
  AddForceOption(command, options.force);
  AddNoSumOption(command, options.withSum);
  AddQuietOption(command, options.quiet);
}

}  // namespace kqimage
