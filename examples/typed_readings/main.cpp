// Readings of places, in a store that survives the end of the process. Each run adds two and prints all.
#include <cstddef>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <tslb/durable.hpp>

struct reading {
  uint32_t gatekeeper = 0;  // the first word of a slot's record is the library's
  float celsius = 0;
  tslb::chunk_ref<tslb::kind::bit_vector> place = {};  // the null address, until a chunk is taken
};

class readings {
 public:
  explicit readings(const std::string &folder) {
    // The shadow reports a change that was not named. Remove it when the program is tested. A generation replaces the
    // journal each time it has grown by snapshot_bytes.
    const tslb::store_options options = {.creates = true, .has_shadow = true, .snapshot_bytes = 64 << 20};
    store_ = tslb::store::open(folder, schema_, options).value();  // throws the failure's text
  }

  void add(std::string_view place, float celsius) {
    tslb::batch batch = store_.begin().value();
    // An exception from here to commit refuses the batch: nothing of it is ever durable.
    const auto taken = store_.add(batch, slots_, {.celsius = celsius});  // names the record, too
    if (!taken) throw std::runtime_error("no slot for " + std::string(place));
    const tslb::referrer from(1, taken.idx, offsetof(reading, place));
    taken->place = batch.put(places_, std::as_bytes(std::span(place)), from).value().ref;
    batch.commit().value();
  }

  void print() const {
    const auto slots = store_.get(slots_);
    const auto places = store_.get(places_);
    for (const auto [idx, record] : slots.active()) {
      const auto place = places.data(record->place);  // with the zeroes of a rounded length
      std::printf("%u %s %.1f\n", idx, std::string(reinterpret_cast<const char *>(place.data()), place.size()).c_str(),
                  static_cast<double>(record->celsius));
    }
  }

 private:
  tslb::schema schema_;
  tslb::array_key<tslb::slot_view<reading>> slots_ = schema_.slots<reading>("readings", {.tbl_id = 1});
  tslb::array_key<tslb::pool_view<tslb::kind::bit_vector>> places_ =
      schema_.pool<tslb::kind::bit_vector>("places", {.tbl_id = 2, .slot_bytes = 4096});
  tslb::store store_;
};

int main(int argc, char **argv) {
  try {
    readings all(argc > 1 ? argv[1] : "readings");
    all.add("hill", 20.0f);
    all.add("roof", 21.5f);
    all.print();
  } catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
