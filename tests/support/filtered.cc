// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors
//
// filtered FILTER COMMAND...: becomes the command, under the filter program in
// the file, which call_filter.py writes.

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char* argv[]) {
  if (argc < 3) {
    fprintf(stderr, "Usage: filtered FILTER COMMAND...\n");
    return 64;
  }
  static sock_filter instructions[BPF_MAXINSNS];
  FILE* const file = fopen(argv[1], "rbe");
  if (!file) {
    perror(argv[1]);
    return 66;
  }
  const size_t count =
      fread(instructions, sizeof(sock_filter), BPF_MAXINSNS, file);
  fclose(file);
  sock_fprog program = {static_cast<unsigned short>(count), instructions};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    perror("filtered");
    return 69;
  }
  execv(argv[2], argv + 2);
  perror(argv[2]);
  return 69;
}
