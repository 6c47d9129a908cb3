// The registry store as the programs check it before they rely on it: a
// store the library cannot write, a damaged one, and a choice kept in a
// store the library has set aside. sxscan, sxscan-serve and the doctor share
// these checks, so all three name a store's fault the same way.
#pragma once
#include <string>

namespace sx::host {

// Why the library cannot write the store (or make it), and a fix for that
// cause; both empty when it can.
struct StoreBlock {
  std::string Cause;
  std::string Fix;
};
StoreBlock StoreWriteBlock();

// A registry store that cannot be read, holds damaged lines, or cannot be
// written (or made): the message names its path and the cause (the first
// line at fault, shown safely), with a fix for that cause.
bool RegistryStoreProblem(std::string* message);
// The source chosen in a registry store that can be read but not written
// (the library then reads its fall-back file instead); false when the store
// can be written or names none.
bool UnwritableStoreChoice(std::string* name);

// Text from the store as it may be shown on a terminal: control bytes and
// bytes outside ASCII as \xNN, and no more than a line's worth.
std::string Printable(const std::string& text);

}  // namespace sx::host
