#include "durable_store.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "render.h"
#include "store.h"
#include "store_load.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;
using json_t = nlohmann::ordered_json;
using tslb_durable::LoadedStore;
using tslb_durable::StoreError;

uint32_t declared_bytes(const tslb_durable::StoredArrayEntry &entry) {
  return entry.record_bytes - (tslb_durable::is_pool(entry.kind) ? TSLB_MEM_SLOT_HDR_BYTES : 0);
}

json_t json_of(const std::string &folder, const LoadedStore &store) {
  json_t json = {{"store", folder},
                 {"identity", tslb_durable::text_of_identity(store.state.identity)},
                 {"generation", store.generation},
                 {"closed", store.is_sealed},
                 {"journal_bytes", store.journal_bytes},
                 {"batches_in_journals", store.n_batches},
                 {"bytes_after_the_last_group", store.cut_bytes},
                 {"payload_bytes", store.payload.size()},
                 {"warning", store.warning},
                 {"arrays", json_t::array()}};
  for (size_t i = 0; i < store.arrays.size(); ++i) {
    const tslb_durable::StoredArrayEntry &entry = store.manifest.arrays[i];
    json["arrays"].push_back({{"name", entry.name},
                              {"kind", tslb_durable::KIND_NAMES[entry.kind]},
                              {"table", entry.tbl_id},
                              {"record_bytes", declared_bytes(entry)},
                              {"rec_version", entry.rec_version},
                              {"daflag", entry.daflag},
                              {"slots_in_generation", entry.n_slots},
                              {"slots", tslb_da_get_size(store.arrays[i].get())},
                              {"stream_bytes", entry.file.bytes},
                              {"description", entry.description}});
  }
  return json;
}

// The members of the JSON object, one per line, and a table of the arrays.
std::string text_of(const json_t &json) {
  std::string text;
  for (const auto &[name, value] : json.items())
    if (name != "arrays" && value != "")
      text += fmt::format("{:<28}{}\n", name, printable(value.is_string() ? value.get<std::string>() : value.dump()));
  text += fmt::format("\n{:<20}{:<12}{:>6}{:>8}{:>8}{:>12}{:>12}  description\n", "array", "kind", "table", "version",
                      "bytes", "slots", "stored");
  for (const json_t &array : json["arrays"])
    text += fmt::format("{:<20}{:<12}{:>6}{:>8}{:>8}{:>12}{:>12}  {}\n", array["name"].get<std::string>(),
                        array["kind"].get<std::string>(), array["table"].get<int64_t>(),
                        array["rec_version"].get<uint32_t>(), array["record_bytes"].get<uint32_t>(),
                        array["slots"].get<uint32_t>(), array["slots_in_generation"].get<uint32_t>(),
                        printable(array["description"].get<std::string>()));
  return text;
}

bool is_damage(const StoreError &error) {
  return error.code() == TSLB_DURABLE_DAMAGED;
}

std::string first_bytes(const std::string &path, size_t count) {
  std::string bytes(count, '\0');
  std::ifstream file(path, std::ios::binary);
  file.read(bytes.data(), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<size_t>(file.gcount()));
  return bytes;
}

}  // namespace

store_inspection_t inspect_store(const std::string &folder, bool json) {
  try {
    json_t result = json_of(folder, tslb_durable::load_store(folder, {}));
    result["sound"] = true;
    return {json ? result.dump(2, ' ', false, json_t::error_handler_t::replace) + "\n" : text_of(result), true};
  } catch (const StoreError &error) {
    if (!is_damage(error)) throw unreadable_t(error.what());
    const json_t fault = {
        {"store", folder}, {"sound", false}, {"fault", error.what()}, {"file", error.file()}, {"byte", error.byte()}};
    return {json ? fault.dump(2, ' ', false, json_t::error_handler_t::replace) + "\n"
                 : fmt::format("damaged: {}\n", printable(error.what())),
            false};
  }
}

void expect_no_store(const std::string &path) {
  std::error_code ignored;
  const std::string hint = "; --store FOLDER shows a durable store";
  if (fs::is_directory(path, ignored) && fs::exists(path + "/store", ignored))
    throw unreadable_t(path + ": is a folder" + hint);
  if (!fs::is_regular_file(path, ignored)) return;
  if (first_bytes(path, tslb_durable::JOURNAL_MAGIC.size()) == tslb_durable::JOURNAL_MAGIC)
    throw unreadable_t(path + ": is a journal" + hint);
  constexpr std::string_view ZSTD_MAGIC = "\x28\xB5\x2F\xFD";
  if (first_bytes(path, ZSTD_MAGIC.size()) == ZSTD_MAGIC)
    throw unreadable_t(path + ": is compressed; zstd -d makes a stream of it" + hint);
  if (first_bytes(path, 13) == "tslb-sidecar ")
    throw unreadable_t(path + ": is a sidecar, which is read with the array beside it");
  if (first_bytes(path, 5) == "tslb-") throw unreadable_t(path + ": is a text file of a durable store" + hint);
}

}  // namespace inspect
