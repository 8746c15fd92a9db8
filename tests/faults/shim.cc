// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// Preloaded into a program, has one of its calls of library functions fail.
// The variable FAULTS_CONTROL names the control file. Calls count from main()
// on. Only those that the program itself makes of a library count; those for
// memory and for processing messages do wherever they are made.

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

#include "control.h"

#ifndef __x86_64__
#error "The code below is for x86-64."
#endif

// What can be made to fail, and what it returns then: each library's way of
// saying that memory has run out, or of saying nothing.
#define FUNCTIONS(F)                           \
  F(curl_easy_escape, 0)                       \
  F(curl_easy_init, 0)                         \
  F(curl_easy_setopt, 27)                      \
  F(curl_global_init_mem, 27)                  \
  F(curl_multi_add_handle, 3)                  \
  F(curl_multi_init, 0)                        \
  F(curl_multi_socket_action, 3)               \
  F(curl_slist_append, 0)                      \
  F(curl_url, 0)                               \
  F(curl_url_get, 7)                           \
  F(curl_url_set, 7)                           \
  F(sd_bus_add_match_async, -ENOMEM)           \
  F(sd_bus_add_object, -ENOMEM)                \
  F(sd_bus_add_object_manager, -ENOMEM)        \
  F(sd_bus_add_object_vtable, -ENOMEM)         \
  F(sd_bus_attach_event, -ENOMEM)              \
  F(sd_bus_call, -ENOMEM)                      \
  F(sd_bus_call_async, -ENOMEM)                \
  F(sd_bus_emit_object_added, -ENOMEM)         \
  F(sd_bus_emit_object_removed, -ENOMEM)       \
  F(sd_bus_get_events, -ENOTCONN)              \
  F(sd_bus_get_unique_name, -ENOMEM)           \
  F(sd_bus_message_append_basic, -ENOMEM)      \
  F(sd_bus_message_at_end, -ENOMEM)            \
  F(sd_bus_message_close_container, -ENOMEM)   \
  F(sd_bus_message_enter_container, -ENOMEM)   \
  F(sd_bus_message_exit_container, -ENOMEM)    \
  F(sd_bus_message_new_method_call, -ENOMEM)   \
  F(sd_bus_message_new_method_error, -ENOMEM)  \
  F(sd_bus_message_new_method_return, -ENOMEM) \
  F(sd_bus_message_open_container, -ENOMEM)    \
  F(sd_bus_message_peek_type, -ENOMEM)         \
  F(sd_bus_message_read_basic, -ENOMEM)        \
  F(sd_bus_message_skip, -ENOMEM)              \
  F(sd_bus_open_system, -ENOMEM)               \
  F(sd_bus_process, -ENOMEM)                   \
  F(sd_bus_request_name_async, -ENOMEM)        \
  F(sd_bus_send, -ENOBUFS)                     \
  F(sd_event_add_defer, -ENOMEM)               \
  F(sd_event_add_io, -ENOMEM)                  \
  F(sd_event_add_signal, -ENOMEM)              \
  F(sd_event_add_time, -ENOMEM)                \
  F(sd_event_new, -ENOMEM)                     \
  F(sd_event_run, -ENOMEM)                     \
  F(sd_notify, -ENOMEM)

namespace {

faults::Control* g_control;
bool g_in_main;
int (*g_main)(int, char**, char**);

// The real functions, in the order of the list.
constexpr const char* kNames[] = {
#define NAME(name, value) #name,
    FUNCTIONS(NAME)
#undef NAME
};
constexpr int64_t kValues[] = {
#define VALUE(name, value) value,
    FUNCTIONS(VALUE)
#undef VALUE
};
constexpr int64_t kCount = sizeof(kNames) / sizeof(kNames[0]);

// The place of each function in the list.
enum : int64_t {
#define INDEX(name, value) kIndex_##name,
  FUNCTIONS(INDEX)
#undef INDEX
};

// Memory comes behind the list.
enum : int64_t { kMalloc = kCount, kCalloc, kRealloc };

// Where the program and its libraries are. They come in the same order each
// time, but at another place.
struct Module {
  uintptr_t start, end;
};
Module g_modules[64];
int g_module_count;

int AddModule(dl_phdr_info* info, size_t, void*) {
  Module module{UINTPTR_MAX, 0};
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD) continue;
    const uintptr_t start = info->dlpi_addr + header.p_vaddr;
    module.start = std::min(module.start, start);
    module.end = std::max(module.end, start + header.p_memsz);
  }
  if (g_module_count < 64) g_modules[g_module_count++] = module;
  return 0;
}

// Places in the program are below, places in libraries above.
constexpr int64_t kLibraries = int64_t{1} << 40;

