// A directory of a test's own, gone with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

struct TempDir {
    TempDir() : path(std::filesystem::temp_directory_path() / "nav-test-XXXXXX") {
        if (mkdtemp(path.data()) == nullptr) std::abort();
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    TempDir(const TempDir&) = delete;

    std::string path;
};
