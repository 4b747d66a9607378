#pragma once

#include <string>

#include "caps/Store.h"

namespace caps {

// Two databases as one: what is `below` (the system's) in its order, then what is on `top` (the
// user's). An application of the same specifier, a product or payload of the same identifier and
// other data of the same subdomain are the top's; group entries of both stand in one list, the
// top's last, so that they win. Entries that were written into the lower one by hand are said to
// come from `belowPath`.
Contents layered(Contents below, Contents top, const std::string& belowPath);

} // namespace caps
