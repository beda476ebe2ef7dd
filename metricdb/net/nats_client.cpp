#include "net/nats_client.h"

#include <fmt/format.h>

#include "net/server.h"

#ifdef METRICDB_NATS

#include <nats/nats.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "net/event.h"
#include "store/log.h"

namespace metricdb {
namespace {

using std::chrono::milliseconds;

constexpr int64_t API_WAIT_MS = 2000;
constexpr int64_t FETCH_WAIT_MS = 250;  // `stop` waits for it
constexpr int64_t FLUSH_WAIT_MS = 2000;
constexpr int64_t MAX_FETCHED = 512;
constexpr size_t OVERHEAD_BYTES = 256;  // of the memory of a message, so that many short ones are limited too
constexpr int64_t NS_PER_MS = 1'000'000;

struct NatsFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void expect_ok(natsStatus status, const std::string &what) {
  if (status == NATS_OK) return;
  const char *const last = nats_GetLastError(nullptr);
  std::string_view why = last != nullptr ? last : "";
  // It begins with a place in the source of the client: "(unix/sock.c:58): Timeout".
  if (const size_t end = why.find("): "); why.starts_with('(') && end != why.npos) why.remove_prefix(end + 3);
  throw NatsFailure(fmt::format("{}: {}", what, why.empty() ? natsStatus_GetText(status) : why));
}

template <auto destroy>
struct Destroy {
  template <class Object>
  void operator()(Object *object) const {
    destroy(object);
  }
};
template <class Object, auto destroy>
using Owned = std::unique_ptr<Object, Destroy<destroy>>;
using OwnedOptions = Owned<natsOptions, natsOptions_Destroy>;

// Released in the opposite order.
struct Link {
  uint64_t number = 0;
  Owned<natsConnection, natsConnection_Destroy> connection = {};
  Owned<jsCtx, jsCtx_Destroy> js = {};
  Owned<natsSubscription, natsSubscription_Destroy> subscription = {};
  int64_t max_payload = 1;
};

std::vector<std::string> split(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const size_t end = std::min(text.find(','), text.size());
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

// "metricdb_points_p_0" of "points.p.0.>": names of streams and consumers have no dots and wildcards.
std::string name_of(std::string_view subject) {
  std::string name = "metricdb";
  bool begins_word = true;
  for (const char byte : subject) {
    const bool is_kept = byte != '.' && byte != '*' && byte != '>' && byte != '/' && byte != '\\' && byte != ' ';
    if (is_kept && begins_word) name += '_';
    if (is_kept) name += byte;
    begins_word = !is_kept;
  }
  return name;
}

OwnedOptions connection_options(const NatsOptions &options) {
  natsOptions *made = nullptr;
  expect_ok(natsOptions_Create(&made), "options");
  OwnedOptions owned(made);
  const std::vector<std::string> servers = split(options.servers);
  std::vector<const char *> urls;
  for (const std::string &server : servers) urls.push_back(server.c_str());
  const bool is_secure =
      !options.ca_file.empty() || std::any_of(servers.begin(), servers.end(),
                                              [](const std::string &server) { return server.starts_with("tls://"); });
  expect_ok(natsOptions_SetServers(made, urls.data(), static_cast<int>(urls.size())), options.servers);
  expect_ok(natsOptions_SetName(made, "metricdb"), "name");
  expect_ok(natsOptions_SetTimeout(made, API_WAIT_MS), "timeout");
  expect_ok(natsOptions_SetPingInterval(made, API_WAIT_MS), "ping interval");
  // The client's own reconnection ends the process in version 3.4 if a connection fails again while it is made.
  expect_ok(natsOptions_SetAllowReconnect(made, false), "reconnection");
  if (is_secure) expect_ok(natsOptions_SetSecure(made, true), "TLS");
  if (!options.ca_file.empty())
    expect_ok(natsOptions_LoadCATrustedCertificates(made, options.ca_file.c_str()), options.ca_file);
  if (!options.user.empty())
    expect_ok(natsOptions_SetUserInfo(made, options.user.c_str(), options.password.c_str()), "user");
  if (!options.credentials_file.empty())
    expect_ok(natsOptions_SetUserCredentialsFromFiles(made, options.credentials_file.c_str(), nullptr),
              options.credentials_file);
  return owned;
}

// Empty if no stream has the subject.
std::string stream_with(jsCtx *js, const std::string &subject) {
  jsOptions options;
  jsOptions_Init(&options);
  options.Stream.Info.SubjectsFilter = subject.c_str();
  jsStreamNamesList *list = nullptr;
  const natsStatus status = js_StreamNames(&list, js, &options, nullptr);
  const Owned<jsStreamNamesList, jsStreamNamesList_Destroy> owned(list);
  if (status == NATS_NOT_FOUND) return "";
  expect_ok(status, "streams");
  return list->Count == 0 ? "" : list->List[0];
}

// A stream of the operator is used as it is. A new one keeps messages until they are acknowledged.
std::string find_or_make_stream(jsCtx *js, const NatsOptions &options) {
  std::string name = options.stream.empty() ? stream_with(js, options.subject) : options.stream;
  if (name.empty()) name = name_of(options.subject);
  jsStreamInfo *found = nullptr;
  const natsStatus status = js_GetStreamInfo(&found, js, name.c_str(), nullptr, nullptr);
  jsStreamInfo_Destroy(found);
  if (status != NATS_NOT_FOUND) {
    expect_ok(status, fmt::format("stream {}", name));
    return name;
  }
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  const char *subjects[] = {options.subject.c_str()};
  config.Name = name.c_str();
  config.Subjects = subjects;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Retention = js_WorkQueuePolicy;
  expect_ok(js_AddStream(nullptr, js, &config, nullptr, nullptr), fmt::format("stream {}", name));
  return name;
}

// A consumer that exists with another configuration is the operator's decision.
void find_or_make_consumer(jsCtx *js, const std::string &stream, const std::string &name, const NatsOptions &options) {
  jsConsumerInfo *found = nullptr;
  const natsStatus status = js_GetConsumerInfo(&found, js, stream.c_str(), name.c_str(), nullptr, nullptr);
  jsConsumerInfo_Destroy(found);
  if (status == NATS_OK) return;
  if (status != NATS_NOT_FOUND) expect_ok(status, fmt::format("consumer {}", name));
  jsConsumerConfig config;
  jsConsumerConfig_Init(&config);
  config.Durable = name.c_str();
  config.FilterSubject = options.subject.c_str();
  config.AckPolicy = js_AckExplicit;
  config.AckWait = std::chrono::nanoseconds(options.ack_wait).count();
  config.MaxAckPending = options.max_messages;
  expect_ok(js_AddConsumer(nullptr, js, stream.c_str(), &config, nullptr, nullptr), fmt::format("consumer {}", name));
}

std::shared_ptr<Link> open_link(const NatsOptions &options, uint64_t number) {
  const auto link = std::make_shared<Link>();
  link->number = number;
  const OwnedOptions chosen = connection_options(options);
  natsConnection *connection = nullptr;
  expect_ok(natsConnection_Connect(&connection, chosen.get()), options.servers);
  link->connection.reset(connection);
  link->max_payload = std::max<int64_t>(natsConnection_GetMaxPayload(connection), 1);
  jsOptions js_options;
  jsOptions_Init(&js_options);
  js_options.Wait = API_WAIT_MS;
  jsCtx *js = nullptr;
  expect_ok(natsConnection_JetStream(&js, connection, &js_options), options.servers);
  link->js.reset(js);
  const std::string stream = find_or_make_stream(js, options);
  const std::string consumer = options.consumer.empty() ? name_of(options.subject) : options.consumer;
  find_or_make_consumer(js, stream, consumer, options);
  jsSubOptions bound;
  jsSubOptions_Init(&bound);
  bound.Stream = stream.c_str();
  bound.Consumer = consumer.c_str();
  natsSubscription *subscription = nullptr;
  expect_ok(js_PullSubscribe(&subscription, js, options.subject.c_str(), nullptr, nullptr, &bound, nullptr),
            fmt::format("consumer {} of stream {}", consumer, stream));
  link->subscription.reset(subscription);
  return link;
}

std::string header_of(natsMsg *message, const char *name) {
  const char *value = nullptr;
  return natsMsgHeader_Get(message, name, &value) == NATS_OK && value != nullptr ? value : "";
}

}  // namespace

class NatsClient::Worker {
 public:
  explicit Worker(const NatsOptions &options) : options_(options) {}
  ~Worker() { close(); }

