#include "codec/coded_numbers.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "codec/wide_instructions.h"

namespace metricdb {
namespace {

constexpr unsigned N_SYMBOLS = 16, LARGE = N_SYMBOLS - 1, MAX_LOW = 57;
constexpr unsigned TABLE_BITS = 8, N_TABLE = 1u << TABLE_BITS, TABLE_STEP = 163, N_STATES = 4;
constexpr std::array<uint16_t, 16> WEIGHTS = {0, 2, 3, 4, 6, 8, 11, 16, 23, 32, 45, 64, 91, 128, 181, 256};

using Frequencies = std::array<uint16_t, N_SYMBOLS>;

// Returns how many states each symbol has; zeros without weights.
Frequencies frequencies_of(uint64_t weights) {
  unsigned sum = 0, largest = 0;
  for (unsigned symbol = 0; symbol < N_SYMBOLS; ++symbol) {
    sum += WEIGHTS[weights >> 4 * symbol & 15];
    if ((weights >> 4 * symbol & 15) > (weights >> 4 * largest & 15)) largest = symbol;
  }
  Frequencies frequencies = {};
  if (sum == 0) return frequencies;
  unsigned n_left = N_TABLE;
  for (unsigned symbol = 0; symbol < N_SYMBOLS; ++symbol) {
    const unsigned weight = WEIGHTS[weights >> 4 * symbol & 15];
    frequencies[symbol] = static_cast<uint16_t>(weight == 0 ? 0 : std::max(1u, weight * N_TABLE / sum));
    n_left -= frequencies[symbol];
  }
  // Can be less: the others have at most 15 states more than their share, and this one has at least 16.
  frequencies[largest] = static_cast<uint16_t>(frequencies[largest] + n_left);
  return frequencies;
}

// Calls place(symbol, state) for all states, by symbols.
template <class Place>
void spread(const Frequencies &frequencies, Place place) {
  unsigned state = 0;
  for (unsigned symbol = 0; symbol < N_SYMBOLS; ++symbol)
    for (unsigned n_left = frequencies[symbol]; n_left > 0; --n_left, state = (state + TABLE_STEP) % N_TABLE)
      place(symbol, state);
}

// ---- Choosing -----------------------------------------------------------------------------------------------------

// Zero, unless the numbers are mostly on one side of it: with zero, codes of numbers and their opposites are neighbours.
int64_t base_of(std::span<const int64_t> numbers) {
  std::array<int64_t, 31> some;
  const auto middle = some.begin() + some.size() / 2;
  for (size_t i = 0; i < some.size(); ++i) some[i] = numbers[i * (numbers.size() - 1) / (some.size() - 1)];
  std::nth_element(some.begin(), middle, some.end());
  const int64_t base = *middle;
  std::array<uint64_t, 31> distances;
  for (size_t i = 0; i < some.size(); ++i) distances[i] = zigzag(difference(some[i], base));
  std::nth_element(distances.begin(), distances.begin() + distances.size() / 2, distances.end());
  return zigzag(base) / 2 <= distances[distances.size() / 2] ? 0 : base;
}

// Numbers of codes by their upper parts. The last one counts all larger ones.
using Histogram = std::array<uint32_t, 64>;
constexpr uint64_t LAST_PART = std::tuple_size_v<Histogram> - 1;
using Lengths = std::array<uint32_t, 65>;  // numbers of codes by their lengths

// Returns how many bits the parts that are counted leave out: so many that most codes have 5 bits more, or fewer. Parts are
// joined for larger values of `low`.
unsigned fine_of(std::span<const uint64_t> codes) {
  const size_t step = std::max<size_t>(1, codes.size() / 256);
  Lengths n_of_length = {};
  size_t n = 0;
  for (size_t i = 0; i < codes.size(); i += step, ++n) ++n_of_length[length_of(codes[i])];
  unsigned usual = 64;
  for (size_t n_longer = n_of_length[usual]; usual > 0 && n_longer * 16 <= n;) n_longer += n_of_length[--usual];
  return usual < 5 ? 0 : std::min(usual - 5, MAX_LOW - 2);
}

// The weight that is nearest to count / most as a ratio, and not 0.
unsigned weight_of(uint32_t count, uint32_t most) {
  const double share = 256.0 * count / most;
  unsigned weight = 1;
  while (weight < 15 && share * share > static_cast<double>(WEIGHTS[weight]) * WEIGHTS[weight + 1]) ++weight;
  return weight;
}

// Sets weights and bits for `low`. `n_of_length` counts the codes by their lengths, for the large ones.
void choose_weights(const std::array<uint32_t, N_SYMBOLS> &counts, size_t n, const Lengths &n_of_length,
                    CodePlan &plan) {
  const uint32_t most = *std::max_element(counts.begin(), counts.end());
  plan.weights = 0;
  for (unsigned symbol = 0; symbol < N_SYMBOLS; ++symbol)
    if (counts[symbol] != 0) plan.weights |= uint64_t{weight_of(counts[symbol], most)} << 4 * symbol;
  const Frequencies frequencies = frequencies_of(plan.weights);
  double bits = 0;
  for (unsigned symbol = 0; symbol < N_SYMBOLS; ++symbol)
    if (counts[symbol] != 0) bits += counts[symbol] * (TABLE_BITS - std::log2(frequencies[symbol]));
  constexpr size_t HEAD_BITS = 8 * (1 + 1 + 8 + N_STATES + 1);
  plan.bits = static_cast<size_t>(bits) + n * plan.low + HEAD_BITS + varint_bits(length_of(zigzag(plan.base)));
  if (counts[LARGE] == 0) return;
  for (unsigned length = plan.low + 4; length <= 64; ++length)
    plan.bits += n_of_length[length] * varint_bits(length - plan.low);
}

CodePlan plan_codes(std::span<const int64_t> numbers, std::span<uint64_t> codes) {
  CodePlan plan;
  plan.base = base_of(numbers);
  for (size_t i = 0; i < numbers.size(); ++i) codes[i] = zigzag(difference(numbers[i], plan.base));
  const unsigned fine = fine_of(codes);
  // Four histograms in turn: an increment waits for the last one of the same counter.
  std::array<Histogram, 4> histograms = {};
  Lengths n_of_length = {};
  for (size_t i = 0; i < codes.size(); ++i) {
    const uint64_t part = std::min<uint64_t>(codes[i] >> fine, LAST_PART);
    ++histograms[i % histograms.size()][part];
    if (part == LAST_PART) ++n_of_length[length_of(codes[i])];
  }
  Histogram histogram = {};
  for (const Histogram &some : histograms)
    for (size_t part = 0; part < histogram.size(); ++part) histogram[part] += some[part];
  for (unsigned part = 0; part < LAST_PART; ++part) n_of_length[length_of(uint64_t{part} << fine)] += histogram[part];
  CodePlan best;
  best.bits = SIZE_MAX;
  for (unsigned joined = 0; joined < 3; ++joined) {
    std::array<uint32_t, N_SYMBOLS> counts = {};
    for (unsigned part = 0; part < histogram.size(); ++part) counts[std::min(part >> joined, LARGE)] += histogram[part];
    plan.low = fine + joined;
    choose_weights(counts, numbers.size(), n_of_length, plan);
    if (plan.bits < best.bits) best = plan;
  }
  return best;
}

}  // namespace

CodePlan code_plan(std::span<const int64_t> numbers, std::span<uint64_t> codes) {
  return run_widest([&] { return plan_codes(numbers, codes); });
}

// ---- Writing ------------------------------------------------------------------------------------------------------

namespace {

void write_codes(std::span<const uint64_t> codes, const CodePlan &plan, BlockWriter &out) {
  // For a symbol: what is added to a state so that its upper half is the number of bits to write, and where its next
  // states begin.
  struct Step {
    uint32_t for_bits;
    int32_t first;
  };
  std::array<Step, N_SYMBOLS> steps = {};
  std::array<uint16_t, N_TABLE> next_states;
  const Frequencies frequencies = frequencies_of(plan.weights);
  std::array<int32_t, N_SYMBOLS> fill = {};
  int32_t first = 0;
  for (unsigned symbol = 0; symbol < N_SYMBOLS; ++symbol) {
    const uint32_t frequency = frequencies[symbol];
    if (frequency == 0) continue;
    const uint32_t most_bits = TABLE_BITS + 1 - length_of(frequency - 1);
    const uint32_t most = frequency == 1 ? TABLE_BITS : most_bits;
    steps[symbol] = {(most << 16) - (frequency << most), first - static_cast<int32_t>(frequency)};
    fill[symbol] = first;
    first += static_cast<int32_t>(frequency);
  }
  // In the order of the states, not of their places, as the decoder numbers them.
  std::array<uint8_t, N_TABLE> symbol_at;
  spread(frequencies,
         [&symbol_at](unsigned symbol, unsigned state) { symbol_at[state] = static_cast<uint8_t>(symbol); });
  for (unsigned state = 0; state < N_TABLE; ++state)
    next_states[static_cast<size_t>(fill[symbol_at[state]]++)] = static_cast<uint16_t>(N_TABLE + state);

  out.signed_number(plan.base);
  out.byte(plan.low);
  out.word(plan.weights);
  const size_t n = codes.size();
  if (plan.low != 0) out.packed(n, plan.low, [codes](size_t i) { return codes[i]; });

  // What the states write, from the last number on: the decoder reads in the other direction.
  std::array<uint16_t, MAX_CODED_NUMBERS> written;  // bits in the lower half, their number in the upper one
  const auto write = [&](size_t i, uint32_t &state) {
    const Step step = steps[std::min<uint64_t>(codes[i] >> plan.low, LARGE)];
    const uint32_t n_bits = (state + step.for_bits) >> 16;
    written[i] = static_cast<uint16_t>((state & ((1u << n_bits) - 1)) | n_bits << 8);
    state = next_states[static_cast<size_t>(static_cast<int32_t>(state >> n_bits) + step.first)];
  };
  std::array<uint32_t, N_STATES> states;
  states.fill(N_TABLE);
  size_t last = n;
  for (; last % N_STATES != 0; --last) write(last - 1, states[(last - 1) % N_STATES]);
  auto [a, b, c, d] = states;
  for (size_t i = last; i > 0; i -= N_STATES) write(i - 1, d), write(i - 2, c), write(i - 3, b), write(i - 4, a);
  for (const uint32_t state : {a, b, c, d}) out.byte(state - N_TABLE);
  out.bits(
      n, [&written](size_t i) { return written[i] & 0xFFu; }, [&written](size_t i) { return written[i] >> 8; });
  if ((plan.weights >> 4 * LARGE) == 0) return;
  for (size_t i = 0; i < n; ++i)
    if (const uint64_t upper = codes[i] >> plan.low; upper >= LARGE) out.varint(upper - LARGE);
}

}  // namespace

void write_coded(std::span<const uint64_t> codes, const CodePlan &plan, BlockWriter &out) {
  run_widest([&] { write_codes(codes, plan, out); });
}

// ---- Reading ------------------------------------------------------------------------------------------------------

namespace {

class SymbolReader {
 public:
  explicit SymbolReader(const Frequencies &frequencies) {
    std::array<uint8_t, N_TABLE> symbol_at;
    spread(frequencies,
           [&symbol_at](unsigned symbol, unsigned state) { symbol_at[state] = static_cast<uint8_t>(symbol); });
    Frequencies numbers = frequencies;
    for (unsigned state = 0; state < N_TABLE; ++state) {
      const uint8_t symbol = symbol_at[state];
      const unsigned number = numbers[symbol]++, n_bits = TABLE_BITS + 1 - length_of(number);
      table_[state] = {static_cast<uint16_t>((number << n_bits) - N_TABLE), symbol, static_cast<uint8_t>(n_bits)};
    }
  }

