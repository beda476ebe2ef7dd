// Logical threads: stacks of their own, between which the explorer switches in a few instructions.
#ifndef TSLB_EXPLORE_FIBER_H
#define TSLB_EXPLORE_FIBER_H

#include <stddef.h>
#include <stdint.h>

#include <memory>

class fiber_t {
 public:
  using body_t = void (*)(void *argument);

  // Prepares a run of body(argument), which begins with the first resume(). An earlier run is abandoned: nothing on its
  // stack is destroyed.
  void prepare(body_t body, void *argument);
  // Runs until the fiber yields or its body returns. Called by the process's own stack.
  void resume();
  // Returns to the caller of resume(). Called by the fiber.
  void yield();
  bool has_ended() const { return has_ended_; }

 private:
  static constexpr size_t STACK_BYTES = 128 * 1024;

  static void enter(fiber_t *fiber);

  std::unique_ptr<char[]> stack_;
  void *stack_pointer_ = nullptr;
  void *resumer_ = nullptr;
  body_t body_ = nullptr;
  void *argument_ = nullptr;
  bool has_ended_ = true;
};

#endif