  void start() {
    state_.has_ended = false;
    state_.why = "connecting";
    receiver_ = std::thread([this] { receive_all(); });
    answerer_ = std::thread([this] { send_answers(); });
  }

  int event_fd() const { return arrived_event_.fd(); }

  std::vector<NatsMessage> receive() {
    arrived_event_.drain();
    const std::lock_guard lock(mutex_);
    return std::exchange(arrived_, {});
  }

  void answer(const NatsMessage &message, bool is_stored) {
    const std::lock_guard lock(mutex_);
    --state_.n_unacknowledged;
    state_.unacknowledged_bytes -= message.bytes;
    answers_.push_back({message.reply, message.connection, is_stored});
    changed_.notify_all();
  }

  void stop() {
    const std::lock_guard lock(mutex_);
    is_stopping_ = true;
    changed_.notify_all();
  }

  void close() {
    stop();
    if (receiver_.joinable()) receiver_.join();
    {
      const std::lock_guard lock(mutex_);
      is_closing_ = true;
      changed_.notify_all();
    }
    if (answerer_.joinable()) answerer_.join();
    link_.reset();
  }

  NatsState state() const {
    const std::lock_guard lock(mutex_);
    return state_;
  }

 private:
  struct Answer {
    std::string reply;
    uint64_t connection;
    bool is_stored;
  };

