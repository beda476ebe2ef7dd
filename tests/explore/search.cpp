#include "search.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <array>

namespace {

using mask_t = uint8_t;
mask_t bit(int thread) {
  return static_cast<mask_t>(1u << thread);
}
int lowest(mask_t mask) {
  return __builtin_ctz(mask);
}

// Moves the violation, if there is one, and the schedule from the machine.
void take_schedule(search_result_t *result) {
  result->has_violation = machine.has_violation();
  result->violation = machine.text();
  for (const event_t &event : machine.events()) {
    result->schedule.push_back(event.thread);
    result->n_preemptions += event.preempts ? 1 : 0;
  }
  machine.clear_violation();
}

// A point of the current schedule, before a step.
struct node_t {
  int n_threads;
  int chosen;
  int n_preemptions;  // before this step
  int last;           // thread of the step before, or -1
  mask_t enabled;
  mask_t asleep;   // on arrival: what these threads do next was explored from an equivalent point
  mask_t done;     // explored from here
  mask_t planned;  // to be explored from here
  op_t next[MAX_THREADS];
};

// The order of events that dependences cause: for each thread, the number of events up to its last event before this
// one.
using order_t = std::array<uint16_t, MAX_THREADS>;

class searcher_t final : public scheduler_t {
 public:
  searcher_t(const run_t &run, const search_options_t &options) : run_(run), options_(options) {}

  search_result_t search();
  int choose(const choice_t &choice) override;

 private:
  bool is_reduced() const { return options_.reduces && options_.bound == NO_BOUND; }
  mask_t sleepers_after(const node_t &node) const;
  mask_t within_bound(const node_t &node) const;
  bool advance();
  bool waited_at(size_t event, const event_t &loop) const;
  void plan_reversals();
  void plan_reversals_of(size_t event);
  void plan(size_t first, size_t second, const order_t &order_of_second);
  bool is_before(size_t earlier, const order_t &order) const { return order[events()[earlier].thread] > earlier; }
  static const std::vector<event_t> &events() { return machine.events(); }

