// Users, passwords and rights of the server.
#include <crypt.h>

#include "net/access.h"
#include "server_support.h"
#include "store/log.h"

namespace {

std::string hash_of(const std::string &password) {
  crypt_data data = {};
  return crypt_r(password.c_str(), "$6$rounds=1000$salt$", &data);
}

class Users : public Folder {
 protected:
  std::string write_users(const std::string &text) const {
    write_file(root_ / "users", text);
    fs::permissions(root_ / "users", fs::perms::owner_read | fs::perms::owner_write);
    return path("users");
  }
};

std::string basic(const std::string &base64) {
  return "Authorization: Basic " + base64 + "\r\n";
}

// Base64 of NAME:NAME's secret.
constexpr const char *ANN = "YW5uOmFubidzIHNlY3JldA==", *RHEA = "cmhlYTpyaGVhJ3Mgc2VjcmV0",
                     *WES = "d2VzOndlcydzIHNlY3JldA==";

std::string three_users() {
  return fmt::format("# comment\n\nann:{}\nrhea:{}:r\nwes:{}:w\r\n", hash_of("ann's secret"), hash_of("rhea's secret"),
                     hash_of("wes's secret"));
}

}  // namespace

TEST_F(Users, FilesThatAreRefused) {
  const std::string good = hash_of("x");
  const struct {
    std::string text;
    const char *reason;
  } rows[] = {{"", ": no user"},
              {"a:" + good + "\nsecret\n", ":2: the hash is not one"},
              {"a:plaintext\n", ":1: the hash is not one"},
              {"a:$1$I7uElS30$3Ny9zgYZWT8LTpJPfYHgQ0\n", ":1: the hash is not one"},
              {":" + good, ":1: a line is name:hash"},
              {"a:" + good + ":rwx", ":1: the rights are not"},
              {"a:" + good + "\na:" + good, ":2: user \"a\" a second time"}};
  for (const auto &row : rows)
    EXPECT_THAT(refusal_of([&] { Access access(write_users(row.text)); }), HasSubstr(path("users") + row.reason));
  fs::permissions(write_users("a:" + good), fs::perms::others_read, fs::perm_options::add);
  EXPECT_THAT(refusal_of([&] { Access access(path("users")); }),
              HasSubstr("other users of this machine can access it"));
  EXPECT_THAT(refusal_of([&] { Access access(path("none")); }), HasSubstr("No such file"));
  EXPECT_THAT(refusal_of([&] { Access access(root_.string()); }), HasSubstr("not a regular file"));
}

