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

// A handler with no body, not SIG_IGN: with that the children would be reaped before pclose asks for them.
void tslb_ignore_sigchild(int) {}

// Installed while it lives; the host's own comes back on every way out.
struct sigchld_guard_t {
  void (*previous)(int) = signal(SIGCHLD, tslb_ignore_sigchild);
  ~sigchld_guard_t() {
    if (previous != SIG_ERR) signal(SIGCHLD, previous);
  }
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

// Reads to the end, keeping the last line or its last piece that fits; `out` is left alone if there is none.
// Pieces go straight to where the last one stays.
static void keep_last_line(FILE *from, char *out, int length) {
  bool read_any = false;
  if (length > 1) {
    while (fgets(out, length, from) != nullptr) read_any = true;
  } else {
    // No room for a character, which fgets would never take from the stream.
    char dropped[4096];
    while (fgets(dropped, sizeof(dropped), from) != nullptr) read_any = true;
    if (read_any) out[0] = '\0';
  }
  if (read_any) out[strcspn(out, "\n")] = '\0';
}

int tslb_run_cmd_and_get_last_line(const char *cmd, int length, char *out, char *error_buffer) {
  snprintf(error_buffer, ERROR_BUFFER_ROOM, "Method called. Command = %s", cmd);
  if (length < 1) {
    snprintf(error_buffer, ERROR_BUFFER_ROOM, "Error: no room for the output of command = %s", cmd);
    return -1;
  }
  const sigchld_guard_t guard;
  FILE *const from = popen(cmd, "r");
  if (from == nullptr) {
    fprintf(stderr, "Error: Error in executing command = %s. Error = %s\n", cmd, strerror(errno));
    return -1;
  }
  keep_last_line(from, out, length);
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
  FILE *const from = popen(command, "r");
  if (from == nullptr) {
    if (err_msg != nullptr) snprintf(err_msg, ERR_MSG_ROOM, "command execution failed, error - %s", strerror(errno));
    return nullptr;
  }
  char *output_ptr = output;
  size_t amt_left = static_cast<size_t>(outbuf_len) - 1;
  char piece[4096];
  while (fgets(piece, sizeof(piece), from) != nullptr) {
    const size_t length = strnlen(piece, amt_left);
    memcpy(output_ptr, piece, length);
    output_ptr += length;
    amt_left -= length;
    if (amt_left == 0) break;  // the rest is not waited for
  }
  *output_ptr = '\0';
  pclose(from);
  return output;
}
