// TLS of the server and of its own client.
#include "certificate.h"
#include "net/http_client.h"
#include "net/listener.h"
#include "net/transport.h"
#include "server_support.h"

namespace {

class Tls : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    make_certificate(root_, "first");
  }
  ServerOptions options() const {
    ServerOptions options = {.influx_port = 0, .graphite_port = 0};
    options.tls_certificate_file = path("first.crt");
    options.tls_key_file = path("first.key");
    return options;
  }
  TlsContext trusting(const std::string &name) const { return TlsContext::of_client(path(name + ".crt")); }
  // Returns why a client that trusts this authority gets no answer; empty if it gets one.
  std::string refusal_by(const RunningServer &server, const std::string &authority, const char *host = "127.0.0.1") {
    return refusal_of([&] {
      const HttpServer at = {.address = fmt::format("https://{}:{}", host, server.influx_port()),
                             .ca_file = path(authority + ".crt")};
      metrics_ = fetch(at, "/metrics", "").body;
    });
  }

  std::string metrics_;
};

// A client of TLS with a blocking socket.
class TlsPeer {
 public:
  TlsPeer(int port, const TlsContext &tls) : transport_(connected(port), &tls, "127.0.0.1") {}

  bool send(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = transport_.send(text.data(), text.size());
      if (sent <= 0) return false;
      text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }
  // Returns everything until the peer ends the session.
  std::string rest() {
    std::string all;
    std::vector<char> bytes(100'000);
    for (ssize_t got; (got = transport_.receive(bytes.data(), 1000)) > 0;)
      all.append(bytes.data(), static_cast<size_t>(got));
    EXPECT_EQ(transport_.tls_failure(), "");
    return all;
  }
  void end_sending() { transport_.end_sending(); }

 private:
  static int connected(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)), 0);
    return fd;
  }

  Transport transport_;
};

}  // namespace

// Requests and answers are longer than a record and than the buffers of the sockets.
TEST_F(Tls, CarriesBothProtocols) {
  constexpr size_t BYTES = 12 << 20;
  ServerOptions with_query = options();
  with_query.query = [](const QueryRequest &, const IsInterrupted &) {
    return QueryAnswer{HTTP_STATUS_OK, "text/plain", std::string(BYTES, 'x')};
  };
  RunningServer server(with_query);
  const TlsContext trust = trusting("first");
  TlsPeer peer(server.influx_port(), trust), graphite(server.graphite_port(), trust);
  const std::string lines = repeated("m f=1 5\n", 100'000);
  ASSERT_TRUE(peer.send(post(lines) + get("/query?q=x") + post("m f=2 6")));
  ASSERT_TRUE(peer.send("GET /ping HTTP/1.0\r\n\r\n"));
  const std::string answers = peer.rest();
  EXPECT_EQ(count_of(answers, "HTTP/1.1 204 "), 3u);
  EXPECT_NE(answers.find("\r\n\r\n" + std::string(BYTES, 'x') + "HTTP/1.1 204 "), answers.npos);
  ASSERT_TRUE(graphite.send("a 1 7\nb 2 7\n"));
  graphite.end_sending();
  EXPECT_EQ(graphite.rest(), "");
  EXPECT_TRUE(server.wait_for_points(100'003));
  EXPECT_EQ(server.ingest().points().back(), "b value=2@7000000000");
}

// Requests that have arrived are answered when the server ends.
TEST_F(Tls, DrainsAtTheEnd) {
  RunningServer server(options());
  const TlsContext trust = trusting("first");
  TlsPeer peer(server.influx_port(), trust);
  server.ingest().settle_up_to(0);
  ASSERT_TRUE(peer.send(post("m f=1 5")));
  ASSERT_TRUE(server.wait_for_points(1));
  server.stop_later();
  server.ingest().settle_all();
  EXPECT_THAT(peer.rest(), HasSubstr("HTTP/1.1 204 "));
}

TEST_F(Tls, BadHandshakesAreClosed) {
  ServerOptions impatient = options();
  impatient.request_timeout = milliseconds(100);
  RunningServer server(impatient);
  const std::string hello("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
  for (const std::string &begin : {get("/ping"), std::string(100'000, '\xee'), hello, std::string()}) {
    Peer peer(server.influx_port()), line(server.graphite_port());
    peer.send(begin);
    EXPECT_EQ(peer.status(), 0) << begin;
  }
  EXPECT_TRUE(wait_until([&] { return server.counters().connections == 0; }));
  EXPECT_EQ(server.counters().requests, 0u);
  EXPECT_TRUE(wait_until([&] { return refusal_by(server, "first").empty(); }));
  EXPECT_THAT(metrics_, HasSubstr("\nmetricdb_refused_connections_total{reason=\"tls\"} 2\n"))
      << "not HTTP and garbage";
}

TEST_F(Tls, ClientsCheckTheCertificateAndHangUpReplacesIt) {
  make_certificate(root_, "second");
  RunningServer server(options());
  EXPECT_EQ(refusal_by(server, "first"), "");
  EXPECT_THAT(refusal_by(server, "second"), HasSubstr("self-signed certificate"));
  EXPECT_THAT(refusal_by(server, "first", "localhost"), HasSubstr("hostname mismatch"));
  EXPECT_THAT(refusal_by(server, "none"), HasSubstr("none.crt"));
  const auto replace = [&](const std::string &name) {
    for (const char *end : {".crt", ".key"})
      fs::copy_file(path(name + end), path(std::string("first") + end), fs::copy_options::overwrite_existing);
  };
  write_file(root_ / "first.key", "damaged");
  server.hang_up();
  EXPECT_EQ(refusal_by(server, "first"), "") << "a wrong file replaced the certificate";
  replace("second");
  server.hang_up();
  EXPECT_TRUE(wait_until([&] { return refusal_by(server, "second").empty(); }));
  write_file(root_ / "second.key", "damaged");
  EXPECT_THAT(refusal_of([&] { TlsContext::of_server(path("second.crt"), path("second.key")); }),
              HasSubstr("second.key: "));
}

TEST(HttpClient, RefusesIncompleteAnswers) {
  Listener listener("127.0.0.1", 0);
  std::thread server([&] {
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nshort";
    int fd = -1;
    wait_until([&] { return (fd = listener.accept([](const char *) {})) >= 0; });
    const Descriptor connection(fd);
    EXPECT_EQ(send(fd, answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
    shutdown(fd, SHUT_WR);
    char byte;
    wait_until([&] { return recv(fd, &byte, 1, 0) == 0; });
  });
  EXPECT_THAT(refusal_of([&] { fetch({.address = fmt::format("127.0.0.1:{}", listener.port())}, "/", ""); }),
              HasSubstr("incomplete"));
  server.join();
}

TEST(HttpClient, SendsPasswordsToLoopbackOnly) {
  const HttpServer other = {.address = "192.0.2.1:1", .user = "a", .password = "b"};
  EXPECT_THAT(refusal_of([&] { fetch(other, "/", ""); }), HasSubstr("use https://"));
}
