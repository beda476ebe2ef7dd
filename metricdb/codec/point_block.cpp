#include "codec/point_block.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <span>

#include "codec/block_bytes.h"
#include "codec/coded_numbers.h"
#include "codec/wide_instructions.h"

namespace metricdb {
namespace {

constexpr size_t GROUP = 128;
constexpr unsigned MAX_PACKED_WIDTH = 57;  // of a number that any 8 bytes contain, whatever its first bit in them
constexpr unsigned WHOLE_WIDTH_CODE = 58;  // for 64 bits
constexpr unsigned EQUAL_CODE = 59, CODED_CODE = 60;
constexpr size_t MIN_CODED_NUMBERS = 200;  // with fewer the table of the symbols costs more than it saves
constexpr uint8_t WIDTH_MASK = 0x3F, BOTH_SIGNS = 0x40, HAS_EXCEPTIONS = 0x80;

enum Kind : uint8_t { INTEGERS, DECIMALS, BITS };
constexpr uint8_t KIND_MASK = 0x03, AS_DIFFERENCES = 0x04;
constexpr unsigned PLACES_SHIFT = 3;

constexpr std::array<int64_t, 4> TIME_UNITS = {1, 1'000, 1'000'000, 1'000'000'000};
// Powers of ten up to 10^22 are doubles, so a quotient of an integer and one of them is rounded once.
constexpr std::array<double, 19> POWERS = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8, 1e9,
                                           1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18};
constexpr double MAX_SCALED = 2251799813685248.0;  // 2^51
constexpr double ROUNDER = 3 * MAX_SCALED;         // a sum with it has no bits after the point
constexpr uint64_t SIGN = uint64_t{1} << 63;

// Memory for n numbers of a block, which is on the stack for a short block.
template <class Number>
class Scratch {
 public:
  explicit Scratch(size_t n) : n_(n), heap_(n <= few_.size() ? nullptr : std::make_unique_for_overwrite<Number[]>(n)) {}
  std::span<Number> all() { return {heap_ ? heap_.get() : few_.data(), n_}; }

