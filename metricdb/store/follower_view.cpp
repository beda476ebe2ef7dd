#include "store/follower_view.h"

#include <algorithm>

#include "store/database.h"
#include "store/figures.h"
#include "store/log.h"

namespace metricdb {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds REFRESHED_EVERY{1000};
constexpr milliseconds LONG_READING{100}, MAX_FOLLOWING{10'000}, TURN_POLL{5};

int64_t system_now_ns() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

}  // namespace

// Reading, between two applications of groups.
class FollowerView::Turn {
 public:
  explicit Turn(FollowerView &view) : view_(view) {
    for (;;) {
      while (view_.is_following_due()) std::this_thread::sleep_for(TURN_POLL);
      tslb_store_begin_reading(view_.durable_.get());
      // It can have waited for the end of a long reading.
      if (!view_.is_following_due()) break;
      tslb_store_end_reading(view_.durable_.get());
    }
    const std::lock_guard lock(view_.turn_mutex_);
    if (view_.n_reading_++ == 0) view_.reading_since_ = Clock::now();
  }
  ~Turn() {
    {
      const std::lock_guard lock(view_.turn_mutex_);
      const auto now = Clock::now();
      const auto taken = std::min<Clock::duration>(now - view_.reading_since_, MAX_FOLLOWING);
      if (--view_.n_reading_ == 0 && taken > LONG_READING) view_.following_until_ = now + taken;
    }
    tslb_store_end_reading(view_.durable_.get());
  }
  Turn(const Turn &) = delete;
  Turn &operator=(const Turn &) = delete;

 private:
  FollowerView &view_;
};

FollowerView::FollowerView(const DurableArrays &durable, bool retains_by_clock)
    : durable_(durable), retains_by_clock_(retains_by_clock) {}

FollowerView::~FollowerView() {
  stop();
}

void FollowerView::stop() {
  {
    const std::lock_guard lock(turn_mutex_);
    is_ending_ = true;
  }
  ending_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void FollowerView::begin(const std::function<Store &()> &make) {
  {
    const Turn turn(*this);
    store_ = &make();
    bring_up_to_date();
    set_figures(*store_);
  }
  thread_ = std::thread([this] { run(); });
}

// Whether a reading should wait. Not while others read: nothing is applied then.
bool FollowerView::is_following_due() {
  {
    const std::lock_guard lock(turn_mutex_);
    if (n_reading_ != 0 || Clock::now() >= following_until_) return false;
  }
  const ReplicaFigures now = durable_.replica()->figures(true);
  return now.role == ReplicaFigures::Role::follower && now.lag != 0;
}

void FollowerView::read(const std::function<void(const Store &)> &use) {
  if (is_over()) return use(*store_);
  const Turn turn(*this);
  bring_up_to_date();
  use(*store_);
}

// All who read now see the same arrays, and none of them has gone on before this is done.
void FollowerView::bring_up_to_date() {
  const std::lock_guard lock(view_mutex_);
  if (is_over()) return;
  if (retains_by_clock_) store_->set_clock(system_now_ns());
  // Not the position: it is that of the arrays only when the group is durable.
  std::string figures = durable_.payload();
  const uint64_t generation = durable_.info().generation;
  if (figures == seen_figures_ && generation == seen_generation_) return;
  StoreConfig config;
  StoreState state;
  try {
    read_figures(figures, config, state);
  } catch (const FiguresError &error) {
    throw DatabaseError(std::string("the figures of the leader: ") + error.what());
  }
  store_->follow(config, state, generation != seen_generation_);
  seen_figures_ = std::move(figures);
  seen_generation_ = generation;
}

IngestFigures FollowerView::figures() const {
  const std::lock_guard lock(figures_mutex_);
  return figures_;
}

void FollowerView::set_figures(const Store &store) {
  IngestFigures figures = figures_of(store, durable_.info());
  const std::lock_guard lock(figures_mutex_);
  figures_ = std::move(figures);
}

// So that the figures are right, and the next query is quick.
void FollowerView::run() {
  TSLB_DLOG_THREAD_NAME("following");
  std::unique_lock lock(turn_mutex_);
  while (!ending_.wait_for(lock, REFRESHED_EVERY, [this] { return is_ending_; }) && !is_over()) {
    lock.unlock();
    try {
      read([this](const Store &store) { set_figures(store); });
    } catch (const DatabaseError &error) {
      TSLB_DLOG(LOG_REFUSALS, "%s", error.what());
    }
    lock.lock();
  }
}

void FollowerView::end(const std::function<void(Store &)> &take_over) {
  stop();  // its figures are those of a follower
  bring_up_to_date();
  const std::lock_guard lock(view_mutex_);
  take_over(*store_);
  is_over_.store(true, std::memory_order_release);
}

}  // namespace metricdb
