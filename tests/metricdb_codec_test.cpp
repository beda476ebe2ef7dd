// The encoded forms of points: blocks, and the runs of earlier versions.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>

#include "codec/point_block.h"
#include "codec/point_codec.h"
#include "codec/wide_instructions.h"
#include "extent.h"

using namespace metricdb;

constexpr int64_t T0 = 1'767'225'600'000'000'000;  // the beginning of 2026
constexpr int64_t S = 1'000'000'000;
constexpr ValueType REAL = ValueType::real, INTEGER = ValueType::integer;

static double of_bits(uint64_t bits) {
  return std::bit_cast<double>(bits);
}

static bool same(const std::vector<Point> &a, const std::vector<Point> &b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Point)) == 0);
}

// Uses an odd address and exactly the promised room, so that a sanitizer detects an access outside of it.
static std::vector<char> encoded(const std::vector<Point> &points, ValueType type) {
  std::vector<char> bytes(1 + points.size() * sizeof(Point));
  std::memcpy(bytes.data() + 1, points.data(), points.size() * sizeof(Point));
  std::vector<char> out(max_block_bytes(points.size()));
  out.resize(encode_block(bytes.data() + 1, points.size(), type, out.data()));
  out.shrink_to_fit();
  return out;
}

static void expect_back(const std::vector<Point> &points, ValueType type) {
  const std::vector<char> bytes = encoded(points, type);
  const bool is_wide = uses_wide_instructions;
  for (const bool uses : {false, is_wide}) {
    uses_wide_instructions = uses;
    std::vector<Point> found = {{1, 2.0}};
    EXPECT_EQ(encoded(points, type), bytes) << "other instructions give other bytes";
    ASSERT_TRUE(decode_block(bytes.data(), bytes.size(), points.size(), type, found));
    EXPECT_EQ(found[0].ts_ns, 1) << "points before are replaced";
    found.erase(found.begin());
    ASSERT_TRUE(same(found, points));
  }
}

static std::string hex(const std::vector<char> &bytes) {
  std::string shown;
  for (const char byte : bytes) shown += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return shown;
}

// This format is stored. The bytes were computed by hand from the table in the header.
TEST(PointBlock, GoldenBlocks) {
  const std::vector<Point> decimals = {{10 * S, 21.5}, {20 * S, 21.75}, {30 * S, 21.5},  {41 * S, -0.0},
                                       {50 * S, 21.5}, {60 * S, 21.75}, {70 * S, 21.25}, {80 * S, 21.75}};
  EXPECT_EQ(hex(encoded(decimals, REAL)),
            "0314"                    // seconds; the first time
            "0212"                    // differences 10 10 11 9 10 10 10: from 9 on in 2 bits
            "2515"                    // 1 1 2 0 1 1 1
            "11069a21"                // 2 decimal places; from 2125 on in 6 bits
            "999c65990cc8"            // 25 50 25 25 25 50 0 50
            "01030000000000000080");  // one exception, number 3: -0.0
  std::vector<Point> integers;
  for (int64_t i = 0; i < 16; ++i) integers.push_back(integer_point(i, i % 8 * 1000));
  EXPECT_EQ(hex(encoded(integers, INTEGER)),
            "00000002"    // nanoseconds; the first time; equal differences of 1
            "0400"        // differences; the first number
            "c0d00f"      // from 1000 in both directions, in no bits, with exceptions
            "0007ff7c");  // one, number 7: -8000
}

// The same, for a block with all kinds of groups. A decoder that was written from the description read these bytes.
TEST(PointBlock, GoldenCodedBlock) {
  std::vector<Point> points;
  int64_t value = 0;
  for (int64_t i = 0; i < 256; ++i) {
    points.push_back(integer_point(10 * S * i, value));
    value += i % 64 == 9 ? 40 : i % 4 == 1 ? 1 : i % 16 == 2 ? -1 : 0;
  }
  EXPECT_EQ(hex(encoded(points, INTEGER)),
            "03003b14"                  // seconds; the first time; all differences are 10
            "0400"                      // differences; the first number
            "3c0000"                    // coded; base 0, no low bits
            "8f0c000000000040c8e8b43d"  // weights 15 8 12 of the symbols 0 1 2, and 4 of 15; first states
            "2946af4142f1099c46e50982178142ea16e709842822e91a1da61192136b085f411a8d51ff5c00"
            "41414141");  // 40 four times: its code is 80
}

