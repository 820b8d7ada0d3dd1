// kqimage mount: shows the volume of a chain as a file.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>

#include "kqimage/commands/chain_argument.h"
#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/image/header_template.h"
#include "kqimage/mount/background.h"
#include "kqimage/mount/mount_session.h"
#include "kqimage/mount/sparse_commit.h"
#include "kqimage/mount/sparse_file.h"
#include "kqimage/password/password_options.h"
#include "kqimage/system/next_name.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage mount /backup/data-i003.twi /mnt/image
  kqimage mount --writable /backup/data-i003.twi /mnt/image
  kqimage mount --writable --foreground --on-unmount keep --sparse /fast/changes \
    /backup/data-i003.twi /mnt/image
  fusermount3 -u /mnt/image

The volume is the file MOUNTPOINT/volume. One FILE alone is the image to mount, and those it builds
on are found in its folder and those of --search. Several FILEs must be the whole chain, in any order.

The images are never changed. With --writable, what is written goes to a sparse file, and at the
unmount (umount, fusermount3 -u, or SIGINT, SIGTERM or SIGHUP to this process) becomes a new increment.
The command returns when the volume is mounted; a --writable mount tells what came of the changes in
a log file beside the sparse file, a moment after the unmount. A script that has to wait for it uses
--foreground: then the command ends with the mount, and its exit status tells whether all went well.)";

enum class OnUnmount { kConvert, kKeep, kDiscard };

struct MountOptions {
  std::vector<std::string> files;  // and the folder to mount on
  std::string folder;
  std::vector<std::string> searched;
  bool isWritable = false;
  std::string sparse;
  OnUnmount onUnmount = OnUnmount::kConvert;
  std::string comment;
  bool withSum = true;
  PasswordOptions password;
  bool isForAll = false;
  bool isForeground = false;
  bool quiet = false;
};

std::string Absolute(const std::string& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error) FailErrno(error.value(), "find", path);
  return absolute.string();
}

// A volume that is written to, and what becomes of that.
class WritableMount {
 public:
  WritableMount(const MountOptions& options, const Chain& chain)
      : options_(options),
        chain_(chain),
        // Later the process may have another folder.
        sparse_(options.sparse.empty()
                    ? std::filesystem::path(NextMountPath(NewestImage(chain).path))
                          .replace_extension(".sparse")
                          .string()
                    : Absolute(options.sparse),
                options.sparse.empty() ? SparseFile::Use::kNew : SparseFile::Use::kNewOrKept) {}

  SparseFile& Sparse() { return sparse_; }
  std::string LogPath() const { return sparse_.Path() + ".log"; }

  std::string Plan() const {
    const std::string sparse = Printable(sparse_.Path());
    switch (options_.onUnmount) {
      case OnUnmount::kKeep:
        return fmt::format("changes go to {} and stay there", sparse);
      case OnUnmount::kDiscard:
        return fmt::format("changes go to {} and are discarded at the unmount", sparse);
      case OnUnmount::kConvert:
        break;
    }
    return fmt::format("changes go to {} and become an increment at the unmount", sparse);
  }

  // Tells what has been done with the changes. The volume is closed.
  std::string Finish(const char* password) {
    switch (options_.onUnmount) {
      case OnUnmount::kKeep:
        sparse_.Flush();
        return fmt::format(
            "the changes are kept in {}: mount --sparse goes on with them, commit "
            "makes an image of them",
            Printable(sparse_.Path()));
      case OnUnmount::kDiscard:
        sparse_.Remove();
        return fmt::format("the changes are discarded, {} is removed", Printable(sparse_.Path()));
      case OnUnmount::kConvert:
        break;
    }
    return Convert(password);
  }

 private:
  std::string Convert(const char* password) {
    sparse_.Flush();
    const std::string& newest = NewestImage(chain_).path;
    std::uint64_t stored = 0;
    std::string out;
    try {
      out = NextMountPath(newest);
      stored = CommitSparse({.sparse = sparse_.Path(),
                             .out = out,
                             .output = {.withSum = options_.withSum, .quiet = true},
                             .comment = options_.comment},
                            chain_, password);
    } catch (const Interrupted&) {
      throw Failure("interrupted: no image is made" + WhereTheyAre());
    } catch (const std::exception& failure) {
      throw Failure(failure.what() + WhereTheyAre());
    }
    sparse_.Remove();
    if (stored == 0) return "nothing was written: no image made";
    return fmt::format("{}: increment of {} with the changes, {} stored in {}", Printable(out),
                       Printable(newest), SizeText(stored),
                       SizeText(std::filesystem::file_size(out)));
  }

  std::string WhereTheyAre() const {
    return fmt::format("; the changes are kept in {}: commit tries again",
                       Printable(sparse_.Path()));
  }

  const MountOptions& options_;
  const Chain& chain_;
  SparseFile sparse_;
};

Chain AbsoluteChain(const MountOptions& options) {
  Chain chain = ResolveChain(options.files, options.searched);
  for (ImageFile& file : chain) file.path = Absolute(file.path);
  RefuseUnreadable(chain);
  const std::uint64_t size = chain.back().info.sourceSize;
  if (size == 0) {
    throw Failure(
        fmt::format("{} does not say how large its volume is", Printable(chain.back().path)));
  }
  constexpr std::uint64_t kMaxSize = std::uint64_t{1} << 62;
  if (size > kMaxSize) {
    throw Failure(
        fmt::format("the volume of {} is larger than a file can be", Printable(chain.back().path)));
  }
  return chain;
}

