/* Services around the storage: processes, commands, small helpers, sockets. No operation here knows an array.
 *
 * Texts go to buffers of the caller, whose least sizes are told with each, or to a buffer of the calling thread that
 * its next call overwrites. Threads: any, except where said. */
#ifndef TSLB_UTIL_COMMON_H
#define TSLB_UTIL_COMMON_H

#include <sys/socket.h>
#include <sys/types.h>

#include "tslb_decl.h"

TSLB_BEGIN_DECLS

/* ---- Partitions ------------------------------------------------------------------------------------------------- */

/* Frequencies by name, in seconds. */
typedef enum tslb_frequency_t {
  zero = 0,
  _1s = 1,
  _10s = 10,
  _1m = 60,
  _2m = 120,
  _3m = 180,
  _4m = 240,
  _5m = 300,
  _10m = 600,
  _15m = 900,
  _30m = 1800,
  _1h = 3600,
  _2h = 7200,
  _4h = 14400,
  _8h = 28800,
  _1d = 86400,
  _2d = 172800,
  _3d = 259200,
  _14d = 1209600,
  _30d = 2592000,
  _45d = 3888000,
  _90d = 7776000,
  _450d = 38880000
} tslb_frequency_t;

/* Frequency of each partition type, in seconds. */
extern TSLB_API int tslb_freq_arr[7];

/* Partition type of a frequency, and back; -1 for what is not in tslb_freq_arr. */
TSLB_API int tslb_frequency_2_partition_type(int freq);
TSLB_API int tslb_partition_type_2_frequency(unsigned char partition_type);

/* ---- Small helpers ---------------------------------------------------------------------------------------------- */

/* Splits a line in place at the characters of `token`. Runs of them count as one; no field is empty.
 *
 * fields  room for max_flds pointers into read_buf.
 * Result  how many were stored. Of more fields than fit, the rest of the line is not looked at. */
TSLB_API int get_tokens(char *read_buf, char **fields, const char *token, int max_flds);

/* Makes every directory on `path` up to its last slash, mode 0777: of a path without a slash at its end the last name
 * is taken for a file's. A relative path begins at the working directory.
 *
 * Result  1, also if all were there. 0 after a line on stderr: a path of more than 8,000 characters or 64 names, or a
 *         directory that cannot be made; those before it stay. */
TSLB_API int mkdir_ex(const char *path);

/* Text of an error number, in a buffer of the calling thread. */
TSLB_API char *qxlb_strerror(int num);

/* ---- Commands ----------------------------------------------------------------------------------------------------
 * A command runs under the shell. Meanwhile the process's action for SIGCHLD is an empty handler; afterwards it is what
 * it was, with its mask and flags, on every return. That is process-wide and takes no lock: a host that calls these
 * from several threads, or while it waits for children of its own, serialises them. The pipe to a command is closed in
 * programs that other threads start meanwhile. A thread that is cancelled here leaves the empty handler in place. */

/* The empty handler. */
TSLB_API void tslb_ignore_sigchild(int sig);

/* Runs a command.
 *
 * err_msg  at least 256 bytes; written on failure.
 * Result   0 if it ended well; its exit status, 1 to 255, or a negative value if it could not be run, both with a text;
 *          a value above 0 without a text if a signal ended it. A shell that cannot be started counts as one that ended
 *          with 127. */
TSLB_API int tslb_system(const char *cmd, char *err_msg);

/* Runs a command and keeps the last line of its output, without the newline.
 *
 * length        bytes of `out`, at least 1. Of a longer line the last piece of length - 1 characters is kept.
 * out           unchanged if the command wrote nothing. If a read fails, the last line or piece that was read whole.
 * error_buffer  at least 512 bytes: what was called, or what failed.
 * Result        0, whatever the command's exit status; -1 if it could not be started or memory for a line of `length`
 *               bytes was refused (also a line on stderr), or if length is below 1. */
