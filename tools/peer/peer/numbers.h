// Numbers on the tools' command lines: one strict decimal reader for
// hostsim, plcsim and df1tap, the same on every word size.
#ifndef PEER_NUMBERS_H
#define PEER_NUMBERS_H

#include <cstdint>
#include <string>

namespace peer {

// A plain decimal number from min to max (min <= max): a '-' when min is
// negative, then digits, nothing else (no '+', no blanks, no base prefix, no
// separators). Leading zeros are allowed. The value is built in 64 bits
// with every step checked against the bounds, so a number too large for any
// type (99999999999999999999) is refused instead of wrapping, on 32-bit
// panels as on 64-bit machines. False for anything else, *value untouched.
bool ParseInteger(const std::string& text, int64_t min, int64_t max, int64_t* value);

// A plain decimal number from 0 to max: digits only. The same reading as
// ParseInteger, for the tools' unsigned values (rates, periods, counts).
bool ParseDecimal(const std::string& text, unsigned long max, unsigned long* value);

}  // namespace peer

#endif
