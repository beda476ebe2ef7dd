// The sealed form of points: its bits, decoding, and that other bytes are refused.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>

#include "codec/point_codec.h"

using namespace metricdb;

constexpr int64_t T0 = 1'767'225'600'000'000'000;  // the beginning of 2026
constexpr int64_t S = 1'000'000'000;
constexpr int64_t MAX = std::numeric_limits<int64_t>::max();

static double of_bits(uint64_t bits) {
  return std::bit_cast<double>(bits);
}

// Compares bits, up to the length of the shorter one.
static bool same(const std::vector<Point> &a, const std::vector<Point> &b) {
  const size_t count = std::min(a.size(), b.size());
  return count == 0 || std::memcmp(a.data(), b.data(), count * sizeof(Point)) == 0;
}

// Uses an odd address and exactly the promised room, so that a sanitizer detects an access outside of it.
static std::vector<char> sealed(const std::vector<Point> &points) {
  std::vector<char> bytes(1 + points.size() * sizeof(Point));
  std::memcpy(bytes.data() + 1, points.data(), points.size() * sizeof(Point));
  std::vector<char> out(max_sealed_bytes(points.size()));
  out.resize(seal_points(bytes.data() + 1, points.size(), out.data()));
  out.shrink_to_fit();
  return out;
}

struct Walk {
  std::vector<Point> points;
  bool is_whole;
};

static Walk walk(const std::vector<char> &bytes, size_t n) {
  Walk found;
  SealedPoints sealed_points(bytes.data(), bytes.size(), n);
  for (Point point; sealed_points.next(point);) found.points.push_back(point);
  Point next;
  EXPECT_FALSE(sealed_points.next(next)) << "the walk continues after its end";
  found.is_whole = sealed_points.is_whole();
  return found;
}

static void expect_back(const std::vector<Point> &points) {
  const Walk found = walk(sealed(points), points.size());
  EXPECT_TRUE(found.is_whole);
  ASSERT_EQ(found.points.size(), points.size());
  ASSERT_TRUE(same(found.points, points));
}

// This format is stored and must not change. The bytes were computed by hand from the table in the header.
TEST(PointCodec, GoldenRun) {
  const std::vector<Point> points = {{T0, 21.5},
                                     {T0 + 10 * S, 21.5},
                                     {T0 + 20 * S, 21.75},
                                     {T0 + 30 * S + 5, 21.625},
                                     {T0 + 40 * S + 5, -0.1},
                                     {-1, of_bits(0x7ff8000000000123)},
                                     {-1, of_bits(0x7ff8000000000123)}};
  std::string shown;
  for (const char byte : sealed(points)) shown += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  EXPECT_EQ(shown,
            "0000faed5172861887670d3002205fa0124760d06370c881dfcccccccccc61fcff0be86a24bbe40c31833f1733333333"
            "3308f833804cf1d99233c400");
  expect_back(points);
}

