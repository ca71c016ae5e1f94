// Random bytes from the system's cryptographic source, and UUIDs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mailcore {

// Fills `count` bytes from getrandom(); throws std::runtime_error only when
// the kernel refuses (never on a working system).
std::vector<std::uint8_t> randomBytes(std::size_t count);

// A random version-4 UUID in upper-case canonical form
// ("1B4E28BA-2FA1-41D2-883F-0016D3CCA427").
std::string makeUUID();

}  // namespace mailcore
