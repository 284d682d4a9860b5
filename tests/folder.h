// A folder of a test's own, gone at its end, and files as bytes, without the library.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace test {

inline std::string bytes_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

class Folder {
  public:
    Folder() { EXPECT_NE(mkdtemp(name_), nullptr); }
    ~Folder() { std::filesystem::remove_all(name_); }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    std::string path(const std::string &name) const { return name_ + ("/" + name); }
    std::string put(const std::string &name, std::string_view bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }
    size_t files() const {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(name_), {}));
    }

  private:
    char name_[22] = "/tmp/qvcl-testsXXXXXX";
};

}  // namespace test