TEST_F(Users, RequestsNeedAUserWithTheRight) {
  ServerOptions options = {.influx_port = 0, .graphite_port = {}, .user_file = write_users(three_users())};
  options.query = [](const QueryRequest &request, const IsInterrupted &) {
    const bool is_creation = request.text.starts_with("create");
    const bool is_refused = !(is_creation ? request.refusal_of_creations : request.refusal_of_reads).empty();
    return QueryAnswer{is_refused ? HTTP_STATUS_FORBIDDEN : HTTP_STATUS_OK, "", "1"};
  };
  RunningServer server(options);
  const struct {
    std::string fault, arguments, headers;
    int write, query, creation;
  } rows[] = {
      {"no user is needed", "", "", 401, 401, 401},
      {"the name alone is enough", "&u=ann", "", 401, 401, 401},
      {"the header is not read", "", basic(ANN), 204, 200, 200},
      {"the scheme has a case", "", "AUTHORIZATION: basIC " + std::string(ANN) + "\r\n", 204, 200, 200},
      {"parameters are not decoded", "&u=%61nn&p=ann's+secret", "", 204, 200, 200},
      {"wrong parameters are ignored", "&u=ann&p=wrong", basic(ANN), 401, 401, 401},
      {"bytes after a zero byte are ignored", "&u=ann&p=ann's+secret%00x", "", 401, 401, 401},
      {"a hash is a password", "&u=ann&p=" + hash_of("ann's secret"), "", 401, 401, 401},
      {"the password of another user counts", "&u=rhea&p=ann's+secret", "", 401, 401, 401},
      {"a password of an unknown user counts", "&u=eve&p=ann's+secret", "", 401, 401, 401},
      {"a reader writes", "", basic(RHEA), 403, 200, 403},
      {"a writer reads", "", basic(WES), 204, 403, 200},
      {"another scheme counts", "", "Authorization: Bearer " + std::string(ANN) + "\r\n", 401, 401, 401},
      {"text that is no base64 counts", "", basic("*"), 401, 401, 401},
      {"two headers count", "", basic(ANN) + basic(ANN), 401, 401, 401},
  };
  const auto get_with = [](const std::string &target, const std::string &headers) {
    return "GET " + target + " HTTP/1.1\r\n" + headers + "\r\n";
  };
  size_t n_written = 0;
  Peer peer(server.influx_port());
  for (int round = 0; round < 2; ++round)  // the second time the passwords are known
    for (const auto &row : rows) {
      SCOPED_TRACE(row.fault);
      EXPECT_EQ(ask(peer, post("m f=1 5", "db=x" + row.arguments, row.headers)), row.write);
      EXPECT_EQ(ask(peer, get_with("/query?q=SELECT" + row.arguments, row.headers)), row.query);
      EXPECT_EQ(ask(peer, (round == 0 ? "POST" : "GET") + (" /query?q=create+database+x" + row.arguments) +
                              " HTTP/1.1\r\nContent-Length: 0\r\n" + row.headers + "\r\n"),
                row.creation);
      EXPECT_EQ(ask(peer, get_with("/metrics?" + row.arguments, row.headers)), row.query);
      EXPECT_EQ(ask(peer, get_with("/ping", row.headers)), 204);
      EXPECT_EQ(ask(peer, get_with("/health", row.headers)), 200);
      n_written += row.write == 204;
    }
  EXPECT_EQ(server.ingest().points().size(), n_written);
  const std::string denied = answer_to(peer, get("/query?q=SELECT"));
  EXPECT_THAT(denied, HasSubstr("\r\nWWW-Authenticate: Basic realm="));
  EXPECT_EQ(body_of(denied), "{\"error\":\"unable to parse authentication credentials\"}\n");
  EXPECT_EQ(body_of(answer_to(peer, get("/query?u=a&p=b"))), "{\"error\":\"authorization failed\"}\n");
  const std::string metrics = answer_to(peer, get_with("/metrics", basic(ANN)));
  EXPECT_THAT(metrics, HasSubstr("metricdb_denied_requests_total{reason=\"unknown_user\"} 82\n"));
  EXPECT_THAT(metrics, HasSubstr("metricdb_denied_requests_total{reason=\"no_right\"} 4\n"));
}

// A body would use memory. Here most of it is not sent.
TEST_F(Users, BodiesAreReceivedWithARightAndAUse) {
  ServerOptions options = {.influx_port = 0, .graphite_port = {}, .user_file = write_users(three_users())};
  options.promote = [](const QueryRequest &, const IsInterrupted &) { return QueryAnswer(); };
  RunningServer server(options);
  const struct {
    const char *request;
    int without_user, with_user;  // 100: the body is received
  } rows[] = {{"POST /write", 401, 100},   {"POST /query", 401, 100},  {"POST /backup?name=a", 401, 400},
              {"POST /promote", 401, 400}, {"GET /metrics", 401, 400}, {"GET /health", 400, 400},
              {"GET /ping", 400, 400},     {"POST /ping", 405, 405},   {"POST /api/v2/write", 404, 404},
              {"POST ?", 400, 400}};
  for (const auto &row : rows)
    for (const char *length : {"Content-Length: 9000\r\n\r\nm", "Transfer-Encoding: chunked\r\n\r\n2328\r\nm"})
      for (const bool has_user : {false, true}) {
        SCOPED_TRACE(fmt::format("{} {} {}", row.request, length, has_user));
        Peer peer(server.influx_port());
        ASSERT_TRUE(peer.send(fmt::format("{} HTTP/1.1\r\n{}{}", row.request, has_user ? basic(ANN) : "", length)));
        const int expected = has_user ? row.with_user : row.without_user;
        if (expected == 100) {
          expect_others_are_served(server);
          EXPECT_TRUE(peer.has_read_everything());
          continue;
        }
        EXPECT_EQ(peer.status(), expected);
        EXPECT_TRUE(peer.is_closed());
      }
  // Of a body that arrives at once nothing else depends.
  Peer peer(server.influx_port());
  EXPECT_EQ(ask(peer, "POST /promote HTTP/1.1\r\n" + basic(ANN) + "Content-Length: 1\r\n\r\nx"), 400);
  EXPECT_EQ(ask(peer, "POST /promote HTTP/1.1\r\n" + basic(ANN) + "\r\n"), 200);
}

