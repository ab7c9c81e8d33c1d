/* Linked into every program of the scratch build: writes down which instrumented places a program reaches, in a file
   that is mapped and not written, so that nothing is lost when the program is killed. Only where MUTATION_TRACE names
   a folder. The calls are made past the C library, in whose place some tests put functions of their own. */
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

extern char __executable_start[], etext[];
static char* reached; /* one byte for each byte of code */

__attribute__((visibility("hidden"))) void __sanitizer_cov_trace_pc(void) {
  if (reached != 0) reached[(char*)__builtin_return_address(0) - __executable_start] = 1;
}

__attribute__((constructor(101))) static void begin_trace(void) {
  const char* const folder = getenv("MUTATION_TRACE");
  char path[2 * PATH_MAX];
  const size_t size = (size_t)(etext - __executable_start);
  if (folder == 0 || strlen(folder) >= PATH_MAX) return;
  /* The file is named after the program, with other signs between the folders. */
  const size_t begin = strlen(folder) + 1;
  memcpy(path, folder, begin - 1);
  path[begin - 1] = '/';
  const long length = syscall(SYS_readlinkat, AT_FDCWD, "/proc/self/exe", path + begin, (long)(PATH_MAX - 1));
  if (length <= 0) return;
  path[begin + (size_t)length] = '\0';
  for (char* sign = path + begin; *sign != '\0'; ++sign) {
    if (*sign == '/') *sign = '!';
  }
  const int file = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (file < 0) return;
  if (syscall(SYS_ftruncate, file, (long)size) == 0) {
    void* const mapped = (void*)syscall(SYS_mmap, 0L, (long)size, (long)(PROT_READ | PROT_WRITE),
                                        (long)MAP_SHARED, (long)file, 0L);
    if ((long)mapped > 0 || (long)mapped < -4095) reached = mapped;
  }
  syscall(SYS_close, file);
}
