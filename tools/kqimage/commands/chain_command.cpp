// kqimage chain: the files that an image needs.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "kqimage/commands/commands.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/image/chain_finder.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/json_path.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage chain /backup/data-i003.twi
  kqimage chain --search /mnt/old-backups /backup/data-i003.twi
  kqimage chain --null /backup/data-i003.twi | xargs -0 cp -t /elsewhere

Prints the files from the full image to IMAGE, one in each line, the parts of a split image among
them. All of them are needed to restore IMAGE.)";

struct ChainOptions {
  std::string image;
  std::vector<std::string> folders;
  bool json = false;
  bool null = false;
};

// A line for each file: as it is for programs, safe for a terminal.
void PrintLines(const Chain& chain) {
  const bool isTerminal = isatty(STDOUT_FILENO) != 0;
  for (const ImageFile& file : chain) {
    if (!isTerminal && file.path.find('\n') != std::string::npos) {
      throw Failure(fmt::format("the name {} has a line end in it: --null or --json can print it",
                                Printable(file.path)));
    }
  }
  for (const ImageFile& file : chain) {
    fmt::print("{}\n", isTerminal ? Printable(file.path) : file.path);
  }
}

void PrintChain(const ChainOptions& options) {
  const Chain chain = FindChain(options.image, options.folders);
  if (options.null) {
    for (const ImageFile& file : chain) fmt::print("{}{}", file.path, '\0');
  } else if (options.json) {
    std::vector<std::string> paths;
    for (const ImageFile& file : chain) paths.push_back(file.path);
    nlohmann::ordered_json json;
    json["chain"] = JsonPaths(paths);
    fmt::print("{}\n", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    PrintLines(chain);
  }
}

}  // namespace

void AddChainCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ChainOptions>();
  CLI::App* command = app.add_subcommand("chain", "Print the files that an image needs");
  command->add_option("IMAGE", options->image, "The image")->required()->type_name("");
  AddSearchOption(*command, options->folders);
  CLI::Option* null =
      command->add_flag("-0,--null", options->null, "End each name with a NUL, not a line end");
  command->add_flag("--json", options->json, "Print one JSON object")->excludes(null);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { PrintChain(*options); }; });
}

}  // namespace kqimage
