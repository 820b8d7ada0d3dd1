#define FUSE_USE_VERSION 312

#include "kqimage/mount/mount_session.h"

#include <fmt/format.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr int kSecond = 1000;  // milliseconds
constexpr int kWakeInterval = 20;
constexpr unsigned kMaxThreads = 16;

// What the mount library said last, which it would print otherwise.
std::string& LastWords() {
  static std::string words;
  return words;
}

void KeepWords(fuse_log_level, const char* format, va_list arguments) {
  std::array<char, 512> line = {};
  std::vsnprintf(line.data(), line.size(), format, arguments);
  LastWords() = line.data();
  while (LastWords().ends_with('\n')) LastWords().pop_back();
}

void KeepNoWords(fuse_log_level, const char*, va_list) {}

std::string AbsoluteFolder(const std::string& folder) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::canonical(folder, error);
  if (error) FailErrno(error.value(), "mount on", folder);
  if (!std::filesystem::is_directory(path, error)) {
    throw Failure(fmt::format("cannot mount on {}: it is no folder", Printable(folder)));
  }
  return path.string();
}

// Signals that a caller such as nohup has decided are not for us stay ignored.
sigset_t EndingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&set, signal);
  }
  return set;
}

// In an option, a comma ends the value.
std::string OptionValue(const std::string& text) {
  std::string value;
  for (const char c : text) {
    if (c == ',' || c == '\\') value += '\\';
    value += c;
  }
  return value;
}

void UnmountAsUser(const std::string& folder) {
  const std::array<const char*, 6> arguments = {"fusermount3", "-u",           "-q",
                                                "-z",          folder.c_str(), nullptr};
  pid_t pid = 0;
  if (posix_spawnp(&pid, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments.data()),
                   environ) != 0) {
    return;
  }
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Wakes a thread that waits in a system call.
constexpr int kWakeSignal = SIGUSR1;

void MakeWakeSignalHarmless() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigemptyset(&action.sa_mask);
  sigaction(kWakeSignal, &action, nullptr);
}

}  // namespace

MountSession::MountSession(VolumeFileSystem& system, const std::string& folder,
                           const std::string& source)
    : system_(system), folder_(AbsoluteFolder(folder)), signals_(EndingSignals()) {
  fuse_set_log_func(KeepWords);
  std::string options = "subtype=kqimage,default_permissions,fsname=" + OptionValue(source);
  if (!system.volume.IsWritable()) options += ",ro";
  if (system.isForAll) options += ",allow_other";
  std::array<char*, 3> words = {const_cast<char*>("kqimage"), const_cast<char*>("-o"),
                                options.data()};
  fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(words.size()), words.data());
  session_ = fuse_session_new(&arguments, &VolumeOperations(), sizeof(fuse_lowlevel_ops), &system);
  fuse_opt_free_args(&arguments);
  if (session_ == nullptr) throw Failure("cannot prepare the mount: " + Printable(LastWords()));

  // A reader of our output that has gone must not end the mount.
  signal(SIGPIPE, SIG_IGN);
  pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  try {
    ThrowIfInterrupted();
    if (fuse_session_mount(session_, folder_.c_str()) != 0) {
      throw Failure(
          fmt::format("cannot mount on {}: {}", Printable(folder), Printable(LastWords())));
    }
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    fuse_session_destroy(session_);
    throw;
  }
  fuse_set_log_func(KeepNoWords);
}

MountSession::~MountSession() {
  // A mount that has been taken away is none of ours any more: another one may be on the folder.
  if (!isDetached_) fuse_session_unmount(session_);
  fuse_session_destroy(session_);
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void MountSession::Detach() {
  isDetached_ = true;
  if (geteuid() == 0) {
    umount2(folder_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
  } else {
    UnmountAsUser(folder_);
  }
}

void MountSession::Serve() {
  const UniqueFd signals(signalfd(-1, &signals_, SFD_CLOEXEC));
  const UniqueFd done(eventfd(0, EFD_CLOEXEC));
  if (!signals || !done) FailErrno(errno, "wait for the end of the mount on", folder_);
  MakeWakeSignalHarmless();
  fuse_loop_config* config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_clone_fd(config, 1);
  fuse_loop_cfg_set_max_threads(config, kMaxThreads);
  std::thread loop([this, config, &done] {
    fuse_session_loop_mt(session_, config);
    eventfd_write(done.Get(), 1);
  });
  int received = 0;
  int timeout = -1;
  while (true) {
    std::array<pollfd, 2> inputs = {pollfd{done.Get(), POLLIN, 0},
                                    pollfd{signals.Get(), POLLIN, 0}};
    const int ready = poll(inputs.data(), inputs.size(), timeout);
    if (inputs[0].revents != 0) break;
    if (ready == 0 && received == 1) {
      system_.tell(fmt::format(
          "{} is unmounted, but a program still has the volume open: waiting for it; a second "
          "signal ends the mount at once",
          Printable(folder_)));
      timeout = -1;
    }
    if (ready > 0) {
      signalfd_siginfo signal = {};
      if (read(signals.Get(), &signal, sizeof signal) == sizeof signal) ++received;
      if (received == 1) {
        Detach();
        timeout = kSecond;
      }
    }
    if (received > 1) {
      // The loop looks at the session's end between its waits. A wake-up may come just before a
      // wait, so it is given again until it has been seen.
      fuse_session_exit(session_);
      pthread_kill(loop.native_handle(), kWakeSignal);
      timeout = kWakeInterval;
    }
  }
  loop.join();
  fuse_loop_cfg_destroy(config);
}

}  // namespace kqimage