  const run_t &run_;
  const search_options_t options_;
  std::vector<node_t> nodes_;
  std::vector<order_t> orders_;
  size_t depth_ = 0;  // steps of the current run
  size_t fresh_ = 0;  // first step that differs from the last run
};

// Threads that stay asleep: their next operation does not depend on the step.
mask_t searcher_t::sleepers_after(const node_t &node) const {
  const mask_t candidates = static_cast<mask_t>((node.asleep | node.done) & ~bit(node.chosen));
  const op_t &step = events().back().op;
  mask_t asleep = 0;
  for (int i = 0; i < node.n_threads; ++i)
    if ((candidates & bit(i)) != 0 && !are_dependent(node.next[i], step)) asleep |= bit(i);
  return asleep;
}

// Threads that can go on without more preemptions than allowed.
mask_t searcher_t::within_bound(const node_t &node) const {
  const bool could_go_on = node.last >= 0 && (node.enabled & bit(node.last)) != 0;
  if (options_.bound == NO_BOUND || !could_go_on || node.n_preemptions < options_.bound) return node.enabled;
  return bit(node.last);
}

int searcher_t::choose(const choice_t &choice) {
  // What the last step did is known now: a swap that failed did not write.
  if (depth_ > 0) nodes_[depth_ - 1].next[nodes_[depth_ - 1].chosen] = events().back().op;
  if (depth_ < nodes_.size()) {
    const node_t &node = nodes_[depth_++];
    if ((choice.enabled & bit(node.chosen)) == 0) {
      fputs("a schedule does not repeat itself: the program depends on more than the schedule\n", stderr);
      exit(2);
    }
    return node.chosen;
  }
  node_t node = {choice.n_threads, -1, 0, -1, choice.enabled, 0, 0, 0, {}};
  std::copy(choice.next, choice.next + choice.n_threads, node.next);
  if (depth_ > 0) {
    const node_t &before = nodes_.back();
    node.last = before.chosen;
    node.n_preemptions =
        before.n_preemptions +
        (before.last >= 0 && before.last != before.chosen && (before.enabled & bit(before.last)) != 0 ? 1 : 0);
    if (is_reduced()) node.asleep = sleepers_after(before);
    for (int i = 0; i < node.n_threads; ++i)
      if ((node.asleep & bit(i)) != 0) node.next[i] = before.next[i];
  }
  const mask_t possible = static_cast<mask_t>(within_bound(node) & ~node.asleep);
  if (possible == 0) return -1;
  // The thread that ran last goes on if it can: the first schedules have few switches.
  node.chosen = node.last >= 0 && (possible & bit(node.last)) != 0 ? node.last : lowest(possible);
  node.planned = is_reduced() ? bit(node.chosen) : possible;
  node.done = bit(node.chosen);
  nodes_.push_back(node);
  ++depth_;
  return node.chosen;
}

// Goes to the next schedule: the deepest point with a thread that was planned and not explored. Returns false at the end.
bool searcher_t::advance() {
  while (!nodes_.empty()) {
    node_t &node = nodes_.back();
    const mask_t left = static_cast<mask_t>(node.planned & ~node.done & ~node.asleep);
    if (left != 0) {
      node.chosen = lowest(left);
      node.done = static_cast<mask_t>(node.done | bit(node.chosen));
      fresh_ = nodes_.size() - 1;
      return true;
    }
    nodes_.pop_back();
  }
  return false;
}

// Makes sure that the reverse order of two events is explored: from the point before the first one, something runs that
// leads to the second one.
void searcher_t::plan(size_t first, size_t second, const order_t &order_of_second) {
  node_t &node = nodes_[first];
  const int first_thread = events()[first].thread, second_thread = events()[second].thread;
  // The events after the first one that do not depend on it, and the second one. A thread is initial if its first event
  // among them needs no other of them.
  mask_t seen = 0, initial = 0;
  std::vector<size_t> between;
  const auto consider = [&](size_t event, int thread, const order_t &order) {
    if ((seen & bit(thread)) != 0) return;
    seen = static_cast<mask_t>(seen | bit(thread));
    const bool needs_other = std::any_of(between.begin(), between.end(),
                                         [&](size_t other) { return other != event && is_before(other, order); });
    if (!needs_other) initial = static_cast<mask_t>(initial | bit(thread));
  };
  for (size_t i = first + 1; i < second; ++i) {
    if (orders_[i][first_thread] > first) continue;
    consider(i, events()[i].thread, orders_[i]);
    between.push_back(i);
  }
  consider(second, second_thread, order_of_second);
  if ((initial & (node.planned | node.asleep)) != 0) return;
  node.planned = static_cast<mask_t>(node.planned |
                                     ((initial & bit(second_thread)) != 0 ? bit(second_thread) : bit(lowest(initial))));
}

// Whether the thread of a loop was already waiting before an event.
bool searcher_t::waited_at(size_t event, const event_t &loop) const {
  const op_t &next = nodes_[event].next[loop.thread];
  return (nodes_[event].enabled & bit(loop.thread)) == 0 && next.kind == OP_AWAIT && next.at == loop.op.at;
}

void searcher_t::plan_reversals_of(size_t event) {
  const event_t &at = events()[event];
  order_t own = {};
  for (size_t i = event; i-- > 0;) {
    if (events()[i].thread != at.thread) continue;
    own = orders_[i];
    break;
  }
  const auto join = [](order_t *into, const order_t &from) {
    for (int i = 0; i < MAX_THREADS; ++i) (*into)[i] = std::max((*into)[i], from[i]);
  };
  order_t order = own;
  size_t races[MAX_THREADS];
  int n_races = 0;
  for (size_t i = event; i-- > 0;) {
    const event_t &earlier = events()[i];
    // An event that comes before by a third one cannot be reversed alone.
    if (earlier.thread == at.thread || is_before(i, order) || !are_dependent(earlier.op, at.op)) continue;
    // What a thread waited for cannot come after it.
    const bool is_release = earlier.op.kind == OP_UNLOCK && earlier.op.writes;
    const bool waited = at.op.kind == OP_AWAIT ? waited_at(i, at) : at.op.kind == OP_LOCK && is_release;
    if (!waited) races[n_races++] = i;
    join(&order, orders_[i]);
  }
  order[at.thread] = static_cast<uint16_t>(event + 1);
  orders_[event] = order;
  for (int i = 0; i < n_races; ++i) plan(races[i], event, order);
  if (at.op.kind != OP_LOCK) return;
  // But it can come before the earlier owner took the lock.
  for (size_t i = event; i-- > 0;) {
    const event_t &earlier = events()[i];
    if (earlier.op.kind != OP_LOCK || earlier.op.at != at.op.at) continue;
    if (earlier.thread != at.thread && !is_before(i, own)) plan(i, event, own);
    break;
  }
}

void searcher_t::plan_reversals() {
  orders_.resize(events().size());
  for (size_t i = fresh_; i < events().size(); ++i) plan_reversals_of(i);
}

search_result_t searcher_t::search() {
  search_result_t result;
  do {
    depth_ = 0;
    const run_result_t ended = run_(this);
    if (ended == RUN_VIOLATION) {
      take_schedule(&result);
      return result;
    }
    ++(ended == RUN_ENDED ? result.n_schedules : result.n_given_up);
    if (is_reduced()) plan_reversals();
    if (result.n_schedules + result.n_given_up >= options_.limit) return result;
  } while (advance());
  result.is_complete = true;
  return result;
}

class replayer_t final : public scheduler_t {
 public:
  explicit replayer_t(const schedule_t &schedule) : schedule_(schedule) {}
  int choose(const choice_t &choice) override {
    const bool is_given = step_ < schedule_.size() && schedule_[step_] < choice.n_threads &&
                          (choice.enabled & bit(schedule_[step_])) != 0;
    if (is_given)
      last_ = schedule_[step_];
    else if ((choice.enabled & bit(last_)) == 0)
      last_ = lowest(choice.enabled);
    ++step_;
    return last_;
  }

