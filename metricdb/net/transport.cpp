#include "net/transport.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace metricdb {
namespace {

[[noreturn]] void fail_tls(const std::string &what) {
  const char *const why = ERR_reason_error_string(ERR_peek_error());
  throw TlsError(fmt::format("{}: {}", what, why != nullptr ? why : "unknown failure of TLS"));
}

}  // namespace

// ---- Context -------------------------------------------------------------------------------------------------------

void TlsContext::Delete::operator()(ssl_ctx_st *context) const {
  SSL_CTX_free(context);
}

TlsContext::TlsContext(ssl_ctx_st *context) : context_(context) {
  if (context == nullptr || SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1) fail_tls("TLS");
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
  // Bytes to send are kept in a string that grows and moves. Buffers of idle connections are released.
  SSL_CTX_set_mode(context,
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
}

TlsContext TlsContext::of_server(const std::string &certificate_file, const std::string &key_file) {
  ERR_clear_error();
  TlsContext made(SSL_CTX_new(TLS_server_method()));
  if (SSL_CTX_use_certificate_chain_file(made.get(), certificate_file.c_str()) != 1) fail_tls(certificate_file);
  if (SSL_CTX_use_PrivateKey_file(made.get(), key_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(made.get()) != 1)
    fail_tls(key_file);
  return made;
}

TlsContext TlsContext::of_client(const std::string &ca_file) {
  ERR_clear_error();
  TlsContext made(SSL_CTX_new(TLS_client_method()));
  const int loaded = ca_file.empty() ? SSL_CTX_set_default_verify_paths(made.get())
                                     : SSL_CTX_load_verify_locations(made.get(), ca_file.c_str(), nullptr);
  if (loaded != 1) fail_tls(ca_file.empty() ? "the system's certificates" : ca_file);
  SSL_CTX_set_verify(made.get(), SSL_VERIFY_PEER, nullptr);
  return made;
}

// ---- Socket --------------------------------------------------------------------------------------------------------

// The socket as OpenSSL uses it. OpenSSL's own calls write, which raises SIGPIPE.
struct Transport::Bio {
  static Transport &of(BIO *bio) { return *static_cast<Transport *>(BIO_get_data(bio)); }

  static bool is_retried(ssize_t n) { return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR); }

  static int write(BIO *bio, const char *from, int n) {
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(of(bio).fd(), from, static_cast<size_t>(n), MSG_NOSIGNAL);
    if (is_retried(sent)) BIO_set_retry_write(bio);
    return static_cast<int>(sent);
  }

  static int read(BIO *bio, char *to, int n) {
    BIO_clear_retry_flags(bio);
    ssize_t got;
    do got = recv(of(bio).fd(), to, static_cast<size_t>(n), 0);
    while (got < 0 && errno == EINTR);
    if (is_retried(got)) BIO_set_retry_read(bio);
    if (got == 0) of(bio).has_ended_ = true;
    return static_cast<int>(got);
  }

  static long control(BIO *, int command, long, void *) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

  static const BIO_METHOD *method() {
    static const std::unique_ptr<BIO_METHOD, decltype(&BIO_meth_free)> made = [] {
      std::unique_ptr<BIO_METHOD, decltype(&BIO_meth_free)> fresh(
          BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket"), BIO_meth_free);
      BIO_meth_set_write(fresh.get(), write);
      BIO_meth_set_read(fresh.get(), read);
      BIO_meth_set_ctrl(fresh.get(), control);
      return fresh;
    }();
    return made.get();
  }
};

// ---- Transport -----------------------------------------------------------------------------------------------------

void Transport::Delete::operator()(ssl_st *session) const {
  SSL_free(session);
}

Transport::Transport(int fd, const TlsContext *tls, const std::string &peer_name) : socket_(fd) {
  if (tls == nullptr) return;
  ERR_clear_error();
  session_.reset(SSL_new(tls->get()));
  BIO *const bio = session_ ? BIO_new(Bio::method()) : nullptr;
  if (bio == nullptr) throw std::bad_alloc();
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  SSL_set_bio(session_.get(), bio, bio);
  if (peer_name.empty()) {
    SSL_set_accept_state(session_.get());
    return;
  }
  SSL_set_connect_state(session_.get());
  in_addr address;
  const bool is_named = inet_pton(AF_INET, peer_name.c_str(), &address) == 1
                            ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session_.get()), peer_name.c_str()) == 1
                            : SSL_set1_host(session_.get(), peer_name.c_str()) == 1 &&
                                  SSL_set_tlsext_host_name(session_.get(), peer_name.c_str()) == 1;
  if (!is_named) fail_tls(peer_name);
}

