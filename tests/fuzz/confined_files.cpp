#include "fuzz/confined_files.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "fuzz/script.h"

namespace {

constexpr int kSkipped = 77;

int root = -1;
bool confines = false;
std::vector<std::string> created;

// Below the scratch directory, as the kernel sees it.
int open_below(const char* path, int flags) {
  open_how how = {};
  how.flags = static_cast<__u64>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) != 0 ? 0600 : 0;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, root, path, &how, sizeof how));
}

int flags_of(const char* mode) {
  switch (mode[0]) {
    case 'r':
      return O_RDONLY;
    case 'w':
      return O_WRONLY | O_CREAT | O_TRUNC;
    default:
      require(false, "files are opened for reading or for writing only");
      return 0;
  }
}

int confined_open(const char* path, int flags) {
  const int descriptor = open_below(path, flags);
  if (descriptor != -1 && (flags & O_CREAT) != 0) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    created.push_back(std::filesystem::read_symlink(link).string());
  }
  return descriptor;
}

void make_root() {
  std::string name = (std::filesystem::temp_directory_path() / "tftp-fuzz-XXXXXX").string();
  require(mkdtemp(name.data()) != nullptr, "a scratch directory can be made");
  root = open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int below = open_below(".", O_RDONLY | O_DIRECTORY);
  if (below == -1) {
    std::fprintf(stderr, "skipped: this machine confines no paths: %s\n", std::strerror(errno));
    rmdir(name.c_str());
    std::_Exit(kSkipped);
  }
  close(below);
}

using Open = FILE*(const char*, const char*);

FILE* opened(const char* name, const char* path, const char* mode) {
  if (confines) {
    const int descriptor = confined_open(path, flags_of(mode));
    return descriptor == -1 ? nullptr : fdopen(descriptor, mode);
  }
  return reinterpret_cast<Open*>(dlsym(RTLD_NEXT, name))(path, mode);
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  if (confines) return confined_open(path, flags);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

FILE* fopen(const char* path, const char* mode) {
  return opened("fopen", path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
  return opened("fopen64", path, mode);
}

int remove(const char* path) noexcept {
  require(confines && std::strchr(path, '/') == nullptr, "only a file in the working directory is removed");
  return unlinkat(root, path, 0);
}

}  // extern "C"

const std::string& ConfinedFiles::contents() {
  static const std::string result = [] {
    std::string bytes;
    for (unsigned i = 0; i < kFileSize; ++i) bytes.push_back(static_cast<char>(i * i / 7 + i / 256));
    return bytes;
  }();
  return result;
}

void ConfinedFiles::write(const char* name, const void* bytes, std::size_t size) {
  if (root == -1) make_root();
  const int descriptor = open_below(name, O_WRONLY | O_CREAT | O_TRUNC);
  require(::write(descriptor, bytes, size) == static_cast<ssize_t>(size),
          "the scratch directory takes files");
  close(descriptor);
}

ConfinedFiles::ConfinedFiles() {
  [[maybe_unused]] static const bool made = [] {
    write("file", contents().data(), contents().size());
    write("empty", "", 0);
    return mkdirat(root, "folder", 0700) == 0;
  }();
  confines = true;
}

ConfinedFiles::~ConfinedFiles() {
  confines = false;
  for (const std::string& path : created) unlink(path.c_str());
  created.clear();
}
