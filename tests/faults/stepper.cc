// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// Runs a program and has one of its system calls go wrong:
//
//   stepper CONTROL-FILE PROGRAM
//
// Only registers are looked at and changed, so the program may keep its memory
// to itself. If the order is armed before the start, calls count from the
// program's entry point on: what the dynamic loader does is not its doing.
// Ends as the program ends; 128 and the number for a signal.

#include <elf.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "control.h"

#ifndef __x86_64__
#error "The registers below are those of x86-64."
#endif

namespace {

using faults::Control;
using faults::Record;

constexpr int kSyscallStop = SIGTRAP | 0x80;
constexpr int kBreakpoint = 0xcc;

// A system call under way.
struct Call {
  int64_t record = -1;              // Index, or -1.
  bool replaced = false;            // It is not carried out.
  bool changed = false;             // It is carried out with other arguments.
  user_regs_struct registers = {};  // The registers before that.
};

[[noreturn]] void Die(const char* what) {
  perror(what);
  exit(70);
}

class Stepper {
 public:
  Stepper(Control* control, pid_t pid) : control_(control), pid_(pid) {
    control_->pid = pid;
  }

  // Returns how the program ended, as wait() tells it.
  int Run() {
    int status = 0;
    if (waitpid(pid_, &status, __WALL) != pid_) Die("waitpid");
    ptrace(PTRACE_SETOPTIONS, pid_, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC |
               PTRACE_O_EXITKILL);
    ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
    for (;;) {
      const pid_t tid = waitpid(-1, &status, __WALL);
      if (tid < 0) Die("waitpid");
      if (!WIFSTOPPED(status)) {
        calls_.erase(tid);
        if (tid == pid_) return status;
        continue;
      }
      // The tracee may have been killed meanwhile: then the next wait tells.
      ptrace(PTRACE_SYSCALL, tid, nullptr, Handle(tid, status));
    }
  }

 private:
  // Returns the signal that goes on to the program.
  long Handle(pid_t tid, int status) {
    const int signal_number = WSTOPSIG(status);
    const int event = status >> 16;
    if (event == PTRACE_EVENT_EXEC) {
      StopAtEntry();
      return 0;
    }
    if (event != 0) return 0;
    if (signal_number == kSyscallStop) {
      OnSyscall(tid);
      return 0;
    }
    if (signal_number == SIGTRAP && entry_ != 0) {
      LeaveEntry(tid);
      return 0;
    }
    // With this a new thread announces itself.
    if (signal_number == SIGSTOP) return 0;
    return signal_number;
  }

  void StopAtEntry() {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/auxv", pid_);
    FILE* file = fopen(path, "rb");
    if (!file) Die(path);
    Elf64_auxv_t entry;
    while (fread(&entry, sizeof(entry), 1, file) == 1) {
      if (entry.a_type == AT_ENTRY) entry_ = entry.a_un.a_val;
    }
    fclose(file);
    errno = 0;
    instruction_ = ptrace(PTRACE_PEEKTEXT, pid_, entry_, nullptr);
    if (errno != 0) Die("PTRACE_PEEKTEXT");
    ptrace(PTRACE_POKETEXT, pid_, entry_,
           (instruction_ & ~0xffL) | kBreakpoint);
  }

  void LeaveEntry(pid_t tid) {
    user_regs_struct registers;
    ptrace(PTRACE_GETREGS, tid, nullptr, &registers);
    registers.rip = entry_;
    ptrace(PTRACE_SETREGS, tid, nullptr, &registers);
    ptrace(PTRACE_POKETEXT, tid, entry_, instruction_);
    entry_ = 0;
    started_ = true;
  }

  void OnSyscall(pid_t tid) {
    __ptrace_syscall_info info;
    if (ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof(info), &info) < 0) return;
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      if (started_ && __atomic_load_n(&control_->armed, __ATOMIC_ACQUIRE)) {
        OnEntry(tid, info);
      }
      return;
    }
    const auto call = calls_.find(tid);
    if (call == calls_.end()) return;
    if (call->second.replaced) {
      info.exit.rval = control_->value;
      SetRegisters(tid, call->second.registers, info.exit.rval);
    } else if (call->second.changed) {
      // A program may count on finding its arguments where it had put them.
      SetRegisters(tid, call->second.registers, info.exit.rval);
    }
    if (call->second.record >= 0) {
      control_->record[call->second.record].result = info.exit.rval;
    }
    calls_.erase(call);
  }

  void OnEntry(pid_t tid, const __ptrace_syscall_info& info) {
    Call call;
    const auto number = static_cast<int64_t>(info.entry.nr);
    if (control_->records < faults::kRecords) {
      call.record = control_->records;
      Record& record = control_->record[call.record];
      record.number = number;
      for (int i = 0; i < 4; ++i) {
        record.arguments[i] = static_cast<int64_t>(info.entry.args[i]);
      }
      record.result = 0;
      __atomic_store_n(&control_->records, call.record + 1, __ATOMIC_RELEASE);
    }
    const bool matches =
        (control_->number < 0 || control_->number == number) &&
        (control_->second < 0 ||
         control_->second == static_cast<int64_t>(info.entry.args[1])) &&
        (control_->log < 0 ||
         (control_->log != 0) == (info.entry.args[0] == STDERR_FILENO));
    if (matches && ++control_->seen == control_->occurrence) {
      control_->hit = control_->mode != faults::kCount;
      if (control_->mode == faults::kKill) {
        kill(pid_, SIGKILL);
      } else if (control_->hit) {
        Change(tid, &call);
      }
    }
    calls_[tid] = call;
  }

  void Change(pid_t tid, Call* call) {
    if (ptrace(PTRACE_GETREGS, tid, nullptr, &call->registers) < 0) return;
    user_regs_struct registers = call->registers;
    switch (control_->mode) {
      case faults::kFail:
        call->replaced = true;
        registers.orig_rax = static_cast<unsigned long long>(-1);
        break;
      case faults::kShorten:
        call->changed = true;
        registers.rdx = static_cast<unsigned long long>(control_->value);
        break;
      case faults::kNoBreak:
        call->changed = true;
        registers.rdi = 0;
        break;
      default:
        break;
    }
    ptrace(PTRACE_SETREGS, tid, nullptr, &registers);
  }

  // Puts the arguments back, and the result in place.
  void SetRegisters(pid_t tid, const user_regs_struct& before, int64_t result) {
    user_regs_struct registers;
    if (ptrace(PTRACE_GETREGS, tid, nullptr, &registers) < 0) return;
    registers.rdi = before.rdi;
    registers.rdx = before.rdx;
    registers.rax = static_cast<unsigned long long>(result);
    ptrace(PTRACE_SETREGS, tid, nullptr, &registers);
  }

  Control* control_;
  pid_t pid_;
  unsigned long entry_ = 0;  // While the breakpoint is there.
  long instruction_ = 0;
  bool started_ = false;
  std::map<pid_t, Call> calls_;
};

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) {
    fprintf(stderr, "usage: stepper CONTROL-FILE PROGRAM\n");
    return 64;
  }
  Control* control = faults::MapControl(argv[1]);
  if (!control) Die(argv[1]);
  const pid_t pid = fork();
  if (pid < 0) Die("fork");
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    execl(argv[2], argv[2], nullptr);
    Die(argv[2]);
  }
  // The program goes when we are killed, and we go with the test.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGTERM, SIG_IGN);
  const int status = Stepper(control, pid).Run();
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