  // ---- The thread that receives ----

  void receive_all() {
    TSLB_DLOG_THREAD_NAME("nats");
    while (!is_stopping()) {
      try {
        const std::shared_ptr<Link> link = open_link(options_, state().n_connects + 1);
        set_connected(link);
        while (fetch(*link)) {
        }
      } catch (const NatsFailure &failure) {
        set_disconnected(failure.what());
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, options_.retry, [this] { return is_stopping_; });
      }
    }
    const std::lock_guard lock(mutex_);
    state_.has_ended = true;
    arrived_event_.raise();
  }

  bool is_stopping() const {
    const std::lock_guard lock(mutex_);
    return is_stopping_;
  }

  void set_connected(const std::shared_ptr<Link> &link) {
    const std::lock_guard lock(mutex_);
    link_ = link;
    state_.is_connected = true;
    ++state_.n_connects;
    state_.why.clear();
    TSLB_DLOG(LOG_PROGRESS, "nats: receives %s", options_.subject.c_str());
  }

  // The same failure is logged once.
  void set_disconnected(const std::string &why) {
    const std::lock_guard lock(mutex_);
    link_.reset();
    state_.is_connected = false;
    if (state_.why != why) TSLB_DLOG(LOG_REFUSALS, "nats: %s", why.c_str());
    state_.why = why;
  }

  // Waits until there is room. Returns for how many messages of any size; 0: stop.
  int messages_wanted(const Link &link) {
    std::unique_lock lock(mutex_);
    const auto room = [&] {
      if (state_.unacknowledged_bytes == 0) return std::max<int64_t>(options_.max_bytes / link.max_payload, 1);
      return static_cast<int64_t>(options_.max_bytes - std::min(options_.max_bytes, state_.unacknowledged_bytes)) /
             link.max_payload;
    };
    changed_.wait(lock, [&] { return is_stopping_ || room() > 0; });
    return is_stopping_ ? 0 : static_cast<int>(std::min({room(), MAX_FETCHED, int64_t{options_.max_messages}}));
  }