 private:
  const schedule_t &schedule_;
  size_t step_ = 0;
  int last_ = 0;
};

}  // namespace

search_result_t search(const run_t &run, const search_options_t &options) {
  return searcher_t(run, options).search();
}

search_result_t replay(const run_t &run, const schedule_t &schedule) {
  search_result_t result;
  replayer_t replayer(schedule);
  run(&replayer);
  result.n_schedules = 1;
  take_schedule(&result);
  return result;
}

search_result_t minimal(const run_t &run, const search_result_t &found, uint64_t limit) {
  for (int bound = 0; bound < found.n_preemptions; ++bound) {
    const search_result_t fewer = search(run, {bound, false, limit});
    if (fewer.has_violation) return fewer;
    if (!fewer.is_complete) break;
  }
  return found;
}

// ---- Schedules as text ----------------------------------------------------------------------------------------------

std::string text_of(const schedule_t &schedule) {
  std::string text;
  for (size_t i = 0, end; i < schedule.size(); i = end) {
    for (end = i; end < schedule.size() && schedule[end] == schedule[i];) ++end;
    text += static_cast<char>('a' + schedule[i]) + std::to_string(end - i);
  }
  return text;
}

bool parse_schedule(const std::string &text, schedule_t *schedule) {
  for (size_t i = 0; i < text.size();) {
    const int thread = text[i++] - 'a';
    const size_t digits = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    if (thread < 0 || thread >= MAX_THREADS || i == digits || i - digits > 4) return false;
    schedule->insert(schedule->end(), std::stoul(text.substr(digits, i - digits)), static_cast<uint8_t>(thread));
  }
  return true;
}