TSLB_API int tslb_run_cmd_and_get_last_line(const char *cmd, int length, char *out, char *error_buffer);

/* Runs a command and keeps the start of its output, newlines included.
 *
 * err_msg     NULL, or at least 256 bytes; written on failure.
 * outbuf_len  bytes of `output`, at least 1, terminator included. Output beyond it is not read.
 * Result      output; NULL if the command could not be started or outbuf_len is below 1. */
TSLB_API char *tslb_exe_command_and_get_op(const char *command, char *err_msg, char *output, int outbuf_len);

/* ---- Processes -------------------------------------------------------------------------------------------------- */

/* 0 if the process is a zombie, 1 if not, 2 if that cannot be told. */
TSLB_API int tslb_check_is_process_zombie(pid_t pid);

/* 1 if a process runs, 0 if not; a zombie does not.
 *
 * proc_name  NULL, or the kernel's name for it (at most 15 characters): a process of another name counts as gone. Not
 *            compared where the caller may not signal the process, another user's. */
TSLB_API int tslb_check_pid_alive(pid_t pid, const char *proc_name);

/* The process that a pid file, base_dir/.component.pid, names on its first line, if it runs under the expected name.
 *
 * bin_name      the name, of which 15 characters count; NULL for the calling process's own. A process whose name holds
 *               a dot also matches if bin_name begins with the part before the dot. That part is empty for a process
 *               whose name begins with a dot, so such a process matches every bin_name.
 * error_buffer  at least 512 bytes.
 * Result        the process id. -1: no such file, or a path that does not fit (text in error_buffer). -2: no process id
 *               in it (text on stdout). -4: another name (text on stdout). -5: the process is gone, or
 *               ps could not be run. */
TSLB_API int tslb_get_pid(const char *base_dir, const char *component, const char *bin_name, char *error_buffer);

/* The same for the main host component of a run, whose pid file lies below the environment's QX_WDIR. The last one
 * takes tslb_testidx as the run. */
TSLB_API int check_tarnhub_pid_alive_ex(int test_num);
TSLB_API int check_tarnhub_pid_alive_tr(int test_num);
TSLB_API int check_tarnhub_pid_alive(void);

/* ---- Sockets ---------------------------------------------------------------------------------------------------- */

/* An address as text, in a buffer of the calling thread: "address" or, if give_port is not 0 and there is one,
 * "address:port" (no brackets around an IPv6 address); the path of a local socket. */
TSLB_API char *tslb_sockaddr_to_ip(const struct sockaddr *sa, int give_port);

/* The local end and the peer of a socket as such a text, or "Unknown or Not Connected". */
TSLB_API char *tslb_get_src_addr_ex(int fd, int give_port);
TSLB_API char *tslb_get_dest_addr_ex(int fd, int give_port);

/* Makes a listening TCP socket (IPv4, address reuse on, blocking). Children of the host inherit it unless the host sets
 * FD_CLOEXEC: such a child keeps the port in use after the host's end, and can accept the host's connections.
 *
 * local_port  the port; 0 asks for a free one, which is stored there.
 * ip_addr     the address to bind; NULL for all.
 * err_msg     at least 512 bytes; written on failure.
 * Result      the descriptor. -3: not an address. -2: it cannot be bound. -1: anything else. Nothing stays open
 *             then. */
TSLB_API int tslb_tcp_listen(int *local_port, int backlog, const char *ip_addr, char *err_msg);

/* Makes an epoll set. Children of the host inherit it unless the host sets FD_CLOEXEC.
 *
 * max_fds  above 0; otherwise without effect.
 * err_msg  not read and not written.
 * Result   the descriptor, or -1 with errno set. */
TSLB_API int tslb_epoll_init(int max_fds, char *err_msg);

/* Adds a descriptor to a set, with `event` as its events. 0, or -1 with a text in errMsg (at least 512 bytes). */
TSLB_API int tslb_add_select(int v_epoll_fd, int fd, int event, char *errMsg);

TSLB_END_DECLS

#endif
