#include "io_faults.h"

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace tslb_durable {
namespace {

constexpr int LAST_ERROR = 133;

struct Faults {
  std::atomic<uint64_t> n_steps{0};
  std::atomic<uint64_t> crash_at{0};  // 0: never
  std::atomic<uint64_t> fail_at{0};
  std::atomic<int> error{0};

  Faults();
};

uint64_t number_in(std::string_view text) {
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

int error_of(std::string_view name) {
  for (int error = 1; error <= LAST_ERROR; ++error) {
    const char *const known = strerrorname_np(error);
    if (known != nullptr && name == known) return error;
  }
  return static_cast<int>(number_in(name));
}

Faults::Faults() {
  if (const char *const at = std::getenv("TSLB_DURABLE_CRASH_AT")) crash_at = number_in(at);
  const char *const failing = std::getenv("TSLB_DURABLE_FAIL_AT");
  const char *const colon = failing != nullptr ? std::strchr(failing, ':') : nullptr;
  if (colon == nullptr) return;
  error = error_of(colon + 1);
  fail_at = error != 0 ? number_in({failing, static_cast<size_t>(colon - failing)}) : 0;
}

Faults &faults() {
  static Faults all;
  return all;
}

}  // namespace

uint64_t io_operations() {
  return faults().n_steps;
}

void crash_at_io(uint64_t k) {
  faults().crash_at = k != 0 ? faults().n_steps + k : 0;
}

void fail_at_io(uint64_t k, int error) {
  faults().error = error;
  faults().fail_at = k != 0 ? faults().n_steps + k : 0;
}

int take_io_step() {
  Faults &all = faults();
  const uint64_t step = ++all.n_steps;
  if (step == all.crash_at) kill(getpid(), SIGKILL);
  return step == all.fail_at ? all.error.load() : 0;
}

bool io_faults_are_armed() {
  return faults().crash_at != 0 || faults().fail_at != 0;
}

}  // namespace tslb_durable
