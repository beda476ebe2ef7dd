// Shell commands under a replaced SIGCHLD handler.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include "tslb_util_common.h"

constexpr size_t ERR_MSG_ROOM = 256;
constexpr size_t ERROR_BUFFER_ROOM = 511;
constexpr size_t PIECE_BYTES = 4096;
// Programs that other threads of the host start meanwhile do not inherit the descriptor.
constexpr char READ_CLOSE_ON_EXEC[] = "re";

// An empty handler, not SIG_IGN: with SIG_IGN the kernel would reap the children before pclose waits for them.
void tslb_ignore_sigchild(int) {}

// Installs the empty handler for its lifetime. The destructor restores the host's whole action: signal() would lose its
// mask, its flags and, with SA_SIGINFO, its arguments.
struct sigchld_guard_t {
  sigchld_guard_t() {
    struct sigaction empty = {};
    empty.sa_handler = tslb_ignore_sigchild;
    empty.sa_flags = SA_RESTART;
    sigaction(SIGCHLD, &empty, &previous);  // cannot fail: the signal and both addresses are valid
  }
  ~sigchld_guard_t() { sigaction(SIGCHLD, &previous, nullptr); }
  sigchld_guard_t(const sigchld_guard_t &) = delete;
  struct sigaction previous;
};

int tslb_system(const char *cmd, char *err_msg) {
  const sigchld_guard_t guard;
  const int ret = system(cmd);
  if (ret < 0) {
    const int err = errno;
    snprintf(err_msg, ERR_MSG_ROOM, "Error in running command. Err[%d]: %s. Command = %s", err, qxlb_strerror(err),
             cmd);
    return ret;
  }
  const int exit_status = (ret >> 8) & 0xFF;
  if (exit_status == 0) return ret;
  const int err = errno;
  snprintf(err_msg, ERR_MSG_ROOM, "Error in running command with exit status = %d. Err[%d]: %s. Command = %s",
           exit_status, err, qxlb_strerror(err), cmd);
  return exit_status;
}

// A buffer of at least PIECE_BYTES. It allocates only for a larger size. `bytes` is null, with errno set, if memory was
// refused.
struct scratch_t {
  explicit scratch_t(size_t room) : bytes(room > PIECE_BYTES ? static_cast<char *>(malloc(room)) : small) {}
  ~scratch_t() {
    if (bytes != small) free(bytes);
  }
  scratch_t(const scratch_t &) = delete;
  char small[PIECE_BYTES];
  char *const bytes;
};

// Reads to the end and keeps the last line, or the last piece of it that fits. `out` is unchanged if nothing was read.
// Reads go to `piece` first: after a failed read `piece` is undefined, and `out` still holds the last complete piece.
static void keep_last_line(FILE *from, char *piece, char *out, int length) {
  bool read_any = false;
  // With a length of 1 fgets would read nothing. The result is then an empty text.
  const int piece_bytes = length > 1 ? length : static_cast<int>(PIECE_BYTES);
  while (fgets(piece, piece_bytes, from) != nullptr) {
    read_any = true;
    snprintf(out, static_cast<size_t>(length), "%s", piece);
  }
  if (read_any) out[strcspn(out, "\n")] = '\0';
}

int tslb_run_cmd_and_get_last_line(const char *cmd, int length, char *out, char *error_buffer) {
  snprintf(error_buffer, ERROR_BUFFER_ROOM, "Method called. Command = %s", cmd);
  if (length < 1) {
    snprintf(error_buffer, ERROR_BUFFER_ROOM, "Error: no room for the output of command = %s", cmd);
    return -1;
  }
  const scratch_t piece(static_cast<size_t>(length));
  const sigchld_guard_t guard;
  FILE *const from = piece.bytes != nullptr ? popen(cmd, READ_CLOSE_ON_EXEC) : nullptr;
  if (from == nullptr) {
    fprintf(stderr, "Error: Error in executing command = %s. Error = %s\n", cmd, strerror(errno));
    return -1;
  }
  keep_last_line(from, piece.bytes, out, length);
  if (pclose(from) == -1)
    snprintf(
        error_buffer, ERROR_BUFFER_ROOM,
        "Error: Error in pclose() after executing following cmd: '%s', This may happen due to child exiting before "
        "pclose(), Hence ignoring. Error returned by system: '%s'",
        cmd, strerror(errno));
  return 0;
}

char *tslb_exe_command_and_get_op(const char *command, char *err_msg, char *output, int outbuf_len) {
  if (outbuf_len < 1) {
    if (err_msg != nullptr) snprintf(err_msg, ERR_MSG_ROOM, "command execution failed, error - no room for its output");
    return nullptr;
  }
  const sigchld_guard_t guard;
  FILE *const from = popen(command, READ_CLOSE_ON_EXEC);
  if (from == nullptr) {
    if (err_msg != nullptr) snprintf(err_msg, ERR_MSG_ROOM, "command execution failed, error - %s", strerror(errno));
    return nullptr;
  }
  char *output_ptr = output;
  size_t amt_left = static_cast<size_t>(outbuf_len) - 1;
  char piece[PIECE_BYTES];
  while (fgets(piece, sizeof(piece), from) != nullptr) {
    const size_t length = strnlen(piece, amt_left);
    memcpy(output_ptr, piece, length);
    output_ptr += length;
    amt_left -= length;
    if (amt_left == 0) break;  // does not wait for the rest
  }
  *output_ptr = '\0';
  pclose(from);
  return output;
}
