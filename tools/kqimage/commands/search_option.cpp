#include "kqimage/commands/search_option.h"

#include <CLI/CLI.hpp>

namespace kqimage {

CLI::Option* AddSearchOption(CLI::App& command, std::vector<std::string>& folders) {
  return command
      .add_option("--search", folders,
                  "A folder to search for the files that the image builds on, besides its own; "
                  "may be given again")
      ->type_size(1)
      ->allow_extra_args(false)
      ->type_name("DIR");
}

}  // namespace kqimage
