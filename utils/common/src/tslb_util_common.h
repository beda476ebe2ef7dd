/* Services beside the storage: processes, commands, small helpers, sockets. No operation here uses an array.
 *
 * Texts are written to buffers of the caller, whose minimum sizes are stated, or to a buffer of the calling thread that
 * its next call overwrites. Threads: any, except where stated. */
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

/* Convert a frequency to its partition type, and back; -1 for a value that is not in tslb_freq_arr. */
TSLB_API int tslb_frequency_2_partition_type(int freq);
TSLB_API int tslb_partition_type_2_frequency(unsigned char partition_type);

/* ---- Small helpers ---------------------------------------------------------------------------------------------- */

/* Splits a line in place at the characters of `token`. Runs of these characters count as one; no field is empty.
 *
 * fields  room for max_flds pointers into read_buf.
 * Result  the number of fields stored. After max_flds fields the rest of the line is not read. */
TSLB_API int get_tokens(char *read_buf, char **fields, const char *token, int max_flds);

/* Creates every directory on `path` up to its last slash, mode 0777. The name after the last slash counts as a file and
 * is not created. A relative path begins at the working directory.
 *
 * Result  1, also if all directories existed. 0 after a line on stderr: the path has more than 8,000 characters or 64
 *         names, or a directory cannot be created; those before it stay. */
TSLB_API int mkdir_ex(const char *path);

/* Returns the text of an error number, in a buffer of the calling thread. */
TSLB_API char *qxlb_strerror(int num);

/* ---- Commands ----------------------------------------------------------------------------------------------------
 * A command runs under the shell. During the call the process's action for SIGCHLD is an empty handler. Every return
 * restores the previous action with its mask and flags. This is process-wide and takes no lock: a host that calls these
 * functions from several threads, or while it waits for children of its own, serialises them. Programs that other
 * threads start during the call do not inherit the pipe to the command. If the calling thread is cancelled, the empty
 * handler stays in place. */

/* The empty handler. */
TSLB_API void tslb_ignore_sigchild(int sig);

/* Runs a command.
 *
 * err_msg  at least 256 bytes; written on failure.
 * Result   0 if the command ended with status 0. Its exit status, 1 to 255, or a negative value if it could not be run,
 *          both with a text in err_msg. A value above 0 without a text if a signal ended it. A shell that cannot be
 *          started counts as a command that ended with 127. */
TSLB_API int tslb_system(const char *cmd, char *err_msg);

/* Runs a command and keeps the last line of its output, without the newline.
 *
 * length        bytes of `out`, at least 1. Of a longer line the last piece of length - 1 characters is kept.
 * out           unchanged if the command wrote nothing. If a read fails: the last line or piece that was read
 *               completely.
 * error_buffer  at least 512 bytes: the command, or the failure.
 * Result        0, for every exit status of the command; -1 if it could not be started or memory for a line of `length`
 *               bytes was refused (also a line on stderr), or if length is below 1. */
TSLB_API int tslb_run_cmd_and_get_last_line(const char *cmd, int length, char *out, char *error_buffer);

/* Runs a command and keeps the start of its output, newlines included.
 *
 * err_msg     NULL, or at least 256 bytes; written on failure.
 * outbuf_len  bytes of `output`, at least 1, terminator included. Further output is not read.
 * Result      output; NULL if the command could not be started or outbuf_len is below 1. */
TSLB_API char *tslb_exe_command_and_get_op(const char *command, char *err_msg, char *output, int outbuf_len);

/* ---- Processes -------------------------------------------------------------------------------------------------- */

/* Returns 0 if the process is a zombie, 1 if not, 2 if its state cannot be read. */
TSLB_API int tslb_check_is_process_zombie(pid_t pid);

/* Returns 1 if a process runs, 0 if not. A zombie does not run.
 *
 * proc_name  NULL, or the kernel's name of the process (at most 15 characters): a process with another name does not
 *            count. The name is not compared if the caller may not signal the process because it belongs to another
 *            user. */
TSLB_API int tslb_check_pid_alive(pid_t pid, const char *proc_name);

/* Returns the process id on the first line of a pid file, base_dir/.component.pid, if that process runs under the
 * expected name.
 *
 * bin_name      the name, of which 15 characters count; NULL for the calling process's own name. A process whose name
 *               contains a dot also matches if bin_name begins with the part before the dot. For a name that begins
 *               with a dot this part is empty, so such a process matches every bin_name.
 * error_buffer  at least 512 bytes.
 * Result        the process id. -1: no such file, or the path is too long (text in error_buffer). -2: the file contains
 *               no process id (text on stdout). -4: the name differs (text on stdout). -5: the process does not exist,
 *               or ps could not be run. */
TSLB_API int tslb_get_pid(const char *base_dir, const char *component, const char *bin_name, char *error_buffer);

/* The same for the main host component of a run, whose pid file lies below the environment's QX_WDIR.
 * check_tarnhub_pid_alive uses tslb_testidx as the run. */
TSLB_API int check_tarnhub_pid_alive_ex(int test_num);
TSLB_API int check_tarnhub_pid_alive_tr(int test_num);
TSLB_API int check_tarnhub_pid_alive(void);

/* ---- Sockets ---------------------------------------------------------------------------------------------------- */

/* Returns an address as text, in a buffer of the calling thread: "address", or "address:port" if give_port is not 0 and
 * the port is not 0 (no brackets around an IPv6 address). For a local socket: its path. */
TSLB_API char *tslb_sockaddr_to_ip(const struct sockaddr *sa, int give_port);

/* Return the local and the peer address of a socket as such a text, or "Unknown or Not Connected". */
TSLB_API char *tslb_get_src_addr_ex(int fd, int give_port);
TSLB_API char *tslb_get_dest_addr_ex(int fd, int give_port);

/* Creates a listening TCP socket (IPv4, address reuse on, blocking). Children of the host inherit it unless the host
 * sets FD_CLOEXEC: such a child keeps the port in use after the host ends, and can accept the host's connections.
 *
 * local_port  the port; 0 requests a free port, which is stored there.
 * ip_addr     the address to bind; NULL for all.
 * err_msg     at least 512 bytes; written on failure.
 * Result      the descriptor. -3: ip_addr is not an address. -2: the address cannot be bound. -1: any other failure.
 *             After a failure no descriptor stays open. */
TSLB_API int tslb_tcp_listen(int *local_port, int backlog, const char *ip_addr, char *err_msg);

/* Creates an epoll set. Children of the host inherit it unless the host sets FD_CLOEXEC.
 *
 * max_fds  above 0; otherwise without effect.
 * err_msg  not read and not written.
 * Result   the descriptor, or -1 with errno set. */
TSLB_API int tslb_epoll_init(int max_fds, char *err_msg);

/* Adds a descriptor to a set, with `event` as its events. Returns 0, or -1 with a text in errMsg (at least 512
 * bytes). */
TSLB_API int tslb_add_select(int v_epoll_fd, int fd, int event, char *errMsg);

TSLB_END_DECLS

#endif
