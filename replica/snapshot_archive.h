// Snapshots in a stream: a folder as an archive in chunks.
//
// An archive has its files one after the other: the length of the name (4 bytes), the length of the file (8 bytes), the
// name, which is a path in the folder, and the bytes. A snapshot is complete if the stream has its last chunk.
#pragma once

#include <string>

#include "log_message.h"
#include "nats_log.h"

namespace tslb_replica {

// Publishes the files of a folder, and removes older snapshots after that. Throws StoreError, also if a newer one is there.
void publish_archive(NatsStream &stream, const MessageHead &head, const std::string &folder, size_t chunk_bytes);

// Writes the files of the last complete snapshot to a folder, which is made. Returns a head of it; nothing if there is no
// snapshot. Throws StoreError.
std::optional<MessageHead> fetch_archive(NatsStream &stream, const std::string &folder);

}  // namespace tslb_replica
