/* A durable store that other machines follow. The groups of one store, the leader, go to a replicated log: a stream of NATS
 * JetStream. Any number of followers apply them to stores of their own, which have the same arrays, byte by byte. A
 * follower can be promoted. Consensus, copies of the log and their agreement are the servers' work; this library uses
 * "expected last sequence" of a stream, so that of two leaders only one can append. docs/scale.md says what each mode
 * loses.
 *
 * Terms
 *   log        the stream NAME_log, subject NAME.log: groups of batches, numbered without gaps from 1
 *   epoch      the time of one leader. It begins with a message in the log; its groups follow
 *   snapshot   a copy of a store in the stream NAME_snapshot, subject NAME.snapshot, from which a new follower begins
 *
 * Roles. A replica is opened as a follower. It follows the log with a thread of its own: it begins from the last
 * snapshot if it is empty, or if the log was cut beyond its position, and goes on after interruptions. A message that
 * is damaged, of another store, of a newer version or not the next one is refused, with its sequence and the reason:
 * nothing of it is applied, and the replica ends as a follower (TSLB_REPLICA_ENDED). tslb_replica_promote makes it the
 * leader. A leader whose message is refused, because another leads, ends at once: the store breaks, and no batch is
 * acknowledged any more. To follow again, a replica is closed and opened.
 *
 * Groups that a former leader has and the log has not are taken out of its store when it is opened, and set aside in
 * the file set_aside.EPOCH.NUMBER of its folder, one log message after the other. They are never applied again by this
 * library.
 *
 * The store (tslb_replica_store) is used as durable.h says: a leader has batches; a follower is read between
 * tslb_store_begin_reading and _end_reading. Its tslb_store_apply, _adopt, _promote and _close are called by the
 * replica alone.
 *
 * Errors and threads are those of durable.h. TSLB_DURABLE_IO: the servers cannot be reached, or do not answer in time.
 * TSLB_DURABLE_REFUSED: another replica leads. */
#ifndef TSLB_REPLICA_H
#define TSLB_REPLICA_H

#include <tslb/durable.h>

TSLB_BEGIN_DECLS

typedef struct tslb_replica_t tslb_replica_t;

/* When a leader's batch is acknowledged (its ticket settles). */
typedef enum tslb_replica_mode_t {
  TSLB_REPLICA_BOTH,  /* when it is durable here, and in the log */
  TSLB_REPLICA_ASYNC, /* when it is durable here. The log follows, at most `window` messages later */
  TSLB_REPLICA_STREAM /* when it is in the log. The journal here is written, and not synced */
} tslb_replica_mode_t;

typedef enum tslb_replica_role_t { TSLB_REPLICA_FOLLOWER, TSLB_REPLICA_LEADER, TSLB_REPLICA_ENDED } tslb_replica_role_t;

/* Zero in the other fields gives the defaults. */
typedef struct tslb_replica_options_t {
  const char *servers; /* URLs with commas between them, such as "nats://10.0.0.1:4222,nats://10.0.0.2:4222" */
  const char *name;    /* of the streams: 1 to 31 of a-z, A-Z, 0-9, '_' and '-' */
  tslb_replica_mode_t mode;
  uint32_t n_copies;    /* copies of a stream that is created here, 1 to 5; 0: 1. An existing stream stays as it is */
  uint64_t log_bytes;   /* limit of a log that is created here, which loses its oldest groups then; 0: no limit */
  uint32_t window;      /* ASYNC: messages that the log has not confirmed, at most; 0: 256 */
  uint32_t patience_ms; /* how long an operation tries to reach the servers; 0: 10,000 */
  uint32_t chunk_bytes; /* of a body in one message, at most; 0: 262,144, or less if the server's limit demands it */
  /* Of the store. `log` is ignored, and `sync` with TSLB_REPLICA_STREAM. */
  tslb_store_options_t store;
} tslb_replica_options_t;

typedef struct tslb_replica_info_t {
  tslb_replica_role_t role;
  tslb_log_position_t position; /* of the store */
  uint64_t lag;                 /* follower: messages of the log that are not applied; leader: not confirmed */
  double lag_s;          /* follower: age of the last applied group if messages are missing, by the clocks of both
                                 * machines and at least 0, or the time since the servers answered last if that is longer;
                                 * else 0 */
  uint64_t n_bootstraps; /* snapshots that were taken over since the opening */
  uint64_t n_set_aside;  /* groups that were set aside by the opening */
  char set_aside[512];   /* the file with them; empty if there is none */
  char text[512];        /* why the role ended, or what a follower waits for; empty if all is well */
} tslb_replica_info_t;

/* Opens a store as a follower, and connects. The store is created with TSLB_STORE_CREATE in options->store.flags. A store
 * that has content and no position can only found a log: it follows none. Result: the replica, or NULL. */
tslb_replica_t *tslb_replica_open(const char *folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                                  const tslb_replica_options_t *options, tslb_error_t *error);

/* Ends following or leading, waits for the log with TSLB_REPLICA_ASYNC, and closes the store. Null is ignored. No other
 * thread uses the replica or its store. Result: 0, or -1: it is released all the same, except with TSLB_DURABLE_INVALID: a
 * batch of this thread is open, and the replica goes on. */
int tslb_replica_close(tslb_replica_t *replica, tslb_error_t *error);

/* Returns the store, which belongs to the replica. Any thread. */
tslb_store_t *tslb_replica_store(tslb_replica_t *replica);

/* Any thread. */
void tslb_replica_get_info(tslb_replica_t *replica, tslb_replica_info_t *info);

/* Makes a follower the leader: applies the rest of the log, and begins the next epoch. An empty log is founded: the store
 * becomes its first snapshot. A leader that still leads is deposed by this. If another begins an epoch meanwhile, this
 * fails with TSLB_DURABLE_REFUSED. Batches can begin when this is done. Result: 0, or -1: the replica still follows; with
 * TSLB_DURABLE_IO the leader before can be deposed all the same. If an empty log was being founded, the role can have ended
 * (TSLB_REPLICA_ENDED). Any thread; one at a time. */
int tslb_replica_promote(tslb_replica_t *replica, tslb_error_t *error);

/* The same, unless another has led since: only if the log is empty, or `epoch` is its last epoch. Otherwise this fails with
 * TSLB_DURABLE_REFUSED, and deposes nobody. For a leader that is started again without an operator's decision. 0: only an
 * empty log. Any thread; one at a time. */
int tslb_replica_promote_after(tslb_replica_t *replica, uint64_t epoch, tslb_error_t *error);

/* Publishes a snapshot of the store, and removes older ones after that. Leader or follower. Batches and following go on.
 *
 * cuts_log not 0: removes the groups from the log that the snapshot contains. Followers that lack them begin from the
 * snapshot. Result 0, or -1: the snapshot before is still there; with TSLB_DURABLE_REFUSED it is newer, or another leads.
 * Any thread; one at a time. */
int tslb_replica_publish_snapshot(tslb_replica_t *replica, int cuts_log, tslb_error_t *error);

/* Asks the servers how many bytes the log has: a host publishes a snapshot when they are many. Result: 0, or -1. Any
 * thread. */
int tslb_replica_get_log_bytes(tslb_replica_t *replica, uint64_t *bytes, tslb_error_t *error);

TSLB_END_DECLS

#endif
