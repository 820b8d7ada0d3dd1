// The option --search of the commands that look for the files an image builds on.
#ifndef KQIMAGE_COMMANDS_SEARCH_OPTION_H
#define KQIMAGE_COMMANDS_SEARCH_OPTION_H

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kqimage {

// Folders go to the list in the order of the command line.
CLI::Option* AddSearchOption(CLI::App& command, std::vector<std::string>& folders);

}  // namespace kqimage

#endif
