// Tests of partitions, tokens, directories, error texts and sockets.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include <tslb/tslb_util_common.h>
#include "array_support.h"
#include "system_support.h"
#include "threads.h"

TEST(Partitions, TypesAndFrequencies) {
  const int frequencies[] = {1, 10, 60, 600, 3600, 14400, 86400};
  for (int type = 0; type < 7; ++type) {
    EXPECT_EQ(tslb_freq_arr[type], frequencies[type]);
    EXPECT_EQ(tslb_frequency_2_partition_type(frequencies[type]), type);
    EXPECT_EQ(tslb_partition_type_2_frequency(static_cast<unsigned char>(type)), frequencies[type]);
  }
  for (const int freq : {0, -1, 2, int{_2m}, int{_450d}}) EXPECT_EQ(tslb_frequency_2_partition_type(freq), -1) << freq;
  EXPECT_EQ(tslb_partition_type_2_frequency(7), -1);
  EXPECT_EQ(tslb_partition_type_2_frequency(255), -1);
}

TEST(Tokens, FieldsOfALine) {
  static const struct {
    const char *line, *delimiters;
    int max, want;
    const char *last;
  } rows[] = {
      {"a,b,,c", ",", 10, 3, "c"}, {"a,b,c,d", ",", 2, 2, "b"}, {"", ",", 10, 0, nullptr}, {",,,", ",", 10, 0, nullptr},
      {"a b;c", " ;", 10, 3, "c"}, {"a", ",", 0, 0, nullptr},   {"one", ",", 1, 1, "one"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    char line[32], *fields[10] = {};
    snprintf(line, sizeof(line), "%s", row.line);
    EXPECT_EQ(get_tokens(line, fields, row.delimiters, row.max), row.want);
    if (row.want > 0) {
      EXPECT_STREQ(fields[row.want - 1], row.last);
    }
    EXPECT_EQ(fields[row.want], nullptr);
  }
}

TEST(Tokens, ManyThreadsAtOnce) {
  on_threads(3, [](int self) {
    for (int round = 0; round < 1000; ++round) {
      char line[64], *fields[8];
      snprintf(line, sizeof(line), "%d,%d,%d,%d", self, self, self, self);
      ASSERT_EQ(get_tokens(line, fields, ",", 8), 4);
      for (int i = 0; i < 4; ++i) ASSERT_EQ(atoi(fields[i]), self);
    }
  });
}

TEST(ErrorText, EachThreadHasItsOwn) {
  char *const mine = qxlb_strerror(ENOENT);
  EXPECT_STREQ(mine, "No such file or directory");
  std::thread([&] {
    EXPECT_NE(qxlb_strerror(EACCES), mine);
    EXPECT_STREQ(qxlb_strerror(99999), "Unknown error 99999");
  }).join();
  EXPECT_STREQ(mine, "No such file or directory");
  EXPECT_EQ(qxlb_strerror(EACCES), mine);
}

using Directories = InFolder;

TEST_F(Directories, CreatesAllDirectoriesUpToTheLastSlash) {
  EXPECT_EQ(mkdir_ex((dir_ / "a/b/c").c_str()), 1);
  EXPECT_TRUE(fs::is_directory(dir_ / "a/b"));
  const mode_t mask = umask(0);
  EXPECT_EQ(mkdir_ex((dir_ / "open/x").c_str()), 1);
  umask(mask);
  EXPECT_EQ(fs::status(dir_ / "open").permissions(), fs::perms(0777));
  EXPECT_FALSE(fs::exists(dir_ / "a/b/c")) << "the name after the last slash was created as a directory";
  EXPECT_EQ(mkdir_ex((dir_ / "a/b/c/").c_str()), 1);
  EXPECT_TRUE(fs::is_directory(dir_ / "a/b/c"));
  EXPECT_EQ(mkdir_ex((dir_ / "a//x///y/").c_str()), 1);
  EXPECT_TRUE(fs::is_directory(dir_ / "a/x/y"));
  for (const char *nothing : {"", "name", "/"}) EXPECT_EQ(mkdir_ex(nothing), 1) << nothing;

  const fs::path before = fs::current_path();
  fs::current_path(dir_);
  EXPECT_EQ(mkdir_ex("r/s/file"), 1);
  EXPECT_EQ(mkdir_ex("./t/../u/"), 1);
  fs::current_path(before);
  for (const char *made : {"r/s", "t", "u"}) EXPECT_TRUE(fs::is_directory(dir_ / made)) << made;
}

TEST_F(Directories, FailuresNameTheDirectoryAndKeepExistingOnes) {
  std::ofstream(dir_ / "file") << "x";
  EXPECT_EQ(
      stderr_of([&] { EXPECT_EQ(mkdir_ex((dir_ / "new/../file/below/x").c_str()), 0); }),
      "Error in creating directory. Path: '/" + dir_.string() + "/new/../file/below'. Error = 'Not a directory'\n");
  EXPECT_TRUE(fs::is_directory(dir_ / "new"));
}

TEST_F(Directories, Limits) {
  const auto with_length = [&](size_t len) {
    std::string path = dir_.string() + "/";
    while (path.size() < len) path += path.size() + 200 < len ? std::string(199, 'd') + "/" : "f";
    return path;
  };
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(mkdir_ex(with_length(4000).c_str()), 1); }), "");
  // Longer than the system allows: accepted by mkdir_ex, refused by the system.
  EXPECT_EQ(stderr_of([&] { mkdir_ex(with_length(8000).c_str()); }).find("Error in creating directory."), 0u);
  const std::string path = with_length(8001);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(mkdir_ex(path.c_str()), 0); }),
            "mkdir_ex() - Length of path (8001) is more than max allowed (8192). Path: '" + path + "'\n");

  std::string fields = dir_.string();
  const size_t slashes = static_cast<size_t>(std::count(fields.begin(), fields.end(), '/'));
  for (size_t i = slashes + 1; i < 64; ++i) fields += "/x";
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(mkdir_ex(fields.c_str()), 1); }), "");
  fs::remove_all(dir_ / "x");
  EXPECT_NE(stderr_of([&] { EXPECT_EQ(mkdir_ex((fields + "/x").c_str()), 0); }), "");
  EXPECT_FALSE(fs::exists(dir_ / "x")) << "directories of a refused path were created";
}

