#pragma once
// A fresh directory for one test, removed with everything in it afterwards.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace tavix::test {

class TemporaryDirectory {
public:
  TemporaryDirectory() {
    const char *base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tavix-test-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr)
      throw std::runtime_error("mkdtemp failed for " + path_);
  }
  ~TemporaryDirectory() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
  TemporaryDirectory(const TemporaryDirectory &) = delete;

  const std::string &path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

private:
  std::string path_;
};

inline void writeFile(const std::string &path, std::string_view contents) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

inline std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace tavix::test