static std::vector<Point> random_points(std::mt19937_64 &random, size_t n, ValueType type) {
  const unsigned step_bits = random() % 64, jitter_bits = random() % 65, kind = random() % 8, places = random() % 16;
  const uint64_t unit = random() % 2 == 0 ? 1 : 1'000'000, step = (random() >> (63 - step_bits)) * unit;
  uint64_t ts_ns = random() % 2 == 0 ? static_cast<uint64_t>(T0) : random();
  double value = 50;
  uint64_t walk = random() % 2 == 0 ? 0 : random();
  std::vector<Point> points;
  for (size_t i = 0; i < n; ++i) {
    const bool is_off = random() % 4 == 0 && jitter_bits != 0;
    const auto at = static_cast<int64_t>(ts_ns + (is_off ? random() >> (64 - jitter_bits) : 0));
    const uint64_t drawn = random();
    walk += drawn % 64 == 0 ? drawn >> drawn / 64 % 64 : drawn % (uint64_t{1} << step_bits) - 3;
    points.push_back(type == INTEGER ? integer_point(at, static_cast<int64_t>(walk)) : Point{at, value});
    ts_ns += step;
    if (kind == 0) value = of_bits(drawn);
    if (kind == 1) value = of_bits(std::bit_cast<uint64_t>(value) ^ (drawn >> drawn % 64 << drawn / 64 % 64));
    if (kind == 2) value += static_cast<double>(drawn % 3) - 1;
    if (kind == 3) value = std::round(value * 100 + static_cast<double>(drawn % 200) - 99) / 100;
    if (kind == 4) value = static_cast<double>(drawn % 1'000'000'007) / std::pow(10.0, places);
    if (kind == 5) value = static_cast<float>(drawn % 1000) * 0.1f;
    if (kind == 6) value = drawn % 16 != 0 ? static_cast<double>(drawn % 100) : of_bits(0x7ff8000000000000 + drawn % 3);
    if (kind == 7) value = drawn % 32 != 0 ? 1.5 : -0.0;
  }
  return points;
}

TEST(PointBlock, RandomPointsComeBack) {
  constexpr uint64_t SEED = 20260102;
  std::mt19937_64 random(SEED);
  for (int round = 0; round < 6'000; ++round) {
    SCOPED_TRACE(fmt::format("seed {}, round {}", SEED, round));
    const ValueType type = round % 3 == 0 ? INTEGER : REAL;
    expect_back(random_points(random, 1 + random() % (round % 16 == 0 ? 3'000 : 300), type), type);
    if (HasFatalFailure()) return;
  }
  expect_back(random_points(random, MAX_BLOCK_POINTS, REAL), REAL);
}

// The bytes of 128 points, without the times if they are regular.
TEST(PointBlock, SizeOfUsualSeries) {
  std::mt19937_64 random(3);
  std::normal_distribution<double> normal;
  constexpr size_t N = 128, TIMES = 12;
  double walk = 500;
  const struct {
    const char *fault;  // what the row detects
    std::function<double(int)> value;
    size_t max_bytes;
  } rows[] = {
      {"a constant is repeated", [](int) { return 0.1; }, 6},
      {"a counter with a constant rate is no line", [](int i) { return 1e6 + 1000.0 * i; }, 8},
      {"one outlier widens all", [](int i) { return i == 64 ? 1e12 : i % 4; }, 8 + N / 4 + 20},
      {"small steps are not stored as differences", [&](int) { return walk += static_cast<double>(random() % 3) - 1; },
       8 + N / 4 + 8},
      {"decimals are not scaled", [&](int) { return walk = std::round((walk + normal(random)) * 10) / 10; },
       8 + N * 7 / 8 + 8},
      {"a missing value ends the scaling", [&](int i) { return i % 40 == 0 ? std::nan("") : i % 8 * 0.25; },
       8 + N * 10 / 8 + 44},
      {"bits that are zero in all are stored", [&](int i) { return static_cast<float>(i % 100) * 0.37f; },
       8 + N * 36 / 8},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::vector<Point> points;
    for (int i = 0; i < static_cast<int>(N); ++i) points.push_back({T0 + 10 * S * i, row.value(i)});
    EXPECT_LE(encoded(points, REAL).size(), TIMES + row.max_bytes);
    expect_back(points, REAL);
  }
}

// A walk at random, whose steps a long block stores in little more than their entropy.
TEST(PointBlock, LongBlocksAreNearTheEntropy) {
  constexpr size_t N = 2'048;
  for (const int places : {0, 1, 2}) {
    SCOPED_TRACE(places);
    std::mt19937_64 random(7);
    std::normal_distribution<double> step(0, std::pow(10, places));
    std::vector<Point> points;
    std::map<int64_t, double> n_of_step;
    double walk = 1e6;
    for (size_t i = 0; i < N; ++i) {
      const auto before = static_cast<int64_t>(walk), now = static_cast<int64_t>(walk += step(random));
      if (i != 0) ++n_of_step[now - before];
      const auto at = T0 + 10 * S * static_cast<int64_t>(i);
      points.push_back(places == 0 ? integer_point(at, now)
                                   : Point{at, static_cast<double>(now) / std::pow(10, places)});
    }
    double bits = 0;
    for (const auto &[_, n] : n_of_step) bits += n * std::log2((N - 1) / n);
    const ValueType type = places == 0 ? INTEGER : REAL;
    EXPECT_LE(encoded(points, type).size(), 40 + static_cast<size_t>(bits / 8 * 1.04));
    expect_back(points, type);
    // Times that are not quite regular.
    for (size_t i = 0; i < N; i += 5) points[i].ts_ns += 1'000'000;
    EXPECT_LE(encoded(points, type).size(), 80 + static_cast<size_t>(bits / 8 * 1.04 + N * 0.17));
    expect_back(points, type);
  }
}

// Every byte sequence is refused or has the given number of points, and a sanitizer detects other accesses.
TEST(PointBlock, OtherBytesAreRefusedOrPoints) {
  std::mt19937_64 random(5);
  uint64_t n_decoded = 0, n_refused = 0;
  const auto decode = [&](const std::vector<char> &bytes, size_t n, ValueType type) {
    std::vector<Point> found;
    const bool is_decoded = decode_block(bytes.data(), bytes.size(), n, type, found);
    EXPECT_EQ(found.size(), is_decoded ? n : 0);
    ++(is_decoded ? n_decoded : n_refused);
    return is_decoded;
  };
  for (int round = 0; round < 100 / EVERY; ++round) {
    const ValueType type = round % 3 == 0 ? INTEGER : REAL;
    const size_t n = 1 + random() % (round % 4 == 0 ? 600 : 200);
    std::vector<char> bytes = encoded(random_points(random, n, type), type);
    EXPECT_FALSE(decode(bytes, n, type == REAL ? INTEGER : REAL)) << "values of another type";
    for (size_t size = 0; size < bytes.size(); ++size)
      EXPECT_FALSE(decode({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)}, n, type)) << size;
    bytes.push_back(0);
    EXPECT_FALSE(decode(bytes, n, type)) << "a byte too many";
    bytes.pop_back();
    for (int attempt = 0; attempt < 300; ++attempt) {
      std::vector<char> changed = bytes;
      for (size_t i = random() % 3; i < 3; ++i) changed[random() % changed.size()] = static_cast<char>(random());
      decode(changed, n, type);
    }
  }
  EXPECT_GT(n_decoded, 1'000u);
  EXPECT_GT(n_refused, 1'000u);
}

// The bytes were computed by hand from the table in the header. Cut and longer runs are no runs.
TEST(PointCodec, GoldenRun) {
  const std::vector<Point> points = {{T0, 21.5},
                                     {T0 + 10 * S, 21.5},
                                     {T0 + 20 * S, 21.75},
                                     {T0 + 30 * S + 5, 21.625},
                                     {T0 + 40 * S + 5, -0.1},
                                     {-1, of_bits(0x7ff8000000000123)},
                                     {-1, of_bits(0x7ff8000000000123)}};
  const std::string_view digits =
      "0000faed5172861887670d3002205fa0124760d06370c881dfcccccccccc61fcff0be86a24bbe40c31833f1733333333"
      "3308f833804cf1d99233c400";
  std::vector<char> bytes;
  for (size_t i = 0; i < digits.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
  for (size_t size = 0; size <= bytes.size(); ++size) {
    std::vector<char> cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size));
    SealedPoints run(cut.data(), cut.size(), points.size());
    std::vector<Point> found;
    for (Point point; run.next(point);) found.push_back(point);
    EXPECT_EQ(run.is_whole(), size == bytes.size());
    EXPECT_TRUE(same(found, {points.begin(), points.begin() + static_cast<ptrdiff_t>(found.size())}));
  }
  bytes.push_back(0);
  SealedPoints longer(bytes.data(), bytes.size(), points.size());
  for (Point point; longer.next(point);) continue;
  EXPECT_FALSE(longer.is_whole());
}