std::time_t ModificationTime(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

// To the terminal, or to the log.
void Tell(const std::string& message) {
  std::fputs(("kqimage: " + message + "\n").c_str(), stderr);
}

// Reports on standard output; if that has gone, nothing else may suffer from it.
void Report(const MountOptions& options, const std::string& line) {
  if (options.quiet && options.isForeground) return;
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

void ServeUntilUnmounted(const MountOptions& options, const Chain& chain, MountedVolume& volume,
                         WritableMount* writable) {
  VolumeFileSystem system = {.volume = volume,
                             .isForAll = options.isForAll,
                             .changed = ModificationTime(chain.back().path),
                             .tell = Tell};
  MountSession session(system, options.folder, NewestImage(chain).path);
  if (!options.quiet) {
    fmt::print("{}/volume: {} of {}, {}\n", Printable(options.folder), ExactSizeText(volume.Size()),
               Printable(NewestImage(chain).path),
               writable == nullptr ? "read-only" : writable->Plan());
    if (volume.TakesAnyPassword()) PrintPasswordDoubt();
    if (writable != nullptr && !options.isForeground) {
      fmt::print("What becomes of the changes will be told in {}\n",
                 Printable(writable->LogPath()));
    }
    if (std::fflush(stdout) != 0) throw Failure("cannot write to standard output");
  }
  if (!options.isForeground) {
    ContinueInBackground(writable == nullptr ? "/dev/null" : writable->LogPath());
  }
  if (writable != nullptr) writable->Sparse().Keep();
  session.Serve();
}

// Behind the fork, nobody is left to take what is thrown but the log.
void Mount(const MountOptions& options) {
  const Chain chain = AbsoluteChain(options);
  CheckCommentFits(MakeIncrementTemplate(chain.back(), chain.back().info.compressionType),
                   options.comment);
  Password password;
  ObtainChainPassword(options.password, chain, password);
  std::optional<WritableMount> writable;
  if (options.isWritable) writable.emplace(options, chain);
  MountedVolume volume(chain, password.CString(), writable ? writable->Sparse().TakeHandle() : 0);
  ServeUntilUnmounted(options, chain, volume, writable ? &*writable : nullptr);
  const KQStatus closed = volume.Close();
  if (!writable) return;
  if (closed.status != KQ_STATUS_SUCCESS && options.onUnmount != OnUnmount::kDiscard) {
    throw Failure(fmt::format("cannot complete the sparse file {}, and the changes are lost: {}",
                              Printable(writable->Sparse().Path()), StatusText(closed)));
  }
  Report(options, writable->Finish(password.CString()));
}

void CheckOptions(MountOptions& options) {
  options.folder = options.files.back();
  options.files.pop_back();
  if (!options.isWritable && !options.sparse.empty()) {
    throw UsageFailure("--sparse is for what is written: give --writable as well");
  }
}

}  // namespace

void AddMountCommand(CLI::App& app, Run& run) {
  static const std::map<std::string, OnUnmount> kActions = {{"convert", OnUnmount::kConvert},
                                                            {"keep", OnUnmount::kKeep},
                                                            {"discard", OnUnmount::kDiscard}};
  const auto options = std::make_shared<MountOptions>();
  CLI::App* command = app.add_subcommand("mount", "Show the volume of an image as a file");
  command
      ->add_option("FILE... MOUNTPOINT", options->files,
                   "The image, or all files of its chain, and the folder to mount on")
      ->required()
      ->expected(2, CLI::detail::expected_max_vector_size)
      ->type_name("");
  AddSearchOption(*command, options->searched);
  CLI::Option* writable =
      command->add_flag("--writable", options->isWritable, "Let the volume be written to");
  command
      ->add_option("--sparse", options->sparse,
                   "The file that takes what is written, new or kept by an earlier mount of the "
                   "same image; without it a new one beside the image")
      ->type_name("FILE");
  command
      ->add_option_function<std::string>(
          "--on-unmount",
          [options](const std::string& name) { options->onUnmount = kActions.at(name); },
          "What becomes of the changes: convert (the default) makes an increment of them, with the "
          "next free name NAME-mNNN.twi beside the image; keep leaves them in the sparse file; "
          "discard removes them")
      ->check(CLI::IsMember({"convert", "keep", "discard"}))
      ->needs(writable)
      ->type_name("ACTION");
  AddCommentOption(*command, options->comment);
  AddNoSumOption(*command, options->withSum);
  AddPasswordOptions(*command, options->password);
  command->add_flag("--allow-other", options->isForAll, "Let other users read the volume too");
  command->add_flag("--foreground", options->isForeground,
                    "Stay until the unmount, and tell what came of the changes on standard output");
  AddQuietOption(*command, options->quiet);
  command->footer(kExamples);
  command->callback([options, &run] {
    run = [options] {
      CheckOptions(*options);
      Mount(*options);
    };
  });
}

}  // namespace kqimage
