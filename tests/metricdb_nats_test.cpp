// Messages of a NATS server: acknowledged when they are durable, stored once, and spread over several databases.
#include <nats/nats.h>

#include <atomic>
#include <filesystem>

#include "certificate.h"
#include "nats_support.h"
#include "serve_process.h"

namespace {

constexpr const char *STREAM = "metricdb_points";  // as it is made for "points.>"

class Publisher {
 public:
  // Waits for the server.
  explicit Publisher(const NatsServer &server) {
    EXPECT_TRUE(wait_until([&] { return natsConnection_ConnectTo(&connection_, server.url().c_str()) == NATS_OK; }));
    EXPECT_EQ(natsConnection_JetStream(&js_, connection_, nullptr), NATS_OK);
  }
  ~Publisher() {
    jsCtx_Destroy(js_);
    natsConnection_Destroy(connection_);
  }
  Publisher(const Publisher &) = delete;
  Publisher &operator=(const Publisher &) = delete;

  // Waits until a stream has the subject, and has the message.
  void publish(const std::string &subject, const std::string &lines, const char *database = nullptr) const {
    natsMsg *message = nullptr;
    natsMsg_Create(&message, subject.c_str(), nullptr, lines.data(), static_cast<int>(lines.size()));
    if (database != nullptr) natsMsgHeader_Set(message, "db", database);
    EXPECT_TRUE(wait_until([&] { return js_PublishMsg(nullptr, js_, message, nullptr, nullptr) == NATS_OK; }));
    natsMsg_Destroy(message);
  }
  uint64_t n_in(const std::string &stream) const {
    jsStreamInfo *info = nullptr;
    if (js_GetStreamInfo(&info, js_, stream.c_str(), nullptr, nullptr) != NATS_OK) return UINT64_MAX;
    const uint64_t n_messages = info->State.Msgs;
    jsStreamInfo_Destroy(info);
    return n_messages;
  }
  bool empties(const std::string &stream) const {
    return wait_until([&] { return n_in(stream) == 0; });
  }

 private:
  natsConnection *connection_ = nullptr;
  jsCtx *js_ = nullptr;
};

class Nats : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    if (!NatsServer::is_installed()) GTEST_SKIP() << "nats-server is not installed: nothing was tested";
  }
  void start(const std::string &config = "") { nats_.emplace(path("nats"), config); }

  ServerOptions options() const {
    ServerOptions options = {.influx_port = 0, .graphite_port = {}};
    options.nats.subject = "points.>";
    options.nats.servers = nats_->url();
    options.nats.return_delay = options.nats.retry = milliseconds(50);
    return options;
  }
  // Returns the value of a metric, with its labels.
  static double metric(int port, const std::string &name) {
    Peer peer(port);
    const std::string text = body_of(answer_to(peer, get("/metrics")));
    const size_t at = text.find("\n" + name + " ");
    return at == text.npos ? -1 : std::stod(text.substr(at + name.size() + 2));
  }
  static bool becomes(const RunningServer &server, const std::string &name, double least) {
    return wait_until([&] { return metric(server.influx_port(), name) >= least; });
  }
  static std::string health(int port) {
    Peer peer(port);
    return body_of(answer_to(peer, get("/health")));
  }

  std::optional<NatsServer> nats_;
};

constexpr const char *ACKNOWLEDGED = "metricdb_nats_messages_total{result=\"acknowledged\"}";
constexpr const char *RETURNED = "metricdb_nats_messages_total{result=\"returned\"}";

}  // namespace

TEST_F(Nats, AcknowledgesWhatIsDurable) {
  start();
  RunningServer server(options());
  server.ingest().settle_up_to(0);
  const Publisher publisher(*nats_);
  publisher.publish("points.a", "cpu f=1 1\ncpu f=2 2\n");
  publisher.publish("points.b.c", "nonsense\ncpu f=3 3", "db1");
  ASSERT_TRUE(server.wait_for_points(3));
  publisher.publish("points.a", "nonsense");  // waits for no batch
  ASSERT_TRUE(becomes(server, ACKNOWLEDGED, 1));
  EXPECT_EQ(metric(server.influx_port(), "metricdb_nats_unacknowledged_messages"), 2);
  EXPECT_EQ(metric(server.influx_port(), RETURNED), 0);
  EXPECT_EQ(server.counters().malformed, 2u);
  EXPECT_TRUE(wait_until([&] { return publisher.n_in(STREAM) == 2; }));
  // The end waits for the batch.
  server.stop_later();
  server.ingest().settle_all();
  server.stop();
  EXPECT_TRUE(publisher.empties(STREAM));
}

