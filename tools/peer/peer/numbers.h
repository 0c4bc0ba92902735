// Numbers on the tools' command lines.
#ifndef PEER_NUMBERS_H
#define PEER_NUMBERS_H

#include <string>

namespace peer {

// A plain decimal number from 0 to max: digits only (no sign, no blanks), at
// most ten of them. False for anything else, *value untouched.
bool ParseDecimal(const std::string& text, unsigned long max, unsigned long* value);

}  // namespace peer

#endif
