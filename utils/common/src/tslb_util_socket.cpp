// Addresses as text, listening sockets, epoll.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tslb_util_common.h"

constexpr size_t ERR_MSG_ROOM = 512;
constexpr size_t LOCAL_PATH_LEN = 107;

// ---- Addresses -----------------------------------------------------------------------------------------------------

static thread_local char address_text[128];

static void write_internet_address(int family, const void *address, in_port_t port, int give_port) {
  if (inet_ntop(family, address, address_text, 123) == nullptr) {
    snprintf(address_text, sizeof(address_text), "BadIP");
    return;
  }
  if (give_port == 0 || port == 0) return;
  const size_t len = strlen(address_text);
  snprintf(address_text + len, sizeof(address_text) - len, ":%d", ntohs(port));
}

// Formats an address. Only `sa_len` bytes of it may be read: a local path may end there without a terminator.
static char *text_of(const struct sockaddr *sa, size_t sa_len, int give_port) {
  address_text[0] = '\0';
  if (sa->sa_family == AF_INET) {
    struct sockaddr_in in;
    memcpy(&in, sa, sizeof(in));
    write_internet_address(AF_INET, &in.sin_addr, in.sin_port, give_port);
  } else if (sa->sa_family == AF_INET6) {
    struct sockaddr_in6 in6;
    memcpy(&in6, sa, sizeof(in6));
    write_internet_address(AF_INET6, &in6.sin6_addr, in6.sin6_port, give_port);
  } else if (sa->sa_family == AF_UNIX) {
    const size_t path_at = offsetof(struct sockaddr_un, sun_path);
    const size_t there = sa_len > path_at ? sa_len - path_at : 0;
    const char *const path = reinterpret_cast<const char *>(sa) + path_at;
    const size_t len = strnlen(path, there < LOCAL_PATH_LEN ? there : LOCAL_PATH_LEN);
    memcpy(address_text, path, len);
    address_text[len] = '\0';
  } else {
    snprintf(address_text, sizeof(address_text), "Bad Family or Address not used");
  }
  return address_text;
}

char *tslb_sockaddr_to_ip(const struct sockaddr *sa, int give_port) {
  return text_of(sa, sizeof(struct sockaddr_un), give_port);
}

// The text for an end without an address. Not const only because of the return type of its users.
static char NOT_CONNECTED[] = "Unknown or Not Connected";

// Formats one end of a socket, read by getsockname or getpeername. The system reports the length of the whole address,
// which can exceed the size of Address.
template <class Address>
static char *end_of(int (*name_of)(int, struct sockaddr *, socklen_t *), int fd, int give_port) {
  Address address;
  memset(&address, 0, sizeof(address));
  socklen_t len = sizeof(address);
  struct sockaddr *const sa = reinterpret_cast<struct sockaddr *>(&address);
  if (name_of(fd, sa, &len) != 0) return NOT_CONNECTED;
  return text_of(sa, len < sizeof(address) ? len : sizeof(address), give_port);
}

char *tslb_get_src_addr_ex(int fd, int give_port) {
  return end_of<struct sockaddr_un>(getsockname, fd, give_port);
}
char *tslb_get_dest_addr_ex(int fd, int give_port) {
  return end_of<struct sockaddr_in6>(getpeername, fd, give_port);
}

// ---- Listening -----------------------------------------------------------------------------------------------------

static void report_bind(char *err_msg, const char *ip_addr, int port, int err) {
  int len = 0;
  if (ip_addr != nullptr)
    len = snprintf(err_msg, ERR_MSG_ROOM, "Error in binding for listen socket (IP = %s, Port = %d). ", ip_addr, port);
  else
    len = snprintf(err_msg, ERR_MSG_ROOM, "Error in binding for listen socket (Port = %d). ", port);
  const size_t used = len < 0 ? 0 : static_cast<size_t>(len) < ERR_MSG_ROOM ? static_cast<size_t>(len) : ERR_MSG_ROOM;
  if (err == EADDRINUSE)
    snprintf(err_msg + used, ERR_MSG_ROOM - used, "IP Address and port is in use");
  else
    snprintf(err_msg + used, ERR_MSG_ROOM - used, "Error = %s", qxlb_strerror(err));
}

// All steps after socket(). Returns 0, or the code of a failure after its report.
static int bind_and_listen(int fd, int *local_port, int backlog, const char *ip_addr, char *err_msg) {
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
    snprintf(err_msg, ERR_MSG_ROOM, "Error in setting socket options for reuse address. Error: %s",
             qxlb_strerror(errno));
    return -1;
  }
  struct sockaddr_in address = {};
  socklen_t address_len = sizeof(address);
  struct sockaddr *const sa = reinterpret_cast<struct sockaddr *>(&address);
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(*local_port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (ip_addr != nullptr && inet_aton(ip_addr, &address.sin_addr) == 0) {
    snprintf(err_msg, ERR_MSG_ROOM, "Error: Invalid IP address (%s) given in tcp_listen_ex().", ip_addr);
    return -3;
  }
  if (bind(fd, sa, sizeof(address)) != 0) {
    report_bind(err_msg, ip_addr, *local_port, errno);
    return -2;
  }
  if (*local_port == 0) {
    if (getsockname(fd, sa, &address_len) != 0) {
      snprintf(err_msg, ERR_MSG_ROOM,
               "getsockname() failed, Error in system generating port(dynamic port %d) Error = %s", *local_port,
               qxlb_strerror(errno));
      return -1;
    }
    *local_port = ntohs(address.sin_port);
  }
  if (listen(fd, backlog) != 0) {
    snprintf(err_msg, ERR_MSG_ROOM, "Error in listening on socket. Error: %s", qxlb_strerror(errno));
    return -1;
  }
  return 0;
}

int tslb_tcp_listen(int *local_port, int backlog, const char *ip_addr, char *err_msg) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    snprintf(err_msg, ERR_MSG_ROOM, "Error in creating socket. Error: %s\n", qxlb_strerror(errno));
    return -1;
  }
  const int failure = bind_and_listen(fd, local_port, backlog, ip_addr, err_msg);
  if (failure == 0) return fd;
  close(fd);
  return failure;
}

// ---- Epoll ---------------------------------------------------------------------------------------------------------

int tslb_epoll_init(int max_fds, char *) {
  return epoll_create(max_fds);
}

int tslb_add_select(int v_epoll_fd, int fd, int event, char *errMsg) {
  struct epoll_event added = {};
  added.events = static_cast<uint32_t>(event);
  added.data.fd = fd;
  if (epoll_ctl(v_epoll_fd, EPOLL_CTL_ADD, fd, &added) == 0) return 0;
  snprintf(errMsg, ERR_MSG_ROOM, "add_select epoll add: err = %s\n", qxlb_strerror(errno));
  return -1;
}
