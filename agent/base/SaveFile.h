// Writing a file whole or not at all.
#pragma once

#include <string>

namespace Navctl {

// Gives the file this content. A regular file is replaced in one step: mode, and where permitted
// owner, stay; a symbolic link is followed; after a failure the old content stands and nothing else
// is left. A device or a pipe is written to. Throws std::system_error, its text naming the file.
//
// ownerOnly is for secrets: a regular file of mode 0600, whatever it was before; anything else is
// refused.
enum class SaveMode { asBefore, ownerOnly };
void saveFile(const std::string& name, const std::string& content, SaveMode mode);

}  // namespace Navctl
