// kqimage commit: makes an increment of a sparse file that a mount has kept.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>

#include "kqimage/commands/chain_argument.h"
#include "kqimage/commands/commands.h"
#include "kqimage/commands/image_options.h"
#include "kqimage/commands/search_option.h"
#include "kqimage/image/chain_reader.h"
#include "kqimage/image/header_template.h"
#include "kqimage/mount/sparse_commit.h"
#include "kqimage/mount/sparse_lock.h"
#include "kqimage/password/password_options.h"
#include "kqimage/system/file_identity.h"
#include "kqimage/system/next_name.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr char kExamples[] = R"(Examples:
  kqimage commit /backup/data-i003-m001.sparse --parent /backup/data-i003.twi
  kqimage commit /fast/changes --parent /backup/data-i003.twi /backup/repaired.twi

SPARSE is what "mount --writable --on-unmount keep" has left, and IMAGE the image that was mounted: a
sparse file does not know it. SPARSE is not changed, and can be removed when the command has succeeded.)";

struct CommitOptions {
  std::string sparse;
  std::string parent;
  std::string out;
  std::vector<std::string> folders;
  PasswordOptions password;
  ImageOptions common;  // but for the compression, which is the parent's
};

void RefuseOwnInput(const std::string& out, const std::string& sparse, const Chain& chain) {
  const auto identity = IdentityOf(out);
  if (!identity) return;
  bool isInput = identity == IdentityOf(sparse);
  for (const ImageFile& file : chain) isInput = isInput || identity == IdentityOf(file.path);
  if (isInput) {
    throw Failure(fmt::format("{} is what the new image is to be made of", Printable(out)));
  }
}

std::string OutPath(const CommitOptions& options, const Chain& chain) {
  std::string out = options.out.empty() ? NextMountPath(NewestImage(chain).path) : options.out;
  if (!HasExtension(out, ".twi")) {
    throw UsageFailure(fmt::format("{}: the name of an increment ends in .twi", Printable(out)));
  }
  return out;
}

void Commit(const CommitOptions& options) {
  const Chain chain = ResolveChain({options.parent}, options.folders);
  const std::string out = OutPath(options, chain);
  RefuseUnreadable(chain);
  RefuseOwnInput(out, options.sparse, chain);
  CheckCommentFits(MakeIncrementTemplate(chain.back(), chain.back().info.compressionType),
                   options.common.comment);
  const SparseLock lock(options.sparse);
  Password password;
  ObtainChainPassword(options.password, chain, password);
  const std::uint64_t stored = CommitSparse({.sparse = options.sparse,
                                             .out = out,
                                             .output = options.common.Output(),
                                             .comment = options.common.comment},
                                            chain, password.CString());
  if (options.common.quiet) return;
  if (stored == 0) {
    fmt::print("{} holds nothing: no image made\n", Printable(options.sparse));
    return;
  }
  fmt::print("{}: increment of {} with the changes in {}, {} stored in {}\n", Printable(out),
             Printable(options.parent), Printable(options.sparse), SizeText(stored),
             SizeText(std::filesystem::file_size(out)));
}

}  // namespace

void AddCommitCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CommitOptions>();
  CLI::App* command =
      app.add_subcommand("commit", "Make an increment of what a mount's sparse file holds");
  command->add_option("SPARSE", options->sparse, "The sparse file")->required()->type_name("");
  command
      ->add_option("OUT", options->out,
                   "The new image, NAME.twi; without it the next free name NAME-mNNN.twi beside "
                   "the parent")
      ->type_name("");
  command->add_option("--parent", options->parent, "The image that was mounted")
      ->required()
      ->type_name("IMAGE");
  AddSearchOption(*command, options->folders);
  AddPasswordOptions(*command, options->password);
  AddCommentOption(*command, options->common.comment);
  AddForceOption(*command, options->common.force);
  AddNoSumOption(*command, options->common.withSum);
  AddQuietOption(*command, options->common.quiet);
  command->footer(kExamples);
  command->callback([options, &run] { run = [options] { Commit(*options); }; });
}

}  // namespace kqimage
