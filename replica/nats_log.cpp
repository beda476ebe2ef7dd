#include "nats_log.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <thread>

namespace tslb_replica {
namespace {

constexpr int64_t API_WAIT_MS = 2000;
constexpr std::chrono::milliseconds RETRY{50};
constexpr std::chrono::milliseconds REQUESTED_PAUSE{200};
constexpr size_t MAX_UNANSWERED = 16;  // messages that are sent before the first is answered
constexpr int64_t HEARTBEAT_NS = 500'000'000;
constexpr const char *EXPECTED_LAST = "Nats-Expected-Last-Sequence";

void expect_ok(natsStatus status, const std::string &what) {
  if (status != NATS_OK) throw Unreachable(fmt::format("{}: {}", what, natsStatus_GetText(status)));
}

std::string text_of(natsMsg *message) {
  return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}

Connection connect(const NatsOptions &options) {
  natsOptions *made = nullptr;
  expect_ok(natsOptions_Create(&made), "options");
  const std::unique_ptr<natsOptions, Destroy<natsOptions_Destroy>> chosen(made);
  std::vector<std::string> servers;
  for (std::string_view rest = options.servers; !rest.empty();) {
    const size_t end = std::min(rest.find(','), rest.size());
    servers.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  std::vector<const char *> urls;
  for (const std::string &server : servers) urls.push_back(server.c_str());
  natsStatus status = natsOptions_SetServers(made, urls.data(), static_cast<int>(urls.size()));
  if (status == NATS_OK) status = natsOptions_SetTimeout(made, API_WAIT_MS);
  // Otherwise a thread of the client sends what was collected for a millisecond.
  if (status == NATS_OK) status = natsOptions_SetSendAsap(made, true);
  if (status == NATS_OK) status = natsOptions_SetAllowReconnect(made, false);
  if (status == NATS_OK) status = natsOptions_SetPingInterval(made, API_WAIT_MS);
  if (status != NATS_OK)
    throw tslb_durable::StoreError(TSLB_DURABLE_INVALID,
                                   fmt::format("{}: {}", options.servers, natsStatus_GetText(status)));
  natsConnection *connection = nullptr;
  expect_ok(natsConnection_Connect(&connection, made), options.servers);
  return Connection(connection);
}

// Repeats an operation until it succeeds or the patience is over.
template <class Operation>
auto patiently(std::chrono::milliseconds patience, Operation operation) {
  for (const auto deadline = Clock::now() + patience;;) {
    try {
      return operation();
    } catch (const Unreachable &) {
      if (Clock::now() > deadline) throw;
    }
    std::this_thread::sleep_for(RETRY);
  }
}

// Returns the number after a name in an answer of the servers; 0 if there is none. Their answers are flat JSON objects.
uint64_t number_after(std::string_view answer, std::string_view name) {
  const size_t at = answer.find(name);
  uint64_t number = 0;
  if (at != std::string_view::npos)
    std::from_chars(answer.data() + at + name.size(), answer.data() + answer.size(), number);
  return number;
}

}  // namespace

std::shared_ptr<Link> Links::get() {
  const std::lock_guard lock(mutex_);
  if (link_ && !natsConnection_IsClosed(link_->connection.get())) return link_;
  auto link = std::make_shared<Link>();
  link->connection = connect(options_);
  jsOptions js_options;
  jsOptions_Init(&js_options);
  js_options.Wait = API_WAIT_MS;
  jsCtx *js = nullptr;
  expect_ok(natsConnection_JetStream(&js, link->connection.get(), &js_options), options_.servers);
  link->js.reset(js);
  link_ = link;
  return link;
}

// ---- One stream ----------------------------------------------------------------------------------------------------

NatsStream::NatsStream(Links &links, const NatsOptions &options, const std::string &suffix, uint64_t max_bytes)
    : links_(links),
      name_(options.name + "_" + suffix),
      subject_(options.name + "." + suffix),
      pause_subject_(subject_ + ".pause"),
      patience_(options.patience) {
  patiently(patience_, [&] { make(max_bytes, options.n_copies); });
}

void NatsStream::make(uint64_t max_bytes, uint32_t n_copies) {
  const std::shared_ptr<Link> link = links_.get();
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  const char *subjects[] = {subject_.c_str()};
  config.Name = name_.c_str();
  config.Subjects = subjects;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Replicas = n_copies;
  config.AllowDirect = true;
  if (max_bytes != 0) config.MaxBytes = static_cast<int64_t>(max_bytes);
  jsErrCode code = static_cast<jsErrCode>(0);
  const natsStatus status = js_AddStream(nullptr, link->js.get(), &config, nullptr, &code);
  if (status == NATS_OK) return;
  // It exists with another configuration, which is the operator's decision.
  jsStreamInfo *found = nullptr;
  const bool exists = js_GetStreamInfo(&found, link->js.get(), name_.c_str(), nullptr, nullptr) == NATS_OK;
  jsStreamInfo_Destroy(found);
  if (!exists)
    throw Unreachable(fmt::format("stream {}: {} ({})", name_, natsStatus_GetText(status), static_cast<int>(code)));
}

std::string NatsStream::place(uint64_t sequence) const {
  return fmt::format("{}: sequence {}", name_, sequence);
}

Span NatsStream::span() {
  jsStreamInfo *info = nullptr;
  const std::shared_ptr<Link> link = links_.get();
  expect_ok(js_GetStreamInfo(&info, link->js.get(), name_.c_str(), nullptr, nullptr), name_);
  Span span = {info->State.FirstSeq, info->State.LastSeq, info->State.Bytes};
  if (info->State.Msgs == 0) span.first = span.last + 1;
  jsStreamInfo_Destroy(info);
  return span;
}

std::optional<std::string> NatsStream::read(uint64_t sequence) {
  natsMsg *message = nullptr;
  const std::shared_ptr<Link> link = links_.get();
  const natsStatus status = js_GetMsg(&message, link->js.get(), name_.c_str(), sequence, nullptr, nullptr);
  if (status == NATS_NOT_FOUND) return std::nullopt;
  expect_ok(status, place(sequence));
  return text_of(NatsMessage(message).get());
}

void NatsStream::purge_before(uint64_t sequence) {
  if (sequence <= 1) return;  // there is nothing before, and the server takes 1 for all messages
  jsOptions options;
  jsOptions_Init(&options);
  options.Stream.Purge.Sequence = sequence;
  const std::shared_ptr<Link> link = links_.get();
  expect_ok(js_PurgeStream(link->js.get(), name_.c_str(), &options, nullptr), name_);
}

namespace {

Subscription subscription_to(const Link &link, const std::string &subject) {
  natsSubscription *made = nullptr;
  expect_ok(natsConnection_SubscribeSync(&made, link.connection.get(), subject.c_str()), subject);
  return Subscription(made);
}

}  // namespace

void NatsStream::receive_answers(const std::shared_ptr<Link> &link) {
  if (answers_.link == link) return;
  answers_.subscription.reset();
  pauses_.subscription.reset();
  natsInbox *inbox = nullptr;
  expect_ok(natsInbox_Create(&inbox), name_);
  inbox_ = inbox;
  natsInbox_Destroy(inbox);
  pauses_ = {link, subscription_to(*link, pause_subject_)};
  answers_ = {link, subscription_to(*link, inbox_ + ".*")};
}

void NatsStream::request_pause() {
  const std::shared_ptr<Link> link = links_.get();
  expect_ok(natsConnection_PublishString(link->connection.get(), pause_subject_.c_str(), ""), name_);
}

void NatsStream::pause_if_requested() {
  bool is_requested = false;
  natsMsg *received = nullptr;
  while (pauses_.subscription && natsSubscription_NextMsg(&received, pauses_.subscription.get(), 0) == NATS_OK) {
    natsMsg_Destroy(received);
    is_requested = true;
  }
  if (is_requested) std::this_thread::sleep_for(REQUESTED_PAUSE);
}

// Sends the messages from `first` on, and waits for the answers. Returns whether all are in the stream.
bool NatsStream::send(const std::vector<std::string> &messages, size_t first, uint64_t last) {
  const std::shared_ptr<Link> link = links_.get();
  receive_answers(link);
  const std::string batch = fmt::format("{}.{}-", inbox_, ++n_sent_);
  const size_t end = std::min(messages.size(), first + MAX_UNANSWERED);
  for (size_t i = first; i < end; ++i) {
    natsMsg *made = nullptr;
    expect_ok(natsMsg_Create(&made, subject_.c_str(), fmt::format("{}{}", batch, i).c_str(), messages[i].data(),
                             static_cast<int>(messages[i].size())),
              name_);
    const NatsMessage message(made);
    expect_ok(natsMsgHeader_Set(made, EXPECTED_LAST, fmt::format("{}", last + i).c_str()), name_);
    if (natsConnection_PublishMsg(link->connection.get(), made) != NATS_OK) return false;
  }
  for (size_t n_answered = 0; n_answered < end - first;) {
    natsMsg *received = nullptr;
    if (natsSubscription_NextMsg(&received, answers_.subscription.get(), API_WAIT_MS) != NATS_OK) return false;
    const NatsMessage answer(received);
    if (!std::string_view(natsMsg_GetSubject(received)).starts_with(batch)) continue;  // of an attempt before
    const std::string text = text_of(received);
    if (natsMsg_IsNoResponders(received) || number_after(text, "\"seq\":") == 0 || text.find("\"error\"") != text.npos)
      return false;
    ++n_answered;
  }
  return true;
}

// Returns how many of the messages are in the stream. Throws Fenced.
size_t NatsStream::count_published(const std::vector<std::string> &messages, uint64_t last) {
  const Span found = span();
  if (found.last < last)
    throw Fenced(fmt::format("{}: ends with sequence {}, but sequence {} was in it", name_, found.last, last));
  const size_t n_found = std::min<uint64_t>(messages.size(), found.last - last);
  // The messages before are ours if this one is: each expected the one before it.
  if (n_found != 0 && read(last + n_found) != messages[n_found - 1])
    throw Fenced(fmt::format("{}: another replica has written", place(last + n_found)));
  return n_found;
}

void NatsStream::publish(const std::vector<std::string> &messages, uint64_t last) {
  pause_if_requested();
  const auto deadline = Clock::now() + patience_;
  for (size_t n_published = 0; n_published < messages.size();) {
    // What was sent is in the stream, or not, or comes later. Sent again it is refused, or the other one is.
    try {
      if (send(messages, n_published, last)) {
        n_published = std::min(messages.size(), n_published + MAX_UNANSWERED);
        continue;
      }
      n_published = count_published(messages, last);
      if (n_published < messages.size() && Clock::now() > deadline)
        throw Unreachable(fmt::format("{}: refuses messages after sequence {}", name_, last));
    } catch (const Unreachable &) {
      if (Clock::now() > deadline) throw;
    }
    std::this_thread::sleep_for(RETRY);
  }
}

void NatsStream::subscribe(uint64_t sequence) {
  followed_.subscription.reset();
  followed_.link = links_.get();
  jsSubOptions options;
  jsSubOptions_Init(&options);
  options.Stream = name_.c_str();
  options.Config.DeliverPolicy = js_DeliverByStartSequence;
  options.Config.OptStartSeq = std::max<uint64_t>(sequence, 1);
  // An "ordered" subscription of the client, without its repair of gaps in a thread of its own: the reader of the log finds
  // these, and subscribes again.
  options.Config.AckPolicy = js_AckNone;
  options.Config.FlowControl = true;
  options.Config.Heartbeat = HEARTBEAT_NS;
  options.Config.MemoryStorage = true;
  options.Config.Replicas = 1;
  natsSubscription *made = nullptr;
  expect_ok(js_SubscribeSync(&made, followed_.link->js.get(), subject_.c_str(), nullptr, &options, nullptr), name_);
  followed_.subscription.reset(made);
}

void NatsStream::unsubscribe() {
  followed_.subscription.reset();
  followed_.link.reset();
}

std::optional<ReadMessage> NatsStream::receive(std::chrono::milliseconds time) {
  natsMsg *received = nullptr;
  const natsStatus status = natsSubscription_NextMsg(&received, followed_.subscription.get(), time.count());
  if (status == NATS_TIMEOUT) return std::nullopt;
  expect_ok(status, name_);
  const NatsMessage message(received);
  jsMsgMetaData *meta = nullptr;
  expect_ok(natsMsg_GetMetaData(&meta, received), name_);
  const uint64_t sequence = meta->Sequence.Stream;
  jsMsgMetaData_Destroy(meta);
  return ReadMessage{sequence, text_of(received)};
}

// ---- Both streams --------------------------------------------------------------------------------------------------

NatsLog::NatsLog(const NatsOptions &options) : links_(options) {
  patiently(options.patience, [this] { links_.get(); });
  log_.emplace(links_, options, "log", options.log_bytes);
  snapshots_.emplace(links_, options, "snapshot", 0);
}

uint64_t NatsLog::max_bytes() {
  return static_cast<uint64_t>(std::max<int64_t>(natsConnection_GetMaxPayload(links_.get()->connection.get()), 1));
}

}  // namespace tslb_replica