ssize_t Transport::receive(char *to, size_t max_bytes) {
  if (session_) return receive_decrypted(to, max_bytes);
  const ssize_t got = recv(fd(), to, max_bytes, 0);
  is_emptied_ = got >= 0 && static_cast<size_t>(got) < max_bytes;
  return got;
}

// A record has 16 KiB at most, so one call of OpenSSL can leave much.
ssize_t Transport::receive_decrypted(char *to, size_t max_bytes) {
  is_emptied_ = receives_after_sending_ = false;
  size_t n_received = 0;
  while (n_received < max_bytes) {
    size_t got = 0;
    ERR_clear_error();
    const int result = error_ != 0 ? 0 : SSL_read_ex(session_.get(), to + n_received, max_bytes - n_received, &got);
    n_received += got;
    if (result == 1) continue;
    const ssize_t end = end_of_call(result);
    is_emptied_ = end < 0 && errno == EAGAIN;
    // The next call returns the end or the error.
    if (n_received == 0) return end;
    break;
  }
  return static_cast<ssize_t>(n_received);
}

ssize_t Transport::end_of_call(int result) {
  const int error = errno;
  if (error_ == 0) {
    const int why = SSL_get_error(session_.get(), result);
    receives_after_sending_ = why == SSL_ERROR_WANT_WRITE;
    if (why == SSL_ERROR_WANT_READ || why == SSL_ERROR_WANT_WRITE) {
      errno = EAGAIN;
      return -1;
    }
    // HTTP has lengths, and incomplete lines are skipped, so an end that is not authenticated is an end too.
    if (why == SSL_ERROR_ZERO_RETURN || has_ended_) return 0;
    error_ = why == SSL_ERROR_SYSCALL && error != 0 ? error : EPROTO;
    const long verified = SSL_get_verify_result(session_.get());
    const char *const reason = ERR_reason_error_string(ERR_peek_error());
    tls_failure_ = verified != X509_V_OK ? X509_verify_cert_error_string(verified)
                   : reason != nullptr   ? reason
                                         : "unknown failure of TLS";
  }
  errno = error_;
  return -1;
}

ssize_t Transport::send(const char *from, size_t n_bytes) {
  if (!session_) return ::send(fd(), from, n_bytes, MSG_NOSIGNAL);
  size_t n_sent = 0;
  ERR_clear_error();
  const int result = error_ != 0 ? 0 : SSL_write_ex(session_.get(), from, n_bytes, &n_sent);
  if (result == 1) return static_cast<ssize_t>(n_sent);
  if (end_of_call(result) == 0) errno = EPIPE;
  return -1;
}

ssize_t Transport::discard(size_t max_bytes) {
  return recv(fd(), nullptr, max_bytes, MSG_TRUNC);
}

bool Transport::end_sending() {
  ERR_clear_error();
  // Without room for its last record the peer sees the end of the socket only.
  if (session_ && error_ == 0 && !is_in_handshake()) SSL_shutdown(session_.get());
  return shutdown(fd(), SHUT_WR) == 0;
}

size_t Transport::unread_bytes() const {
  int unread = 0;
  if (ioctl(fd(), FIONREAD, &unread) != 0) return 0;
  return static_cast<size_t>(unread) + (session_ ? static_cast<size_t>(SSL_pending(session_.get())) : 0);
}

bool Transport::is_in_handshake() const {
  return session_ && SSL_is_init_finished(session_.get()) == 0;
}

}  // namespace metricdb
