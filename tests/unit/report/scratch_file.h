// A file that lives as long as the object, with a name of its own.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace ceilmeter {

class scratch_file {
 public:
  explicit scratch_file(const std::string& text = "")
      : path_((std::filesystem::temp_directory_path() / "report_XXXXXX").string()) {
    const int file = mkstemp(path_.data());
    if (file < 0) throw std::runtime_error("cannot make " + path_);
    close(file);
    std::ofstream(path_, std::ios::binary) << text;
  }
  scratch_file(const scratch_file&) = delete;
  scratch_file& operator=(const scratch_file&) = delete;
  ~scratch_file() { unlink(path_.c_str()); }

  const std::string& path() const { return path_; }

  std::string text() const {
    std::ifstream stream(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

 private:
  std::string path_;
};

}  // namespace ceilmeter
