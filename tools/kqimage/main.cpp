// kqimage: makes, reads and restores backup images of volumes.
//
// Exit status: 0 done, 1 failed or interrupted, 2 the command line makes no sense, 3 what was
// looked at is damaged or different.

#include <fmt/format.h>
#include <malloc.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <new>

#include "kqimage/commands/commands.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr char kExamples[] = R"(Examples:
  kqimage create /dev/sdb1 /backup/data.twf        a full image
  kqimage increment /dev/sdb1 /backup/data.twf     what has changed since
  kqimage info /backup/data-i001.twi               what an image is
  kqimage list /backup                             the families of images in a folder
  kqimage restore /backup/data-i001.twi --to disk.img
  kqimage mount /backup/data-i001.twi /mnt/image   the volume as a file

kqimage COMMAND --help tells more about each command.)";

// Chunks of 1 MiB come and go by the thousand, between small records that stay. From the heap, each
// record would keep the chunk's place in front of it from being given back: 340 MiB were seen for
// an increment that needs 70. A fixed threshold keeps chunks out of the heap, at no measurable
// cost.
void KeepChunksOutOfTheHeap() { mallopt(M_MMAP_THRESHOLD, 256 * 1024); }

int Fail(std::string_view message, int exitStatus) {
  fmt::print(stderr, "kqimage: {}\n", message);
  return exitStatus;
}

int RunCommand(const kqimage::Run& run) {
  try {
    kqimage::CatchInterrupts();
    int exitStatus = 0;
    try {
      run();
    } catch (const kqimage::Verdict& verdict) {
      exitStatus = verdict.exitStatus;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      return Fail("cannot write to standard output", kExitFailure);
    }
    return exitStatus;
  } catch (const kqimage::Interrupted&) {
    return Fail("interrupted; what was unfinished has been removed", kExitFailure);
  } catch (const kqimage::UsageFailure& failure) {
    return Fail(failure.what(), kExitUsage);
  } catch (const kqimage::Failure& failure) {
    return Fail(failure.what(), kExitFailure);
  } catch (const std::bad_alloc&) {
    return Fail("not enough memory", kExitFailure);
  } catch (const std::exception& exception) {
    return Fail(exception.what(), kExitFailure);
  }
}

}  // namespace

int main(int argc, char** argv) try {
  KeepChunksOutOfTheHeap();
  CLI::App app("Makes, reads and restores backup images of volumes", "kqimage");
  app.set_version_flag("--version", "kqimage " KQIMAGE_VERSION);
  app.require_subcommand(1);
  app.footer(kExamples);
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    std::string command = "kqimage";
    for (const CLI::App* used : failed->get_subcommands()) command += " " + used->get_name();
    return fmt::format("kqimage: {}\n{} --help tells how it is used.\n", error.what(), command);
  });

  kqimage::Run run;
  kqimage::AddCreateCommand(app, run);
  kqimage::AddIncrementCommand(app, run);
  kqimage::AddRestoreCommand(app, run);
  kqimage::AddInfoCommand(app, run);
  kqimage::AddListCommand(app, run);
  kqimage::AddChainCommand(app, run);
  kqimage::AddRepairCommand(app, run);
  kqimage::AddVerifyCommand(app, run);
  kqimage::AddCompareCommand(app, run);
  kqimage::AddMountCommand(app, run);
  kqimage::AddCommitCommand(app, run);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }
  return RunCommand(run);
} catch (const std::exception& exception) {
  return Fail(exception.what(), kExitFailure);
}
