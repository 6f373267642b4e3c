// The reference of the configuration's attributes: names, kinds and defaults come from the entities'
// descriptors, values and meanings from a table that has a row for each attribute.
#pragma once

#include <string>

namespace Navctl {

// A page of Markdown. Throws std::logic_error, which names the attribute, if the table does not have
// exactly the attributes of the descriptors.
std::string reference();

}  // namespace Navctl
