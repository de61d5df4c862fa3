// vorn_peak_memory COMMAND [ARG...]: runs the command and prints its peak resident size in KiB.
// A small parent of its own: a child forked from a bigger process (a Python script) would carry
// that process's resident size into its peak.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: vorn_peak_memory COMMAND [ARG...]\n", stderr);
    return 2;
  }
  const pid_t child = fork();
  if (child == 0) {
    execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (child < 0 || wait4(child, &status, 0, &usage) < 0) {
    std::perror("vorn_peak_memory");
    return 2;
  }
  std::printf("%ld\n", usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