TEST_F(Nats, MessagesThatAreNotStoredComeAgain) {
  start();
  RunningServer server(options());
  FakeIngest &ingest = server.ingest();
  const Publisher publisher(*nats_);
  ingest.refuse_all("no room");
  publisher.publish("points.a", "cpu f=1 1\n");
  ASSERT_TRUE(becomes(server, RETURNED, 2));
  ingest.refuse_all("");
  EXPECT_TRUE(publisher.empties(STREAM));
  EXPECT_EQ(server.counters().points, 1u);

  ingest.fail(ingest.n_batches() + 1, "disk full", "db1");
  publisher.publish("points.a", "cpu f=1 2\n", "db1");
  EXPECT_TRUE(publisher.empties(STREAM));
  EXPECT_EQ(server.counters().points, 3u) << "a message of a lost batch was acknowledged";

  const double before = metric(server.influx_port(), RETURNED);
  publisher.publish("points.a", "cpu f=1 3\n", "unknown");
  ASSERT_TRUE(becomes(server, RETURNED, before + 2));
  EXPECT_EQ(publisher.n_in(STREAM), 1u);
  EXPECT_GE(metric(server.influx_port(), "metricdb_nats_redelivered_messages_total"), 3);
}

TEST_F(Nats, ManyMessagesShareABatchWithinTheLimits) {
  start();
  const Publisher publisher(*nats_);
  {
    RunningServer makes_the_stream(options());
    publisher.publish("points.a", "");
    EXPECT_TRUE(publisher.empties(STREAM));
  }
  for (int i = 0; i < 300; ++i) publisher.publish("points.a", fmt::format("cpu f=1 {}\n", i));
  ServerOptions limited = options();
  limited.nats.max_bytes = 100;
  {
    RunningServer server(limited);
    server.ingest().settle_up_to(0);
    ASSERT_TRUE(becomes(server, "metricdb_nats_unacknowledged_messages", 1));
    EXPECT_TRUE(wait_until([&] { return server.counters().points != 0; }));
    EXPECT_EQ(metric(server.influx_port(), "metricdb_nats_unacknowledged_messages"), 1) << "more than a message fits";
  }
  const uint64_t n_left = publisher.n_in(STREAM);
  RunningServer server(options());
  EXPECT_TRUE(publisher.empties(STREAM));
  EXPECT_EQ(server.counters().points, n_left);
  EXPECT_LE(server.ingest().n_batches(), n_left / 5);
}

TEST_F(Nats, GoesOnWithoutItsServerAndReconnects) {
  start("authorization { user: u, password: secret }");
  ServerOptions wrong = options(), right = options();
  wrong.nats.user = right.nats.user = "u";
  wrong.nats.password = "wrong";
  right.nats.password = "secret";
  const auto is_warned = [](const RunningServer &server, const std::string &what) {
    return wait_until([&] {
      const std::string text = health(server.influx_port());
      return text.find("\"warn\"") != text.npos && text.find(what) != text.npos;
    });
  };
  EXPECT_TRUE(is_warned(RunningServer(wrong), "Authorization"));
  RunningServer server(right);
  for (const double n_connects : {1, 2}) {
    ASSERT_TRUE(becomes(server, "metricdb_nats_connects_total", n_connects));
    EXPECT_EQ(metric(server.influx_port(), "metricdb_nats_connected"), 1);
    EXPECT_THAT(health(server.influx_port()), HasSubstr("\"pass\""));
    if (n_connects == 2) break;
    nats_->kill_now();
    EXPECT_TRUE(is_warned(server, "no messages of NATS: "));
    EXPECT_EQ(metric(server.influx_port(), "metricdb_nats_connected"), 0);
    Peer peer(server.influx_port());
    EXPECT_EQ(ask(peer, post("cpu f=1 1\n")), 204);
    nats_->start();
  }
}

