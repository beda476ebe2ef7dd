// Formats numbers without printf, for fields that every line of the log contains. Private.
#ifndef TSLB_TEXT_H
#define TSLB_TEXT_H

constexpr int NUMBER_LEN = 11;  // "-2147483648"

// Writes as "%d" does, without a terminator. Returns the position after the last digit. `at` has room for NUMBER_LEN
// characters. std::to_chars is not used: every library that uses it exports its table of digits.
static inline char *put_number(char *at, int number) {
  unsigned left = number < 0 ? 0u - static_cast<unsigned>(number) : static_cast<unsigned>(number);
  if (number < 0) *at++ = '-';
  for (unsigned above = left; above >= 10; above /= 10) ++at;
  char *const end = at + 1;
  for (; left >= 10; left /= 10) *at-- = static_cast<char>('0' + left % 10);
  *at = static_cast<char>('0' + left);
  return end;
}

// Writes as "%02d" does, without a terminator.
static inline char *put_padded(char *at, int number) {
  if (number < 0 || number > 99) return put_number(at, number);
  at[0] = static_cast<char>('0' + number / 10);
  at[1] = static_cast<char>('0' + number % 10);
  return at + 2;
}

#endif