static std::string text_of(const void *address, int give_port) {
  return tslb_sockaddr_to_ip(static_cast<const struct sockaddr *>(address), give_port);
}

TEST(Addresses, AsText) {
  struct sockaddr_in v4 = {};
  v4.sin_family = AF_INET;
  inet_aton("10.1.2.3", &v4.sin_addr);
  EXPECT_EQ(text_of(&v4, 1), "10.1.2.3");
  v4.sin_port = htons(8080);
  EXPECT_EQ(text_of(&v4, 1), "10.1.2.3:8080");
  EXPECT_EQ(text_of(&v4, 0), "10.1.2.3");
  struct sockaddr_in6 v6 = {};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(65535);
  v6.sin6_addr.s6_addr[15] = 1;
  EXPECT_EQ(text_of(&v6, 7), "::1:65535");
  struct sockaddr_un local = {};
  local.sun_family = AF_UNIX;
  strcpy(local.sun_path, "/tmp/x");
  EXPECT_EQ(text_of(&local, 1), "/tmp/x");
  memset(local.sun_path, 'p', sizeof(local.sun_path));
  const struct sockaddr_un before = local;
  EXPECT_EQ(text_of(&local, 1), std::string(107, 'p'));
  EXPECT_EQ(memcmp(&before, &local, sizeof(local)), 0);
  v4.sin_family = 17;
  EXPECT_EQ(text_of(&v4, 1), "Bad Family or Address not used");
  char *const mine = tslb_sockaddr_to_ip(reinterpret_cast<struct sockaddr *>(&v6), 0);
  std::thread([&] { EXPECT_NE(tslb_sockaddr_to_ip(reinterpret_cast<struct sockaddr *>(&v6), 0), mine); }).join();
  EXPECT_EQ(tslb_sockaddr_to_ip(reinterpret_cast<struct sockaddr *>(&v6), 0),
            tslb_sockaddr_to_ip(reinterpret_cast<struct sockaddr *>(&v4), 0));
}

