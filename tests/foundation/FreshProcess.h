#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// A directory of its own, removed with all it holds at the end.
class TempDirectory {
  public:
    TempDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "qvl-XXXXXX").string();
        mPath = ::mkdtemp(name.data());
    }
    ~TempDirectory() { std::filesystem::remove_all(mPath); }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string operator/(const std::string& name) const { return (mPath / name).string(); }
    std::string path() const { return mPath.string(); }

  private:
    std::filesystem::path mPath;
};

inline void writeFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Starts `action` in a child, which has none of the state that a process builds up at first use.
template <typename Action>
pid_t startChild(Action action) {
    const ::testing::TestResult& result = *::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int reported = result.total_part_count();
    const pid_t child = ::fork();
    if (child != 0) return child;
    action();
    ::_exit(result.total_part_count() > reported ? 1 : 0);
}

inline void expectChildSucceeds(pid_t child) {
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child ended with " << status;
}

template <typename Action>
void inFreshProcess(Action action) {
    expectChildSucceeds(startChild(action));
}
