#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

/// A new directory with a name of its own; it goes, with all that is in it, at the end of its scope.
class TempDirectory {
  public:
    TempDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "qvltest.XXXXXX").string();
        if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
        mPath = name;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return mPath; }
    /// Path of an entry, whether it is there or not.
    std::string operator/(const std::string& name) const { return mPath + '/' + name; }

    /// Writes a file and returns its path. Directories on the way are made.
    std::string write(const std::string& name, const std::string& text) const {
        const std::filesystem::path file = *this / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
        return file.string();
    }
    /// Makes what looks like a device to a scan.
    void makeDevice(const std::string& name) const {
        const std::filesystem::path file = *this / name;
        std::filesystem::create_directories(file.parent_path());
        std::filesystem::create_symlink("/dev/null", file);
    }
    /// Content of a file, empty if it is not there.
    std::string read(const std::string& name) const {
        std::ifstream file(*this / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    std::string mPath;
};