  void read(BlockReader &in, std::span<uint8_t> symbols) {
    uint32_t a = in.byte(), b = in.byte(), c = in.byte(), d = in.byte();
    if (!in.is_valid()) return;
    const char *const bytes = in.at();
    const size_t n_bytes = in.n_left(), n = symbols.size();
    size_t bit = 0, i = 0;
    for (; i + N_STATES <= n && bit / 8 + 8 <= n_bytes; i += N_STATES) {
      const uint64_t word = word_at(bytes + bit / 8) >> bit % 8;
      unsigned n_used = 0;  // at most 32
      symbols[i] = step(a, word, n_used);
      symbols[i + 1] = step(b, word, n_used);
      symbols[i + 2] = step(c, word, n_used);
      symbols[i + 3] = step(d, word, n_used);
      bit += n_used;
    }
    for (; i < n; ++i) {
      unsigned n_used = 0;
      symbols[i] = step(a, bits_at(bytes, n_bytes, bit), n_used);
      bit += n_used;
      // The turn of the next one.
      const uint32_t last = a;
      a = b, b = c, c = d, d = last;
    }
    if ((a | b | c | d) != 0) in.fail();
    in.skip((bit + 7) / 8);
  }

 private:
  struct Entry {
    uint16_t next;
    uint8_t symbol, n_bits;
  };