// A number for a place in the program that is the same in each run.
int64_t Place(const void* address) {
  const auto place = reinterpret_cast<uintptr_t>(address);
  for (int64_t i = 0; i < g_module_count; ++i) {
    if (place >= g_modules[i].start && place < g_modules[i].end) {
      return (i << 40) + static_cast<int64_t>(place - g_modules[i].start);
    }
  }
  // In a library that was loaded later.
  return (int64_t{64} << 40) + static_cast<int64_t>(place & 0xfff);
}

// Notes a call, and tells whether it is the one that fails.
bool Fails(int64_t number, const void* caller) {
  if (!g_in_main || !g_control->armed) return false;
  const int64_t place = Place(caller);
  // Libraries also call each other, and themselves. It is for the bus library
  // to process, though, when the loop tells it to.
  if (number < kCount && number != kIndex_sd_bus_process &&
      place >= kLibraries) {
    return false;
  }
  const int64_t index =
      __atomic_fetch_add(&g_control->records, 1, __ATOMIC_RELAXED);
  if (index < faults::kRecords) {
    faults::Record& record = g_control->record[index];
    record.number = number;
    record.arguments[0] = place;
  }
  if (g_control->mode != faults::kFail || g_control->number != number ||
      (g_control->second >= 0 && g_control->second != place)) {
    return false;
  }
  if (__atomic_add_fetch(&g_control->seen, 1, __ATOMIC_RELAXED) !=
      g_control->occurrence) {
    return false;
  }
  g_control->hit = 1;
  return true;
}

int Main(int argc, char* argv[], char* environment[]) {
  g_in_main = true;
  return g_main(argc, argv, environment);
}

}  // namespace

extern "C" {

void* g_real_functions[kCount];

// For the assembly below: 0 to go on, or an answer for Value().
bool FaultsFails(int64_t number, const void* caller) {
  return Fails(number, caller);
}
int64_t FaultsValue(int64_t number) { return kValues[number]; }

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) {
  if (Fails(kMalloc, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  if (Fails(kCalloc, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  if (Fails(kRealloc, __builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_realloc(memory, size);
}

int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv,
                      void (*init)(), void (*fini)(), void (*rtld_fini)(),
                      void* stack_end) {
  const char* path = getenv("FAULTS_CONTROL");
  g_control = path ? faults::MapControl(path) : nullptr;
  if (!g_control) abort();
  // The variable and the preloading are no business of the program.
  unsetenv("FAULTS_CONTROL");
  unsetenv("LD_PRELOAD");
  for (int64_t i = 0; i < kCount; ++i) {
    g_real_functions[i] = dlsym(RTLD_NEXT, kNames[i]);
  }
  dl_iterate_phdr(AddModule, nullptr);
  g_main = main;
  using Start = int (*)(int (*)(int, char**, char**), int, char**, void (*)(),
                        void (*)(), void (*)(), void*);
  const auto start =
      reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return start(Main, argc, argv, init, fini, rtld_fini, stack_end);
}

}  // extern "C"

// One for all signatures: keeps what may hold an argument, asks, and either
// goes on to the real function as if nothing had been or returns the value.
#define FUNCTION(name, value)                         \
  asm(".text\n"                                       \
      ".globl " #name                                 \
      "\n"                                            \
      ".type " #name ", @function\n" #name            \
      ":\n"                                           \
      "  push %rdi\n  push %rsi\n  push %rdx\n"       \
      "  push %rcx\n  push %r8\n  push %r9\n"         \
      "  push %rax\n"                                 \
      "  mov " #name                                  \
      "_number(%rip), %rdi\n"                         \
      "  mov 56(%rsp), %rsi\n"                        \
      "  call FaultsFails@PLT\n"                      \
      "  test %al, %al\n"                             \
      "  jne 1f\n"                                    \
      "  pop %rax\n"                                  \
      "  pop %r9\n  pop %r8\n  pop %rcx\n"            \
      "  pop %rdx\n  pop %rsi\n  pop %rdi\n"          \
      "  mov " #name                                  \
      "_number(%rip), %r11\n"                         \
      "  mov g_real_functions@GOTPCREL(%rip), %r10\n" \
      "  jmp *(%r10,%r11,8)\n"                        \
      "1:\n"                                          \
      "  add $56, %rsp\n"                             \
      "  mov " #name                                  \
      "_number(%rip), %rdi\n"                         \
      "  sub $8, %rsp\n"                              \
      "  call FaultsValue@PLT\n"                      \
      "  add $8, %rsp\n"                              \
      "  ret\n"                                       \
      ".size " #name ", .-" #name "\n");
FUNCTIONS(FUNCTION)

extern "C" {
#define NUMBER(name, value)            \
  __attribute__((visibility("hidden"), \
                 used)) extern const int64_t name##_number = kIndex_##name;
FUNCTIONS(NUMBER)
}
