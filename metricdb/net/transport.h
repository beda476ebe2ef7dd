// The bytes of a connection: as they are, or in TLS 1.2 or 1.3 by OpenSSL. Neither raises SIGPIPE.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

#include "net/descriptor.h"

struct ssl_st;
struct ssl_ctx_st;

namespace metricdb {

// A file that cannot be used, in one line.
class TlsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The certificate of a server, or what a client trusts. It can be destroyed before the transports that were made with it.
class TlsContext {
 public:
  // Files in PEM: the certificate with the chain to its authority, and its key. Throws TlsError.
  static TlsContext of_server(const std::string &certificate_file, const std::string &key_file);
  // ca_file  authorities to trust; empty: those of the system. Throws TlsError.
  static TlsContext of_client(const std::string &ca_file);

  ssl_ctx_st *get() const { return context_.get(); }

 private:
  struct Delete {
    void operator()(ssl_ctx_st *context) const;
  };
  explicit TlsContext(ssl_ctx_st *context);

  std::unique_ptr<ssl_ctx_st, Delete> context_;
};

// Threads: one. The socket blocks or not; the functions behave as those of the socket.
class Transport {
 public:
  // Owns the socket. The handshake begins with the first call of `receive` or `send`.
  //
  // tls        null: no TLS.
  // peer_name  of the server that a client expects: its name or IPv4 address.
  Transport(int fd, const TlsContext *tls, const std::string &peer_name = "");
  Transport(const Transport &) = delete;
  Transport &operator=(const Transport &) = delete;

  int fd() const { return socket_.get(); }

  // As recv and send: the number of bytes, 0 at the end of the input, -1 with errno. EPROTO: `tls_failure` has the reason.
  // A send that returned -1 with EAGAIN is repeated with at least the same bytes.
  ssize_t receive(char *to, size_t max_bytes);
  ssize_t send(const char *from, size_t n_bytes);
  // Discards received bytes, without their decryption. After it `receive` is not called.
  ssize_t discard(size_t max_bytes);
  // Returns false on an error of the socket.
  bool end_sending();

  // The last `receive` has taken everything that has arrived.
  bool is_emptied() const { return is_emptied_; }
  // It cannot continue until the socket takes bytes.
  bool receives_after_sending() const { return receives_after_sending_; }
  // At least the number of bytes that `receive` can return now; more if they are encrypted.
  size_t unread_bytes() const;
  bool is_in_handshake() const;
  const std::string &tls_failure() const { return tls_failure_; }

 private:
  struct Bio;
  struct Delete {
    void operator()(ssl_st *session) const;
  };

  ssize_t receive_decrypted(char *to, size_t max_bytes);
  // Returns -1 with errno, or 0 at the end of the input.
  ssize_t end_of_call(int result);

  Descriptor socket_;
  std::unique_ptr<ssl_st, Delete> session_;
  bool is_emptied_ = false;
  bool receives_after_sending_ = false;
  bool has_ended_ = false;  // the peer closed the socket or the session
  int error_ = 0;           // errno of all later calls
  std::string tls_failure_;
};

}  // namespace metricdb