// With 1,001 points of one kind, one bit per point too many is detected.
TEST(PointCodec, BitsOfAPoint) {
  constexpr int64_t N = 1'001;
  constexpr uint64_t TWELVE_WIDE = 0xfff'0000'0000;
  constexpr uint64_t THIRTEEN_WIDE = 0x1fff'0000'0000;
  using PointOf = std::function<Point(int64_t)>;
  const auto at = [](const std::function<int64_t(int64_t)> &ts_ns) {
    return PointOf([=](int64_t i) { return Point{T0 + ts_ns(i), 0.0}; });
  };
  // The first value, and then bits that alternate.
  const auto flicker = [](uint64_t first, uint64_t bits) {
    return PointOf([=](int64_t i) { return Point{T0, of_bits(first ^ (i % 2 == 0 ? 0 : bits))}; });
  };
  const struct {
    const char *fault;  // what the row detects
    PointOf point_of;
    uint64_t n_bits;
  } rows[] = {
      {"times of a regular series need more than a bit", at([](int64_t i) { return 10 * S * i; }),
       64 + 1 + (41 + 1) + 999 * 2},
      {"decreasing times need more bits", at([](int64_t i) { return -10 * S * i; }), 64 + 1 + (41 + 1) + 999 * 2},
      {"differences of times are encoded, not of steps", at([](int64_t i) { return 7 * i * i; }),
       64 + 1 + (9 + 1) + 999 * (13 + 1)},
      {"a small change has a large code", at([](int64_t i) { return i % 2; }), 64 + 1 + 1000 * (9 + 1)},
      {"a window is defined again", flicker(0x3ff0'0000'0000'0000, uint64_t{1} << 51),
       64 + 23 + (1 + 14) + 999 * (1 + 3)},
      {"a wide window is kept for narrow values", flicker(MAX, 1), 64 + 76 + (1 + 46) + 999 * (1 + 35)},
      {"a window 11 bits too wide is replaced", flicker(TWELVE_WIDE, uint64_t{1} << 32), 64 + 25 + 1000 * (1 + 14)},
      {"a window 12 bits too wide is kept", flicker(THIRTEEN_WIDE, uint64_t{1} << 32),
       64 + 26 + (1 + 14) + 999 * (1 + 3)},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::vector<Point> points;
    for (int64_t i = 0; i < N; ++i) points.push_back(row.point_of(i));
    EXPECT_EQ(sealed(points).size(), (row.n_bits + 7) / 8);
    expect_back(points);
  }
}

static std::vector<Point> random_points(std::mt19937_64 &random, size_t n) {
  const unsigned step_bits = random() % 64, jitter_bits = random() % 65, value_kind = random() % 5;
  const uint64_t step = random() >> (63 - step_bits);
  uint64_t ts_ns = random() % 2 == 0 ? static_cast<uint64_t>(T0) : random();
  double value = 50;
  std::vector<Point> points;
  for (size_t i = 0; i < n; ++i) {
    const bool is_off = random() % 4 == 0 && jitter_bits != 0;
    points.push_back({static_cast<int64_t>(ts_ns + (is_off ? random() >> (64 - jitter_bits) : 0)), value});
    ts_ns += step;
    const uint64_t drawn = random();
    if (value_kind == 0) value = of_bits(drawn);
    if (value_kind == 1) value = of_bits(std::bit_cast<uint64_t>(value) ^ (drawn >> drawn % 64 << drawn / 64 % 64));
    if (value_kind == 2) value += static_cast<double>(drawn % 3) - 1;
    if (value_kind == 3) value = std::round(value * 100 + static_cast<double>(drawn % 200) - 99) / 100;
  }
  return points;
}

TEST(PointCodec, RandomRunsRoundTrip) {
  constexpr uint64_t SEED = 20260102;
  std::mt19937_64 random(SEED);
  for (int round = 0; round < 2'000; ++round) {
    SCOPED_TRACE(fmt::format("seed {}, round {}", SEED, round));
    expect_back(random_points(random, 1 + random() % 300));
    if (HasFatalFailure()) return;
  }
  expect_back(random_points(random, MAX_SEALED_POINTS));
}

TEST(PointCodec, TruncatedRunsAreIncomplete) {
  std::mt19937_64 random(4);
  for (int round = 0; round < 50; ++round) {
    const std::vector<Point> points = random_points(random, 1 + random() % 40);
    const std::vector<char> bytes = sealed(points);
    for (size_t size = 0; size < bytes.size(); ++size) {
      const Walk found = walk({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)}, points.size());
      ASSERT_FALSE(found.is_whole) << size << " of " << bytes.size() << " bytes";
      ASSERT_LT(found.points.size(), points.size());
      ASSERT_TRUE(same(found.points, points));
    }
    std::vector<char> longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(walk(longer, points.size()).is_whole);
    EXPECT_FALSE(walk(bytes, points.size() + 8).is_whole) << "the unused bits are taken for points";
  }
}

// A changed bit produces another valid run or an invalid one. Every valid run must be the sealed form of its points, so
// that no points have two forms.
TEST(PointCodec, EachRunHasOneForm) {
  std::mt19937_64 random(5);
  uint64_t n_whole = 0, n_refused = 0;
  const auto expect_only_form = [&](const std::vector<char> &bytes, size_t n) {
    const Walk found = walk(bytes, n);
    ++(found.is_whole ? n_whole : n_refused);
    EXPECT_TRUE(!found.is_whole || sealed(found.points) == bytes);
  };
  for (int round = 0; round < 80; ++round) {
    const size_t n = 1 + random() % 40;
    std::vector<char> bytes = sealed(random_points(random, n));
    for (size_t bit = 0; bit < bytes.size() * 8; ++bit) {
      std::vector<char> flipped = bytes;
      flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
      expect_only_form(flipped, n);
    }
    for (int attempt = 0; attempt < 200; ++attempt) {
      for (size_t i = random() % 4; i < 4; ++i) bytes[random() % bytes.size()] = static_cast<char>(random());
      expect_only_form(bytes, n);
    }
  }
  EXPECT_GT(n_whole, 1'000u) << "too few runs are valid";
  EXPECT_GT(n_refused, 1'000u) << "too few runs are refused";
}
