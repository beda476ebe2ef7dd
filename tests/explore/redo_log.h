// The host's redo log: each record is kept with its bytes, as they are at the call of the hook.
#ifndef TSLB_EXPLORE_REDO_LOG_H
#define TSLB_EXPLORE_REDO_LOG_H

void switch_log(bool on);
void keep_log();  // the state to which restore_log() returns
void restore_log();

// Applies all records to scene.replica. Returns false after a violation.
bool apply_log();

#endif