 private:
  const size_t n_;
  std::array<Number, 512> few_;
  const std::unique_ptr<Number[]> heap_;
};

// How a group is packed.
struct GroupPlan {
  int64_t base = 0;
  bool both_signs = false;
  unsigned width = 0;
  unsigned n_exceptions = 0;
  unsigned bits = 0;  // approximately, of all
};

uint64_t offset_of(int64_t number, const GroupPlan &plan) {
  const int64_t offset = difference(number, plan.base);
  return plan.both_signs ? zigzag(offset) : static_cast<uint64_t>(offset);
}

void set_width(size_t n, unsigned longest, GroupPlan &plan) {
  plan.width = longest > MAX_PACKED_WIDTH ? 64 : longest;
  plan.n_exceptions = 0;
  plan.bits = static_cast<unsigned>(n) * plan.width + 8 + varint_bits(length_of(zigzag(plan.base)));
}

// Sets the width with the fewest bits: the offsets that are longer become exceptions.
void choose_width(std::span<const int64_t> numbers, GroupPlan &plan) {
  std::array<uint8_t, 65> n_of_length = {};
  for (const int64_t number : numbers) ++n_of_length[length_of(offset_of(number, plan))];
  const auto n = static_cast<unsigned>(numbers.size());
  unsigned longest = 64;
  while (longest > 0 && n_of_length[longest] == 0) --longest;
  set_width(n, longest, plan);
  const unsigned head_bits = plan.bits - n * plan.width;
  unsigned n_longer = 0;
  // With narrower widths there are more exceptions, each of at least 16 bits.
  for (unsigned width = longest; width-- > 0;) {
    n_longer += n_of_length[width + 1];
    if (n_longer * 16 + head_bits > plan.bits) break;
    if (width > MAX_PACKED_WIDTH) continue;
    unsigned bits = head_bits + n * width + 8;
    for (unsigned length = width + 1; length <= longest; ++length)
      bits += n_of_length[length] * (8 + varint_bits(length - width));
    if (bits < plan.bits) plan = {plan.base, plan.both_signs, width, n_longer, bits};
  }
}

// The median of some of the n numbers number(i).
template <class Number>
auto typical_of(size_t n, Number number) {
  std::array<decltype(number(size_t{0})), 9> some;
  for (size_t i = 0; i < some.size(); ++i) some[i] = number(i * (n - 1) / (some.size() - 1));
  std::nth_element(some.begin(), some.begin() + some.size() / 2, some.end());
  return some[some.size() / 2];
}

// Whether a few numbers are far from the others, so that they can be exceptions. A quick test.
bool has_outliers(std::span<const int64_t> numbers, int64_t typical, unsigned longest) {
  constexpr unsigned SAVED_BITS = 3, BITS_OF_EXCEPTION = 16;
  if (longest <= SAVED_BITS) return false;
  size_t n_far = 0;
  for (const int64_t number : numbers)
    n_far += zigzag(difference(number, typical)) >> (longest - SAVED_BITS) != 0 ? 1 : 0;
  return n_far * BITS_OF_EXCEPTION < numbers.size() * SAVED_BITS;
}

GroupPlan plan_of(std::span<const int64_t> numbers) {
  int64_t min = numbers[0], max = numbers[0];
  for (const int64_t number : numbers) {
    min = std::min(min, number);
    max = std::max(max, number);
  }
  GroupPlan plan;
  plan.base = min;
  const unsigned longest = length_of(static_cast<uint64_t>(difference(max, min)));
  set_width(numbers.size(), longest, plan);
  const int64_t typical = typical_of(numbers.size(), [numbers](size_t i) { return numbers[i]; });
  if (!has_outliers(numbers, typical, longest)) return plan;
  choose_width(numbers, plan);
  // With numbers far below the others, the minimum is a bad base.
  GroupPlan other;
  other.base = typical;
  other.both_signs = true;
  choose_width(numbers, other);
  return other.bits < plan.bits ? other : plan;
}

void write_group(std::span<const int64_t> numbers, const GroupPlan &plan, BlockWriter &out) {
  const unsigned code = plan.width == 64 ? WHOLE_WIDTH_CODE : plan.width;
  out.byte(code | (plan.both_signs ? BOTH_SIGNS : 0u) | (plan.n_exceptions != 0 ? HAS_EXCEPTIONS : 0u));
  out.signed_number(plan.base);
  if (plan.n_exceptions == 0 && !plan.both_signs) {
    const auto base = static_cast<uint64_t>(plan.base);
    if (plan.width != 0)
      out.packed(numbers.size(), plan.width,
                 [numbers, base](size_t i) { return static_cast<uint64_t>(numbers[i]) - base; });
    return;
  }
  if (plan.width != 0)
    out.packed(numbers.size(), plan.width, [numbers, plan](size_t i) { return offset_of(numbers[i], plan); });
  if (plan.n_exceptions == 0) return;
  out.byte(plan.n_exceptions - 1);
  for (size_t i = 0; i < numbers.size(); ++i) {
    const uint64_t offset = offset_of(numbers[i], plan);
    if (length_of(offset) <= plan.width) continue;
    out.byte(static_cast<unsigned>(i));
    out.varint(offset >> plan.width);
  }
}

bool are_equal(std::span<const int64_t> numbers) {
  uint64_t any = 0;
  for (const int64_t number : numbers) any |= static_cast<uint64_t>(number) ^ static_cast<uint64_t>(numbers[0]);
  return any == 0;
}

// The numbers in a group of that kind if n_left follow.
size_t n_in_group(unsigned head, size_t n_left) {
  return head == EQUAL_CODE ? n_left : std::min(n_left, head == CODED_CODE ? MAX_CODED_NUMBERS : GROUP);
}

// Writes groups of 128 for at most MAX_CODED_NUMBERS numbers, or one of coded numbers.
void write_some(std::span<const int64_t> numbers, BlockWriter &out) {
  std::array<GroupPlan, (MAX_CODED_NUMBERS + GROUP - 1) / GROUP> plans;
  const size_t n = numbers.size();
  const auto group_at = [numbers](size_t i) { return numbers.subspan(i, std::min(numbers.size() - i, GROUP)); };
  if (n >= MIN_CODED_NUMBERS) {
    std::array<uint64_t, MAX_CODED_NUMBERS> code_memory;
    const std::span<uint64_t> codes(code_memory.data(), n);
    const CodePlan code = code_plan(numbers, codes);
    // A few groups show which form is shorter.
    constexpr size_t EVERY = 4 * GROUP;
    size_t n_seen = 0, bits = 0;
    for (size_t i = 0; i < n; i += EVERY) {
      bits += plan_of(group_at(i)).bits;
      n_seen += group_at(i).size();
    }
    if (code.bits * n_seen < bits * n) {
      out.byte(CODED_CODE);
      return write_coded(codes, code, out);
    }
  }
  for (size_t i = 0; i < n; i += GROUP) plans[i / GROUP] = plan_of(group_at(i));
  for (size_t i = 0; i < n; i += GROUP) write_group(group_at(i), plans[i / GROUP], out);
}

void write_groups(std::span<const int64_t> numbers, BlockWriter &out) {
  if (numbers.size() > GROUP && are_equal(numbers)) {
    out.byte(EQUAL_CODE);
    return out.signed_number(numbers[0]);
  }
  for (; !numbers.empty(); numbers = numbers.subspan(std::min(numbers.size(), MAX_CODED_NUMBERS)))
    write_some(numbers.first(std::min(numbers.size(), MAX_CODED_NUMBERS)), out);
}

// Replaces each number except for the first one by its difference to the previous one. Returns whether one has wrapped.
bool make_differences(std::span<int64_t> numbers) {
  uint64_t wrapped = 0;  // in the sign bit
  for (size_t i = numbers.size() - 1; i > 0; --i) {
    const auto number = static_cast<uint64_t>(numbers[i]), previous = static_cast<uint64_t>(numbers[i - 1]);
    const uint64_t change = number - previous;
    wrapped |= (number ^ previous) & (number ^ change);
    numbers[i] = static_cast<int64_t>(change);
  }
  return (wrapped & SIGN) != 0;
}

void write_differences(std::span<const int64_t> numbers, BlockWriter &out) {
  out.signed_number(numbers[0]);
  write_groups(numbers.subspan(1), out);
}

// Divides the numbers by the unit if all are multiples of it. A template, because divisors that are known are fast.
template <int64_t UNIT>
bool divide_by_unit(std::span<int64_t> numbers) {
  for (const int64_t number : numbers)
    if (number % UNIT != 0) return false;
  for (int64_t &number : numbers) number /= UNIT;
  return true;
}

unsigned divide_by_largest_unit(std::span<int64_t> numbers) {
  if (divide_by_unit<TIME_UNITS[3]>(numbers)) return 3;
  if (divide_by_unit<TIME_UNITS[2]>(numbers)) return 2;
  return divide_by_unit<TIME_UNITS[1]>(numbers) ? 1 : 0;
}

void write_times(std::span<int64_t> times, BlockWriter &out) {
  unsigned unit = 0;
  const bool has_wrapped = make_differences(times);
  const std::span<int64_t> differences = times.subspan(1);
  if (has_wrapped) {
    // What the decoder sums up wraps too, and then is no multiple of a unit.
  } else if (differences.size() > 1 && are_equal(differences)) {
    unit = divide_by_largest_unit(times.first(2));  // a regular series, as most are
    std::fill(differences.begin(), differences.end(), differences[0]);
  } else {
    unit = divide_by_largest_unit(times);
  }
  out.byte(unit);
  write_differences(times, out);
}

// Whether most differences are shorter than the distances to the middle of the numbers.
bool are_differences_short(std::span<const int64_t> numbers) {
  const size_t n = numbers.size();
  if (n < 3) return false;
  const int64_t middle = typical_of(n, [numbers](size_t i) { return numbers[i]; });
  const uint64_t distance = typical_of(n, [&](size_t i) { return zigzag(difference(numbers[i], middle)); });
  const uint64_t change = typical_of(n - 1, [&](size_t i) { return zigzag(difference(numbers[i + 1], numbers[i])); });
  return change <= distance && distance != 0;
}

void write_values(uint8_t kind, std::span<int64_t> numbers, BlockWriter &out, std::optional<unsigned> shift = {}) {
  const bool as_differences = are_differences_short(numbers);
  out.byte(kind | (as_differences ? AS_DIFFERENCES : 0u));
  if (shift) out.byte(*shift);
  if (as_differences) {
    make_differences(numbers);
    write_differences(numbers, out);
  } else {
    write_groups(numbers, out);
  }
}

// Returns x with x / 10^places == value, bit by bit.
std::optional<int64_t> scaled(double value, unsigned places) {
  const double product = value * POWERS[places];
  if (!(std::fabs(product) < MAX_SCALED)) return std::nullopt;
  const double number = product + ROUNDER - ROUNDER;  // rounded to an integer without a call
  const double back = number / POWERS[places];
  if (std::bit_cast<uint64_t>(back) != std::bit_cast<uint64_t>(value)) return std::nullopt;
  return static_cast<int64_t>(number);
}

// Returns how many decimal places some of the values need; nothing if many have no short decimal form.
std::optional<unsigned> places_of(std::span<const double> values) {
  constexpr size_t N_SAMPLES = 16, MAX_WITHOUT = 3;
  unsigned places = 0;
  size_t n_without = 0;
  for (size_t i = 0; i < values.size(); i += std::max<size_t>(1, values.size() / N_SAMPLES)) {
    unsigned needed = places;
    while (needed < POWERS.size() && !scaled(values[i], needed)) ++needed;
    if (needed == POWERS.size())
      ++n_without;
    else
      places = needed;
    if (n_without > MAX_WITHOUT) return std::nullopt;
  }
  return places;
}

// Sets the numbers to the scaled values. Returns false if one of them has no such number: the numbers are undefined then.
bool scale_all(std::span<const double> values, unsigned places, std::span<int64_t> numbers) {
  const double power = POWERS[places];
  uint64_t n_without = 0;
  for (size_t i = 0; i < values.size(); ++i) {
    const double product = values[i] * power, shifted = product + ROUNDER, number = shifted - ROUNDER;
    // The mantissa of `shifted` is the number.
    numbers[i] = difference(std::bit_cast<int64_t>(shifted), std::bit_cast<int64_t>(ROUNDER));
    const bool is_same = std::bit_cast<int64_t>(number / power) == std::bit_cast<int64_t>(values[i]);
    const bool is_short = std::fabs(product) < MAX_SCALED;
    n_without += static_cast<uint64_t>(!is_same | !is_short);  // without a jump
  }
  return n_without == 0;
}

bool write_decimals(std::span<const double> values, std::span<int64_t> numbers, BlockWriter &out) {
  const std::optional<unsigned> places = places_of(values);
  if (!places) return false;
  std::vector<size_t> exceptions;
  if (!scale_all(values, *places, numbers)) {
    int64_t previous = 0;
    for (size_t i = 0; i < values.size(); ++i) {
      const std::optional<int64_t> number = scaled(values[i], *places);
      if (!number) exceptions.push_back(i);
      numbers[i] = previous = number.value_or(previous);
    }
  }
  if (exceptions.size() > values.size() / 8) return false;
  write_values(static_cast<uint8_t>(DECIMALS | *places << PLACES_SHIFT), numbers, out);
  out.varint(exceptions.size());
  for (const size_t i : exceptions) {
    out.varint(i);
    out.word(std::bit_cast<uint64_t>(values[i]));
  }
  return true;
}

void write_bits(std::span<const double> values, std::span<int64_t> numbers, BlockWriter &out) {
  uint64_t any = 0;
  for (const double value : values) any |= std::bit_cast<uint64_t>(value) & ~SIGN;
  const unsigned shift = any == 0 ? 0 : static_cast<unsigned>(std::countr_zero(any));
  for (size_t i = 0; i < values.size(); ++i) {
    const uint64_t bits = std::bit_cast<uint64_t>(values[i]), magnitude = (bits & ~SIGN) >> shift;
    numbers[i] = static_cast<int64_t>((bits & SIGN) != 0 ? ~magnitude : magnitude);
  }
  write_values(BITS, numbers, out, shift);
}

void add_exceptions(BlockReader &in, std::span<uint64_t> offsets, unsigned width) {
  for (unsigned n_left = in.byte() + 1; n_left > 0; --n_left) {
    const unsigned index = in.byte();
    const uint64_t upper = in.varint();
    if (!in.is_valid() || index >= offsets.size() || width == 64) return in.fail();
    offsets[index] |= upper << width;
  }
}

// Sets the numbers of a group of at most 128.
void read_group(BlockReader &in, unsigned head, std::span<int64_t> numbers) {
  const unsigned code = head & WIDTH_MASK;
  if (code > WHOLE_WIDTH_CODE) return in.fail();
  const unsigned width = code == WHOLE_WIDTH_CODE ? 64 : code;
  const int64_t base = in.signed_number();
  int64_t *const to = numbers.data();
  if ((head & (BOTH_SIGNS | HAS_EXCEPTIONS)) == 0)
    return in.packed(width, numbers.size(), [to, base](size_t i, uint64_t offset) { to[i] = plus(base, offset); });
  std::array<uint64_t, GROUP> offsets;
  in.packed(width, numbers.size(), [&offsets](size_t i, uint64_t offset) { offsets[i] = offset; });
  if (in.is_valid() && (head & HAS_EXCEPTIONS) != 0) add_exceptions(in, {offsets.data(), numbers.size()}, width);
  if (!in.is_valid()) return;
  const bool both_signs = (head & BOTH_SIGNS) != 0;
  for (size_t i = 0; i < numbers.size(); ++i)
    to[i] = plus(base, both_signs ? static_cast<uint64_t>(unzigzag(offsets[i])) : offsets[i]);
}

void read_groups(BlockReader &in, std::span<int64_t> numbers) {
  while (!numbers.empty() && in.is_valid()) {
    const unsigned head = in.byte();
    const std::span<int64_t> group = numbers.first(n_in_group(head, numbers.size()));
    if (head == EQUAL_CODE)
      std::fill(group.begin(), group.end(), in.signed_number());
    else if (head == CODED_CODE)
      read_coded(in, group);
    else
      read_group(in, head, group);
    numbers = numbers.subspan(group.size());
  }
}

// Sets the numbers of a sequence.
void read_sequence(BlockReader &in, bool as_differences, std::span<int64_t> numbers) {
  if (!as_differences) return read_groups(in, numbers);
  auto sum = static_cast<uint64_t>(in.signed_number());
  numbers[0] = static_cast<int64_t>(sum);
  read_groups(in, numbers.subspan(1));
  if (!in.is_valid()) return;
  for (int64_t &number : numbers.subspan(1)) number = static_cast<int64_t>(sum += static_cast<uint64_t>(number));
}

// The functions read_times to read_values set a field of the points. `numbers` is memory for as many numbers.

// Returns false, and reads nothing, if not all differences are one equal group.
bool read_regular_times(BlockReader &in, uint64_t factor, std::span<Point> points) {
  BlockReader regular = in;
  uint64_t time = static_cast<uint64_t>(regular.signed_number()) * factor;
  if (points.size() == 1 || regular.byte() != EQUAL_CODE) return false;
  const uint64_t step = static_cast<uint64_t>(regular.signed_number()) * factor;
  in = regular;
  for (Point &point : points) {
    point.ts_ns = static_cast<int64_t>(time);
    time += step;
  }
  return true;
}

void read_times(BlockReader &in, std::span<int64_t> numbers, Point *points) {
  const unsigned unit = in.byte();
  if (unit >= TIME_UNITS.size()) return in.fail();
  const auto factor = static_cast<uint64_t>(TIME_UNITS[unit]);
  if (read_regular_times(in, factor, {points, numbers.size()})) return;
  read_sequence(in, true, numbers);
  if (!in.is_valid()) return;
  for (size_t i = 0; i < numbers.size(); ++i)
    points[i].ts_ns = static_cast<int64_t>(static_cast<uint64_t>(numbers[i]) * factor);
}

// Whether all numbers are smaller than MAX_SCALED.
bool are_short(std::span<const int64_t> numbers) {
  uint64_t any = 0;
  for (const int64_t number : numbers) any |= static_cast<uint64_t>(plus(number, uint64_t{1} << 51));
  return any >> 52 == 0;
}

void read_decimals(BlockReader &in, unsigned places, bool as_differences, std::span<int64_t> numbers, Point *points) {
  if (places >= POWERS.size()) return in.fail();
  read_sequence(in, as_differences, numbers);
  if (!in.is_valid()) return;
  const double power = POWERS[places];
  if (are_short(numbers)) {
    // As in scale_all: few processors convert several numbers at a time.
    for (size_t i = 0; i < numbers.size(); ++i) {
      const int64_t shifted = plus(numbers[i], std::bit_cast<uint64_t>(ROUNDER));
      points[i].value = (std::bit_cast<double>(shifted) - ROUNDER) / power;
    }
  } else {
    for (size_t i = 0; i < numbers.size(); ++i) points[i].value = static_cast<double>(numbers[i]) / power;
  }
  for (uint64_t n_left = in.varint(); n_left > 0 && in.is_valid(); --n_left) {
    const uint64_t index = in.varint();
    if (index >= numbers.size()) return in.fail();
    points[index].value = std::bit_cast<double>(in.word());
  }
}

void read_bits(BlockReader &in, bool as_differences, std::span<int64_t> numbers, Point *points) {
  const unsigned shift = in.byte();
  if (shift > 62) return in.fail();
  read_sequence(in, as_differences, numbers);
  if (!in.is_valid()) return;
  for (size_t i = 0; i < numbers.size(); ++i) {
    const auto code = static_cast<uint64_t>(numbers[i]);
    points[i].value = std::bit_cast<double>(numbers[i] < 0 ? ~code << shift | SIGN : code << shift);
  }
}

void read_values(BlockReader &in, ValueType type, std::span<int64_t> numbers, Point *points) {
  const unsigned head = in.byte(), kind = head & KIND_MASK, places = head >> PLACES_SHIFT;
  const bool as_differences = (head & AS_DIFFERENCES) != 0;
  if ((kind == INTEGERS) != (type == ValueType::integer) || (kind != DECIMALS && places != 0)) return in.fail();
  if (kind == DECIMALS) return read_decimals(in, places, as_differences, numbers, points);
  if (kind == BITS) return read_bits(in, as_differences, numbers, points);
  if (kind != INTEGERS) return in.fail();
  read_sequence(in, as_differences, numbers);
  if (!in.is_valid()) return;
  for (size_t i = 0; i < numbers.size(); ++i) points[i].value = std::bit_cast<double>(numbers[i]);
}

size_t encode(const char *points, size_t n, ValueType type, char *out) {
  BlockWriter writer(out);
  Scratch<int64_t> number_memory(n);
  Scratch<double> value_memory(n);
  const std::span<int64_t> numbers = number_memory.all();
  const std::span<double> values = value_memory.all();
  for (size_t i = 0; i < n; ++i) {
    Point point;
    std::memcpy(&point, points + i * sizeof point, sizeof point);
    numbers[i] = point.ts_ns;
    values[i] = point.value;
  }
  write_times(numbers, writer);
  if (type == ValueType::integer) {
    std::memcpy(numbers.data(), values.data(), n * sizeof(int64_t));
    write_values(INTEGERS, numbers, writer);
  } else if (!write_decimals(values, numbers, writer)) {
    write_bits(values, numbers, writer);
  }
  return static_cast<size_t>(writer.at() - out);
}

bool decode(BlockReader &in, size_t n, ValueType type, Point *points) {
  Scratch<int64_t> memory(n);
  const std::span<int64_t> numbers = memory.all();
  read_times(in, numbers, points);
  if (in.is_valid()) read_values(in, type, numbers, points);
  return in.is_valid() && in.is_at_end();
}

}  // namespace

size_t encode_block(const char *points, size_t n, ValueType type, char *out) {
  return run_widest([=] { return encode(points, n, type, out); });
}

bool decode_block(const char *bytes, size_t size, size_t n, ValueType type, std::vector<Point> &points) {
  if (n == 0) return false;
  BlockReader in(bytes, size);
  const size_t n_before = points.size();
  points.resize(n_before + n);
  if (run_widest([&] { return decode(in, n, type, points.data() + n_before); })) return true;
  points.resize(n_before);
  return false;
}

}  // namespace metricdb