TEST(Sockets, ListeningAndItsFailures) {
  const size_t before = open_descriptors();
  char err_msg[1024] = "";
  int port = 0;
  const int listening = tslb_tcp_listen(&port, 5, "127.0.0.1", err_msg);
  ASSERT_GE(listening, 0) << err_msg;
  ASSERT_GT(port, 0);
  EXPECT_EQ(std::string(tslb_get_src_addr_ex(listening, 1)), "127.0.0.1:" + std::to_string(port));
  EXPECT_STREQ(tslb_get_dest_addr_ex(listening, 1), "Unknown or Not Connected");
  int reuse = 0;
  socklen_t reuse_len = sizeof(reuse);
  EXPECT_EQ(getsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &reuse, &reuse_len), 0);
  EXPECT_NE(reuse, 0);
  int all_port = 0;
  const int on_all = tslb_tcp_listen(&all_port, 5, nullptr, err_msg);
  EXPECT_EQ(std::string(tslb_get_src_addr_ex(on_all, 1)), "0.0.0.0:" + std::to_string(all_port));
  close(on_all);
  const std::string port_text = std::to_string(port);
  const int second = tslb_tcp_listen(&port, 5, "127.0.0.2", err_msg);
  EXPECT_EQ(std::string(tslb_get_src_addr_ex(second, 1)), "127.0.0.2:" + port_text)
      << "the reported port is not the socket's";
  close(second);
  // Text after an address is not parsed, but the report shows it.
  EXPECT_EQ(tslb_tcp_listen(&port, 5, ("127.0.0.1 " + std::string(600, 'x')).c_str(), err_msg), -2);
  EXPECT_EQ(strlen(err_msg), 511u);
  EXPECT_EQ(std::string(err_msg + 512, 512), std::string(512, '\0')) << "written after the end of the buffer";
  const std::string taken = "Port = " + port_text + "). IP Address and port is in use";
  const struct {
    const char *address;
    int port, result;
    std::string text;
  } failures[] = {
      {"127.0.0.1", port, -2, "Error in binding for listen socket (IP = 127.0.0.1, " + taken},
      {nullptr, port, -2, "Error in binding for listen socket (" + taken},
      {"192.0.2.1", 0, -2,
       "Error in binding for listen socket (IP = 192.0.2.1, Port = 0). Error = Cannot assign requested address"},
      {"300.1.2.3", 0, -3, "Error: Invalid IP address (300.1.2.3) given in tcp_listen_ex()."},
  };
  int any;
  for (const auto &failure : failures) {
    any = failure.port;
    EXPECT_EQ(tslb_tcp_listen(&any, 5, failure.address, err_msg), failure.result);
    EXPECT_EQ(err_msg, failure.text);
  }
  any = 0;
  EXPECT_EQ(open_descriptors(), before + 1) << "a failure left its socket open";

  {
    const limit_t limit(RLIMIT_NOFILE, 0);
    EXPECT_EQ(tslb_tcp_listen(&any, 5, nullptr, err_msg), -1);
  }
  EXPECT_STREQ(err_msg, "Error in creating socket. Error: Too many open files\n");

  // The addresses of both ends of a connection.
  const int client = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  inet_aton("127.0.0.1", &to.sin_addr);
  ASSERT_EQ(connect(client, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)), 0);
  const int server = accept(listening, nullptr, nullptr);
  EXPECT_EQ(std::string(tslb_get_dest_addr_ex(client, 1)), "127.0.0.1:" + port_text);
  const std::string clients_end = tslb_get_src_addr_ex(client, 1);
  EXPECT_EQ(std::string(tslb_get_dest_addr_ex(server, 1)), clients_end);
  EXPECT_EQ(std::string(tslb_get_dest_addr_ex(server, 0)), "127.0.0.1");
  for (const int fd : {client, server, listening}) close(fd);
  EXPECT_EQ(open_descriptors(), before);
}

static const char *refused_call;  // fails once, with ENOBUFS

