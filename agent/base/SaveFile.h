// Writing a file whole or not at all. For navctl, and for what the agent keeps across restarts.
#pragma once

#include <string>

namespace Agent {

// Gives the file this content. A regular file is replaced in one step: mode, and where permitted
// owner, stay; a symbolic link is followed; after a failure the old content stands and nothing else
// is left. A device or a pipe is written to. Throws std::system_error, its text naming the file.
//
// ownerOnly is for secrets: a regular file of mode 0600, whatever it was before; anything else is
// refused.
enum class SaveMode { asBefore, ownerOnly };
// Whether the content has to be on the disk before the file is replaced. Waiting for the disk is
// not for the event thread.
enum class Sync { yes, no };
void saveFile(const std::string& name, const std::string& content, SaveMode mode,
              Sync sync = Sync::yes);

}  // namespace Agent
