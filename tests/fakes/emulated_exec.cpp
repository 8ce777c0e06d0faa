// SPDX-License-Identifier: Apache-2.0

// Preloaded into tests that run under emulation. When such a test starts an arm64 program, this library
// starts it under the emulator, because the machine itself cannot run it.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

// Nothing here uses the heap: this also runs between fork and exec.
constexpr std::size_t kMaxTexts = 1024;
constexpr const char* kEmulator[] = {EMULATOR};
constexpr char kFirstProcessOnly[] = "QEMU_SET_ENV=";

bool NeedsEmulator(const char* program) {
  Elf64_Ehdr header{};
  const int file = open(program, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool whole = read(file, &header, sizeof header) == static_cast<ssize_t>(sizeof header);
  close(file);
  return whole && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_machine == EM_AARCH64;
}

/// A null-terminated list of texts.
class List {
 public:
  void Add(const char* text) {
    if (count_ + 1 < kMaxTexts) texts_[count_++] = const_cast<char*>(text);
  }
  char* const* Texts() const { return texts_; }

 private:
  char* texts_[kMaxTexts] = {};
  std::size_t count_ = 0;
};

/// The program, arguments and environment that are started instead.
struct Start {
  Start(const char* path, char* const* arguments, char* const* environment) : program(path) {
    if (NeedsEmulator(path)) {
      program = kEmulator[0];
      for (const char* text : kEmulator) argv.Add(text);
      argv.Add(path);
      if (*arguments != nullptr) ++arguments;
    }
    for (; *arguments != nullptr; ++arguments) argv.Add(*arguments);
    // With this variable the emulator would preload this library into every process, instead of the library
    // that a test has chosen.
    for (; *environment != nullptr; ++environment) {
      if (std::strncmp(*environment, kFirstProcessOnly, sizeof kFirstProcessOnly - 1) != 0)
        envp.Add(*environment);
    }
  }

  const char* program;
  List argv;
  List envp;
};

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int execve(const char* program, char* const arguments[],
                                                             char* const environment[]) noexcept {
  const Start start(program, arguments, environment);
  return Next<decltype(execve)>("execve")(start.program, start.argv.Texts(), start.envp.Texts());
}

extern "C" __attribute__((visibility("default"))) int posix_spawn(pid_t* child, const char* program,
                                                                  const posix_spawn_file_actions_t* files,
                                                                  const posix_spawnattr_t* attributes,
                                                                  char* const arguments[],
                                                                  char* const environment[]) {
  const Start start(program, arguments, environment);
  return Next<decltype(posix_spawn)>("posix_spawn")(child, start.program, files, attributes,
                                                    start.argv.Texts(), start.envp.Texts());
}
