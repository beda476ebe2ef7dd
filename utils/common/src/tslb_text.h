// Numbers as text without printf, for what is formatted with every line of the log. Private.
#ifndef TSLB_TEXT_H
#define TSLB_TEXT_H

constexpr int NUMBER_LEN = 11;  // "-2147483648"

// As "%d", without a terminator. The result is behind the last digit; `at` has room for NUMBER_LEN characters.
// Not std::to_chars, whose table of digits every library that uses it exports.
static inline char *put_number(char *at, int number) {
  char digits[NUMBER_LEN];
  int n_digits = 0;
  unsigned left = number < 0 ? 0u - static_cast<unsigned>(number) : static_cast<unsigned>(number);
  do digits[n_digits++] = static_cast<char>('0' + left % 10);
  while ((left /= 10) != 0);
  if (number < 0) *at++ = '-';
  while (n_digits != 0) *at++ = digits[--n_digits];
  return at;
}

// As "%02d".
static inline char *put_padded(char *at, int number) {
  if (number >= 0 && number < 10) *at++ = '0';
  return put_number(at, number);
}

#endif
