// The names and the commit document of a clip uploaded in blocks. Every id of a blob has
// one length (base64 of six decimal digits), so blocks an earlier attempt left
// uncommitted can never clash with this attempt's.
#pragma once

#include <cstdint>
#include <string>

namespace zel {

// Base64 of the block number as six zero-padded decimal digits: 8 characters, no '='.
// Digits encode to letters and digits only, so the id needs no percent-encoding in a query.
std::string block_id(uint64_t n);
// The Put Block List body committing blocks 0 .. count-1 in order.
std::string block_list_body(uint64_t count);

}  // namespace zel
