// A folder for a test's files. It is removed with the object.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace ceilmeter::test {

// Any user may read it.
class scratch_folder {
 public:
  scratch_folder() : m_path((std::filesystem::temp_directory_path() / "ceilmeter_unit_test.XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) throw std::runtime_error("no folder for the test");
    std::filesystem::permissions(m_path, std::filesystem::perms{0755});
  }
  ~scratch_folder() {
    std::error_code ignored;
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(m_path, ignored);
  }
  scratch_folder(const scratch_folder&) = delete;
  scratch_folder& operator=(const scratch_folder&) = delete;

  const std::string& path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

  // Writes a file and returns its path.
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(*this / name, std::ios::binary) << content;
    return *this / name;
  }

 private:
  std::string m_path;
};

}  // namespace ceilmeter::test