// With a budget for one password: guesses are refused without hashing, and known passwords are not affected.
TEST_F(Users, GuessesHaveABudget) {
  using Outcome = Access::Outcome;
  Access access(write_users(three_users()), {.max_s = 1e-9, .share = 0});
  const Credentials ann = {"ann", "ann's secret"}, wes = {"wes", "wes's secret"};
  EXPECT_EQ(access.check(ann, Right::read), Outcome::allowed);
  EXPECT_EQ(access.check(wes, Right::any), Outcome::busy);
  EXPECT_EQ(access.check(Credentials{"ann", "guess"}, Right::any), Outcome::busy);
  EXPECT_EQ(access.check(Credentials{"nobody", "guess"}, Right::any), Outcome::busy);
  EXPECT_EQ(access.check(ann, Right::write), Outcome::allowed);
  access.reload();
  EXPECT_EQ(access.check(ann, Right::write), Outcome::allowed) << "a password that has not changed is hashed again";
  write_users("ann:" + hash_of("new"));
  access.reload();
  EXPECT_EQ(access.check(ann, Right::write), Outcome::busy) << "the former password is still known";
  write_users(three_users());
  Access guessed(path("users"), {.max_s = 1e-9, .share = 0});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(guessed.check(Credentials{"ann", "old"}, Right::any), Outcome::unknown);
  EXPECT_EQ(guessed.check(ann, Right::any), Outcome::busy);
}

TEST_F(Users, HangUpReadsThemAgainAndTheLogHasNoPassword) {
  TSLB_DLOG_INIT(path("log").c_str(), LOG_PROGRESS, 10);
  {
    RunningServer server({.influx_port = 0, .graphite_port = {}, .user_file = write_users(three_users())});
    Peer peer(server.influx_port());
    const auto status = [&](const std::string &name, const std::string &password) {
      return ask(peer, post("m f=1 5", fmt::format("u={}&p={}", name, password)));
    };
    EXPECT_EQ(status("ann", "ann's+secret"), 204);
    write_users("bob:" + hash_of("new-pass") + "\n");
    server.hang_up();
    EXPECT_TRUE(wait_until([&] { return status("bob", "new-pass") == 204; }));
    EXPECT_EQ(status("ann", "ann's+secret"), 401) << "a removed user was kept";
    write_users("bob:typo\n");
    server.hang_up();
    EXPECT_EQ(status("b%1bob", "hidden-guess"), 401);
    EXPECT_EQ(status("bob", "new-pass"), 204);
  }
  TSLB_DLOG_INIT(nullptr, 0, 10);
  fs::remove(path("users"));
  std::string log;
  for (const auto &[name, content] : tree_of(root_)) log += content;
  EXPECT_THAT(log, HasSubstr("user \"b?ob\" was denied: wrong name or password"));
  EXPECT_THAT(log, HasSubstr("the users stay as before: " + path("users") + ":1: the hash is not one"));
  for (const char *secret : {"secret", "new-pass", "hidden-guess", "typo"}) EXPECT_EQ(count_of(log, secret), 0u) << log;
}
