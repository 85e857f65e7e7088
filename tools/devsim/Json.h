#pragma once
// A small JSON reader that builds libplist nodes, so device profiles can be written
// as JSON (libplist 2.2 reads no JSON). Objects keep their key order.
//   object -> dict, array -> array, string -> string, true/false -> boolean,
//   integer >= 0 -> unsigned integer, other number -> real, null -> left out,
//   {"$data": "<base64>"} -> data.

#include "Plist.h"

#include <string>

namespace devsim {

// Null on a syntax error; error (when given) then says where.
Plist jsonToPlist(const std::string& text, std::string* error = nullptr);

std::string base64Decode(const std::string& text, bool* ok = nullptr);
std::string base64Encode(const std::string& bytes);

} // namespace devsim
