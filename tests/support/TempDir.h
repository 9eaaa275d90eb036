#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

#include "kyr/platform/Path.h"

namespace kyr::test {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

/// A directory, which is created if it does not exist.
class Folder {
 public:
  explicit Folder(fs::path root) : root_(std::move(root)) { fs::create_directories(root_); }

  Path path() const { return Path::fromFilesystem(root_); }
  fs::path file(const std::string& name) const { return root_ / name; }
  fs::path file(int id) const { return file(std::to_string(id)); }

  void touch(const std::string& name, const std::string& bytes = "") const {
    std::ofstream(file(name), std::ios::binary) << bytes;
  }
  std::string contents(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  Names names() const {
    Names result;
    for (const auto& entry : fs::directory_iterator(root_)) result.insert(entry.path().filename());
    return result;
  }

 protected:
  fs::path root_;
};

/// A directory that the destructor removes with everything in it. While the object lives, it is the
/// system's directory for temporary files, so that files that tests and their children leave behind
/// are removed as well.
class TempDir : public Folder {
 public:
  TempDir() : Folder(make()), before_(fs::temp_directory_path()) {
    setenv("TMPDIR", root_.c_str(), 1);
  }
  ~TempDir() {
    setenv("TMPDIR", before_.c_str(), 1);
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  TempDir(const TempDir&) = delete;

 private:
  static fs::path make() {
    std::string pattern = fs::temp_directory_path() / "kyr-test-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make " + pattern);
    return pattern;
  }

  fs::path before_;
};

}  // namespace kyr::test
