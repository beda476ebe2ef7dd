#include "fiber.h"

#include <stdlib.h>

// Saves the registers that a call preserves and the stack pointer, and continues at another stack pointer. In assembler:
// swapcontext asks the kernel for the signal mask, which costs a hundred times as much.
extern "C" void explore_switch_stack(void **save, void *load);
asm(R"(
.text
.globl explore_switch_stack
.type explore_switch_stack, @function
explore_switch_stack:
  pushq %rbp
  pushq %rbx
  pushq %r12
  pushq %r13
  pushq %r14
  pushq %r15
  movq %rsp, (%rdi)
  movq %rsi, %rsp
  popq %r15
  popq %r14
  popq %r13
  popq %r12
  popq %rbx
  popq %rbp
  ret
.globl explore_enter_fiber
.type explore_enter_fiber, @function
explore_enter_fiber:
  movq %r12, %rdi
  callq *%r13
  hlt
.section .note.GNU-stack,"",@progbits
.text
)");
extern "C" void explore_enter_fiber();

void fiber_t::enter(fiber_t *fiber) {
  fiber->body_(fiber->argument_);
  fiber->has_ended_ = true;
  fiber->yield();
  abort();
}

void fiber_t::prepare(body_t body, void *argument) {
  if (stack_ == nullptr) stack_ = std::make_unique_for_overwrite<char[]>(STACK_BYTES);
  body_ = body;
  argument_ = argument;
  has_ended_ = false;
  // The frame that explore_switch_stack loads: r15, r14, r13, r12, rbx, rbp, return address. The stack is then empty.
  const uintptr_t top = (reinterpret_cast<uintptr_t>(stack_.get()) + STACK_BYTES) & ~uintptr_t{15};
  void **const frame = reinterpret_cast<void **>(top) - 7;
  frame[2] = reinterpret_cast<void *>(&fiber_t::enter);
  frame[3] = this;
  frame[6] = reinterpret_cast<void *>(&explore_enter_fiber);
  stack_pointer_ = frame;
}

void fiber_t::resume() {
  explore_switch_stack(&resumer_, stack_pointer_);
}

void fiber_t::yield() {
  explore_switch_stack(&stack_pointer_, resumer_);
}
