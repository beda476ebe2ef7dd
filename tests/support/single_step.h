// Interrupts the library at every instruction. Runs an operation in single steps and runs other work before one of its
// instructions: the first one in the first run, the second one in the next run, and so on. Every state that a preempted
// thread could leave is tested.
#ifndef TSLB_TESTS_SINGLE_STEP_H
#define TSLB_TESTS_SINGLE_STEP_H

#include <link.h>
#include <signal.h>
#include <string.h>
#include <ucontext.h>

#include <functional>

#include <tslb/dynamic_array.h>

class single_step_t {
 public:
  // Runs `operation` and, within it, `work` before the n-th instruction of the library (from 1) at which the lock of
  // `array` is free. Returns false if the operation has fewer instructions.
  static bool run(DynArrHandle_t *array, size_t nth, const std::function<void()> &operation,
                  const std::function<void()> &work) {
    struct sigaction action = {}, before;
    action.sa_sigaction = on_trap;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &before);
    state() = {array, nth, &work, library_range(), false};
    raise(SIGTRAP);  // sets the trap flag
    operation();
    const bool reached = state().to_go == 0;
    raise(SIGTRAP);  // clears it
    sigaction(SIGTRAP, &before, nullptr);
    return reached;
  }

 private:
  struct range_t {
    uintptr_t begin, end;
  };
  struct state_t {
    DynArrHandle_t *array;
    size_t to_go;
    const std::function<void()> *work;
    range_t code;
    bool steps;
  };
  static state_t &state() {
    static state_t only;
    return only;
  }

  static range_t library_range() {
    range_t range = {};
    dl_iterate_phdr(
        [](dl_phdr_info *object, size_t, void *found) {
          if (strstr(object->dlpi_name, "libtslb.so") == nullptr) return 0;
          for (int i = 0; i < object->dlpi_phnum; ++i) {
            const ElfW(Phdr) &part = object->dlpi_phdr[i];
            if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
            const uintptr_t begin = object->dlpi_addr + part.p_vaddr;
            *static_cast<range_t *>(found) = {begin, begin + part.p_memsz};
          }
          return 1;
        },
        &range);
    return range;
  }

  static void on_trap(int, siginfo_t *info, void *context) {
    constexpr greg_t TRAP_FLAG = 0x100;
    greg_t *const registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    state_t &now = state();
    if (info->si_code == SI_TKILL) {
      now.steps = !now.steps;
      registers[REG_EFL] = now.steps ? registers[REG_EFL] | TRAP_FLAG : registers[REG_EFL] & ~TRAP_FLAG;
      return;
    }
    const uintptr_t at = static_cast<uintptr_t>(registers[REG_RIP]);
    if (at < now.code.begin || at >= now.code.end || now.to_go == 0 || now.array->spinlock != 0) return;
    if (--now.to_go != 0) return;
    (*now.work)();
    registers[REG_EFL] &= ~TRAP_FLAG;  // the rest runs at full speed
  }
};

#endif
