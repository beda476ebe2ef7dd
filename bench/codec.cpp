// Cost of metricdb's encoded blocks of points.
//
// Measured: encoding and decoding blocks of 128 points, as a series seals them, and of 2,048, as they are joined; per point.
// The values are walks as those of scripts/fleet: integers, and real numbers with one and two decimal places, every 10 s.
// Compared with zstd (level 1) of the same points as they are in memory, and with a copy of them. The names of the rows
// contain the bytes of a point in a block, which are about those in a database.
//
// Not measured: joining, storing and finding the chunks.
//
// Run: bench_codec [--quick] [--benchmark_filter=REGEX]
#include <string.h>
#include <zstd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "codec/point_block.h"
#include "ratio.h"

using metricdb::Point;
using metricdb::ValueType;

constexpr size_t N_POINTS = size_t{1} << 18;

struct walk_t {
  const char *name;
  ValueType type;
  int places;
};

static std::vector<Point> points_of(const walk_t &walk) {
  constexpr int64_t START_NS = 1'767'225'600'000'000'000, INTERVAL_NS = 10'000'000'000;
  std::mt19937_64 random(1);
  std::normal_distribution<double> step;
  std::vector<Point> points(N_POINTS);
  const double power = std::pow(10, walk.places);
  double at = 50 * power;
  for (size_t i = 0; i < N_POINTS; ++i) {
    at = std::clamp(at + step(random) * power, 0.0, 100 * power);
    const auto number = static_cast<int64_t>(at);
    const int64_t ts_ns = START_NS + static_cast<int64_t>(i) * INTERVAL_NS;
    points[i] = walk.type == ValueType::integer ? metricdb::integer_point(ts_ns, number)
                                                : Point{ts_ns, static_cast<double>(number) / power};
  }
  return points;
}

// The points in blocks of n, encoded in two forms.
struct blocks_t {
  size_t n = 0;
  ValueType type = {};
  std::vector<Point> points;
  std::vector<std::vector<char>> encoded, compressed;
  std::vector<char> out;
  std::vector<Point> decoded;

  const char *block(size_t i) const { return reinterpret_cast<const char *>(points.data() + i * n); }
  size_t bytes() const { return n * sizeof(Point); }
  size_t n_blocks() const { return points.size() / n; }
};

static std::shared_ptr<blocks_t> make_blocks(const walk_t &walk, size_t n) {
  const auto blocks = std::make_shared<blocks_t>();
  blocks->n = n;
  blocks->type = walk.type;
  blocks->points = points_of(walk);
  blocks->out.resize(std::max(metricdb::max_block_bytes(n), ZSTD_compressBound(blocks->bytes())));
  char *const out = blocks->out.data();
  for (size_t i = 0; i < blocks->n_blocks(); ++i) {
    blocks->encoded.emplace_back(out, out + metricdb::encode_block(blocks->block(i), n, walk.type, out));
    blocks->compressed.emplace_back(out,
                                    out + ZSTD_compress(out, blocks->out.size(), blocks->block(i), blocks->bytes(), 1));
  }
  return blocks;
}

// Calls work(number of a block) for all of them. The checksum is the same for all candidates, because verify() compares the
// last block's points with those that it was made of.
template <class Work>
static candidate_t over_blocks(const char *name, const std::shared_ptr<blocks_t> &blocks, Work work) {
  return {name,
          [blocks, work](unsigned) {
            for (size_t i = 0; i < blocks->n_blocks(); ++i) work(i);
            return uint64_t{1};
          },
          [blocks] { blocks->decoded.clear(); },
          [blocks] {
            const size_t last = blocks->n_blocks() - 1;
            return uint64_t{blocks->decoded.empty() ||
                            memcmp(blocks->decoded.data(), blocks->block(last), blocks->bytes()) == 0};
          }};
}

static std::vector<candidate_t> make_encoding(const std::shared_ptr<blocks_t> &blocks) {
  blocks_t &all = *blocks;
  return {
      over_blocks("tslb", blocks,
                  [&all](size_t i) { metricdb::encode_block(all.block(i), all.n, all.type, all.out.data()); }),
      over_blocks("zstd", blocks,
                  [&all](size_t i) { ZSTD_compress(all.out.data(), all.out.size(), all.block(i), all.bytes(), 1); }),
      over_blocks("copy", blocks, [&all](size_t i) { memcpy(all.out.data(), all.block(i), all.bytes()); })};
}

static std::vector<candidate_t> make_decoding(const std::shared_ptr<blocks_t> &blocks) {
  blocks_t &all = *blocks;
  return {over_blocks("tslb", blocks,
                      [&all](size_t i) {
                        all.decoded.clear();
                        const std::vector<char> &bytes = all.encoded[i];
                        metricdb::decode_block(bytes.data(), bytes.size(), all.n, all.type, all.decoded);
                      }),
          over_blocks("zstd", blocks,
                      [&all](size_t i) {
                        all.decoded.resize(all.n);
                        const std::vector<char> &bytes = all.compressed[i];
                        ZSTD_decompress(all.decoded.data(), all.bytes(), bytes.data(), bytes.size());
                      }),
          over_blocks("copy", blocks, [&all](size_t i) {
            all.decoded.resize(all.n);
            memcpy(all.decoded.data(), all.block(i), all.bytes());
          })};
}

static void add_cases() {
  static const walk_t walks[] = {
      {"integers", ValueType::integer, 0}, {"one decimal", ValueType::real, 1}, {"two decimals", ValueType::real, 2}};
  for (const size_t n : {size_t{128}, size_t{2048}})
    for (const walk_t &walk : walks) {
      const std::shared_ptr<blocks_t> blocks = make_blocks(walk, n);
      size_t bytes = 0;
      for (const std::vector<char> &block : blocks->encoded) bytes += block.size();
      char name[64];
      snprintf(name, sizeof(name), "%zu %s, %.2f bytes", n, walk.name, static_cast<double>(bytes) / N_POINTS);
      add_case(
          std::string("encode ") + name, 1, [blocks] { return make_encoding(blocks); }, N_POINTS);
      add_case(
          std::string("decode ") + name, 1, [blocks] { return make_decoding(blocks); }, N_POINTS);
    }
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| a point of a block, time relative to", add_cases);
}