  // Returns false when nothing more is wanted. Throws NatsFailure.
  bool fetch(const Link &link) {
    const int n_wanted = messages_wanted(link);
    if (n_wanted == 0) return false;
    natsMsgList list = {};
    const natsStatus status = natsSubscription_Fetch(&list, link.subscription.get(), n_wanted, FETCH_WAIT_MS, nullptr);
    if (status == NATS_TIMEOUT) return true;
    const Owned<natsMsgList, natsMsgList_Destroy> owned(&list);
    expect_ok(status, options_.subject);
    std::vector<NatsMessage> fetched;
    for (int i = 0; i < list.Count; ++i) fetched.push_back(message_of(list.Msgs[i], link));
    add(fetched);
    return true;
  }

  NatsMessage message_of(natsMsg *message, const Link &link) {
    const auto bytes = static_cast<size_t>(natsMsg_GetDataLength(message));
    jsMsgMetaData *meta = nullptr;
    if (natsMsg_GetMetaData(&meta, message) == NATS_OK) {
      const std::lock_guard lock(mutex_);
      state_.n_redelivered += meta->NumDelivered > 1 ? 1 : 0;
      state_.n_in_stream = meta->NumPending;
      jsMsgMetaData_Destroy(meta);
    }
    return {{natsMsg_GetData(message), bytes},
            header_of(message, "db"),
            natsMsg_GetReply(message),
            link.number,
            bytes + OVERHEAD_BYTES};
  }

  void add(std::vector<NatsMessage> &fetched) {
    const std::lock_guard lock(mutex_);
    for (NatsMessage &message : fetched) {
      ++state_.n_unacknowledged;
      state_.unacknowledged_bytes += message.bytes;
      arrived_.push_back(std::move(message));
    }
    arrived_event_.raise();
  }

  // ---- The thread that answers ----

  void send_answers() {
    TSLB_DLOG_THREAD_NAME("nats answers");
    const std::string negative = fmt::format("-NAK {{\"delay\": {}}}", options_.return_delay.count() * NS_PER_MS);
    for (;;) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return is_closing_ || !answers_.empty(); });
      const std::vector<Answer> answers = std::exchange(answers_, {});
      const std::shared_ptr<Link> link = link_;
      const bool is_last = is_closing_;
      lock.unlock();
      for (const Answer &answer : answers)
        if (link && link->number == answer.connection)
          natsConnection_PublishString(link->connection.get(), answer.reply.c_str(),
                                       answer.is_stored ? "+ACK" : negative.c_str());
      if (!is_last) continue;
      if (link) natsConnection_FlushTimeout(link->connection.get(), FLUSH_WAIT_MS);
      return;
    }
  }

  const NatsOptions options_;
  Event arrived_event_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // With the mutex locked.
  NatsState state_;
  std::shared_ptr<Link> link_;
  std::vector<NatsMessage> arrived_;
  std::vector<Answer> answers_;
  bool is_stopping_ = false;
  bool is_closing_ = false;

  std::thread receiver_;
  std::thread answerer_;
};

NatsClient::NatsClient(const NatsOptions &options) : worker_(std::make_unique<Worker>(options)) {}

}  // namespace metricdb

#else

namespace metricdb {

// No object of it exists.
class NatsClient::Worker {
 public:
  void start() {}
  int event_fd() const { return -1; }
  std::vector<NatsMessage> receive() { return {}; }
  void answer(const NatsMessage &, bool) {}
  void stop() {}
  void close() {}
  NatsState state() const { return {}; }
};

NatsClient::NatsClient(const NatsOptions &) {
  throw ServerError("this metricdb was built without the client of NATS (Debian: libnats-dev)");
}

}  // namespace metricdb

#endif

namespace metricdb {

NatsClient::~NatsClient() = default;

void NatsClient::start() {
  worker_->start();
}

int NatsClient::event_fd() const {
  return worker_->event_fd();
}

std::vector<NatsMessage> NatsClient::receive() {
  return worker_->receive();
}

void NatsClient::answer(const NatsMessage &message, bool is_stored) {
  worker_->answer(message, is_stored);
}

void NatsClient::stop() {
  worker_->stop();
}

void NatsClient::close() {
  worker_->close();
}

NatsState NatsClient::state() const {
  return worker_->state();
}

}  // namespace metricdb
