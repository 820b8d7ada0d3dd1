// The commands of kqimage. Each function adds one to the command line, with its own options; the
// command that is chosen puts its work into run.
#ifndef KQIMAGE_COMMANDS_COMMANDS_H
#define KQIMAGE_COMMANDS_COMMANDS_H

#include <functional>

namespace CLI {
class App;
}

namespace kqimage {

using Run = std::function<void()>;

void AddCreateCommand(CLI::App& app, Run& run);
void AddIncrementCommand(CLI::App& app, Run& run);
void AddRestoreCommand(CLI::App& app, Run& run);
void AddInfoCommand(CLI::App& app, Run& run);
void AddListCommand(CLI::App& app, Run& run);
void AddChainCommand(CLI::App& app, Run& run);
void AddRepairCommand(CLI::App& app, Run& run);
void AddVerifyCommand(CLI::App& app, Run& run);
void AddCompareCommand(CLI::App& app, Run& run);
void AddMountCommand(CLI::App& app, Run& run);
void AddCommitCommand(CLI::App& app, Run& run);

}  // namespace kqimage

#endif
