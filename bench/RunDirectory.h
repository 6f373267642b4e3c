// A temporary run directory in memory, removed with the object.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/shard/Namespace.h"

namespace Bench {

class RunDirectory {
  public:
    RunDirectory() : path_("/dev/shm/bench.XXXXXX") {
        if (!::mkdtemp(path_.data())) std::abort();
    }
    ~RunDirectory() { std::filesystem::remove_all(path_); }
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    const std::string& path() const { return path_; }
    Shard::Namespace space() const { return Shard::Namespace(path_); }

  private:
    std::string path_;
};

}  // namespace Bench
