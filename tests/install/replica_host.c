/* Opens a replica where no server is. */
#include <stdio.h>
#include <tslb/replica.h>

int main(void) {
  tslb_array_decl_t names = {
      .name = "names", .kind = TSLB_ARRAY_RECORDS, .tbl_id = 1, .record_bytes = 16, .n_direct = 4};
  tslb_replica_options_t options = {.servers = "nats://127.0.0.1:1", .name = "test", .patience_ms = 1};
  tslb_error_t error = {0};
  tslb_replica_t *replica = tslb_replica_open("replica_store", &names, 1, &options, &error);
  printf("%s, code %d\n", replica == NULL ? "no servers" : "open", error.code);
  return tslb_replica_close(replica, NULL);
}