  uint8_t step(uint32_t &state, uint64_t word, unsigned &n_used) const {
    const Entry entry = table_[state];
    state = entry.next + (static_cast<uint32_t>(word >> n_used) & ((1u << entry.n_bits) - 1));
    n_used += entry.n_bits;
    return entry.symbol;
  }

  std::array<Entry, N_TABLE> table_;
};

void read_numbers(BlockReader &in, std::span<int64_t> numbers) {
  const int64_t base = in.signed_number();
  const unsigned low = in.byte();
  const Frequencies frequencies = frequencies_of(in.word());
  if (!in.is_valid() || low > MAX_LOW || frequencies == Frequencies{}) return in.fail();
  BlockReader low_bits = in;
  in.skip((numbers.size() * low + 7) / 8);
  if (!in.is_valid()) return;
  std::array<uint8_t, MAX_CODED_NUMBERS> symbols;
  SymbolReader(frequencies).read(in, {symbols.data(), numbers.size()});
  if (!in.is_valid()) return;
  int64_t *const to = numbers.data();
  low_bits.packed(low, numbers.size(), [&symbols, to, low](size_t i, uint64_t bits) {
    to[i] = static_cast<int64_t>(uint64_t{symbols[i]} << low | bits);
  });
  if (frequencies[LARGE] != 0)
    for (size_t i = 0; i < numbers.size(); ++i)
      if (symbols[i] == LARGE) to[i] = plus(to[i], in.varint() << low);
  for (size_t i = 0; i < numbers.size(); ++i)
    to[i] = plus(base, static_cast<uint64_t>(unzigzag(static_cast<uint64_t>(to[i]))));
}

}  // namespace

void read_coded(BlockReader &in, std::span<int64_t> numbers) {
  run_widest([&] { read_numbers(in, numbers); });
}

}  // namespace metricdb