template <class Function, class... Args>
static int call_or_refuse(const char *name, Args... args) {
  if (refused_call == nullptr || strcmp(refused_call, name) != 0)
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))(args...);
  refused_call = nullptr;
  errno = ENOBUFS;
  return -1;
}
extern "C" __attribute__((visibility("default"))) int setsockopt(int fd, int level, int name, const void *value,
                                                                 socklen_t len) noexcept {
  return call_or_refuse<decltype(&setsockopt)>("setsockopt", fd, level, name, value, len);
}
extern "C" __attribute__((visibility("default"))) int getsockname(int fd, struct sockaddr *address,
                                                                  socklen_t *len) noexcept {
  return call_or_refuse<decltype(&getsockname)>("getsockname", fd, address, len);
}
extern "C" __attribute__((visibility("default"))) int listen(int fd, int backlog) noexcept {
  return call_or_refuse<decltype(&listen)>("listen", fd, backlog);
}

TEST(Sockets, StepsOfListeningThatFail) {
  static const struct {
    const char *call, *text;
  } rows[] = {
      {"setsockopt", "Error in setting socket options for reuse address. Error: No buffer space available"},
      {"getsockname",
       "getsockname() failed, Error in system generating port(dynamic port 0) Error = No buffer space available"},
      {"listen", "Error in listening on socket. Error: No buffer space available"},
  };
  const size_t before = open_descriptors();
  for (const auto &row : rows) {
    SCOPED_TRACE(row.call);
    char err_msg[512] = "";
    int port = 0;
    refused_call = row.call;
    EXPECT_EQ(tslb_tcp_listen(&port, 5, "127.0.0.1", err_msg), -1);
    EXPECT_EQ(refused_call, nullptr) << "the call was not made";
    EXPECT_STREQ(err_msg, row.text);
    EXPECT_EQ(open_descriptors(), before) << "the socket was left open";
  }
}

using LocalSockets = InFolder;

TEST_F(LocalSockets, AddressesOfOtherDescriptorsAndOfLocalSockets) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  EXPECT_STREQ(tslb_get_src_addr_ex(pipe_ends[0], 1), "Unknown or Not Connected");
  EXPECT_STREQ(tslb_get_src_addr_ex(-1, 1), "Unknown or Not Connected");
  close(pipe_ends[0]);
  close(pipe_ends[1]);

  // A peer's path longer than the 28 bytes that are requested is cut to them.
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof(address.sun_path), "%s/a_rather_long_name_of_a_socket", dir_.c_str());
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0), client = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listening, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listening, 1), 0);
  ASSERT_EQ(connect(client, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0);
  EXPECT_STREQ(tslb_get_src_addr_ex(listening, 1), address.sun_path);
  EXPECT_EQ(std::string(tslb_get_dest_addr_ex(client, 1)), std::string(address.sun_path, 26));
  EXPECT_STREQ(tslb_get_src_addr_ex(client, 1), "") << "a socket without a path has one";
  close(listening);
  close(client);
}

TEST(Epoll, CreationAdditionAndFailures) {
  char err_msg[512] = "from before";
  const int set = tslb_epoll_init(10, err_msg);
  ASSERT_GE(set, 0);
  EXPECT_STREQ(err_msg, "from before");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(tslb_add_select(set, ends[0], EPOLLIN, err_msg), 0);
  EXPECT_EQ(tslb_add_select(set, ends[0], EPOLLIN, err_msg), -1);
  EXPECT_STREQ(err_msg, "add_select epoll add: err = File exists\n");
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  struct epoll_event event = {};
  ASSERT_EQ(epoll_wait(set, &event, 1, 1000), 1);
  EXPECT_EQ(event.data.fd, ends[0]);
  EXPECT_EQ(event.events, static_cast<uint32_t>(EPOLLIN));
  for (const int fd : {ends[0], ends[1], set}) close(fd);

  char untouched[1] = {'u'};  // of any size, and without a terminator
  EXPECT_EQ(tslb_epoll_init(0, untouched), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(untouched[0], 'u');
  EXPECT_EQ(tslb_epoll_init(0, nullptr), -1);
}