TEST_F(Nats, EncryptedConnectionsAreVerified) {
  ASSERT_NO_FATAL_FAILURE(make_certificate(root_, "a"));
  ASSERT_NO_FATAL_FAILURE(make_certificate(root_, "other"));
  start(fmt::format("tls {{ cert_file: \"{0}\", key_file: \"{1}\" }}", path("a.crt"), path("a.key")));
  ServerOptions trusting = options(), mistrusting = options();
  trusting.nats.ca_file = path("a.crt");
  mistrusting.nats.ca_file = path("other.crt");
  const RunningServer refusing(mistrusting);
  EXPECT_TRUE(wait_until([&] { return health(refusing.influx_port()).find("SSL") != std::string::npos; }))
      << health(refusing.influx_port());
  const RunningServer server(trusting);
  EXPECT_TRUE(becomes(server, "metricdb_nats_connected", 1)) << health(server.influx_port());
  EXPECT_EQ(metric(refusing.influx_port(), "metricdb_nats_connects_total"), 0);
}

// Two databases, each with a partition of the series. One is killed and started again, and one is ended, while points are
// published.
TEST_F(Nats, PartitionsHoldEachPointOnce) {
  start(R"(mappings = { "points.*": "points.p.{{partition(2,1)}}.{{wildcard(1)}}" })");
  const auto serve = [this](int partition) {
    return std::make_unique<ServeProcess>(
        root_ / fmt::to_string(partition),
        fmt::format("--db db --influx 0 --nats 'points.p.{}.>' --nats-ack-wait 1 --nats-servers {}", partition,
                    nats_->url()));
  };
  std::unique_ptr<ServeProcess> processes[2];
  for (int partition : {0, 1}) {
    fs::create_directory(root_ / fmt::to_string(partition));
    processes[partition] = serve(partition);
    ASSERT_NE(processes[partition]->port(), 0) << processes[partition]->output();
  }
  constexpr int N_HOSTS = 20, N_ROUNDS = 200;
  std::atomic<int> round = 0;
  std::thread publishing([&] {
    const Publisher publisher(*nats_);
    for (; round < N_ROUNDS; ++round)
      for (int host = 0; host < N_HOSTS; ++host)
        publisher.publish(fmt::format("points.host{}", host),
                          fmt::format("cpu,host={0} f={1} {1}\nmem,host={0} f={1} {1}\n", host, round.load()));
  });
  for (const int at : {30, 80, 130}) {
    EXPECT_TRUE(wait_until([&] { return round >= at; }));
    processes[0]->end(SIGKILL);
    processes[0] = serve(0);
    ASSERT_NE(processes[0]->port(), 0) << processes[0]->output();
  }
  EXPECT_EQ(processes[1]->end(SIGTERM), 0);
  processes[1] = serve(1);
  publishing.join();
  const Publisher publisher(*nats_);
  std::map<std::string, int> n_of_series;
  for (const int partition : {0, 1}) {
    EXPECT_TRUE(publisher.empties(fmt::format("metricdb_points_p_{}", partition)));
    EXPECT_EQ(processes[partition]->end(SIGTERM), 0);
    std::string lines = run(fmt::format("export --db {}/db", partition)).out;
    EXPECT_FALSE(lines.empty()) << "no series is in partition " << partition;
    std::set<std::string> seen;
    std::string_view rest = lines;
    for (std::string_view line; next_line(rest, line);) {
      EXPECT_TRUE(seen.insert(std::string(line)).second) << line << " twice";
      ++n_of_series[std::string(line.substr(0, line.find(' ')))];
    }
  }
  EXPECT_EQ(n_of_series.size(), 2u * N_HOSTS);
  for (const auto &[series, n_points] : n_of_series) EXPECT_EQ(n_points, N_ROUNDS) << series;
}
