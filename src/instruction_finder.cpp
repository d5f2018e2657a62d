// Reads blocks from files. All blocks of a module share its stream, so each read seeks first.
#include "instruction_finder.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/instruction_finder"};

constexpr std::size_t instruction_size = sizeof(std::uint32_t);

}  // namespace

instruction_finder::~instruction_finder() {
  for (const auto& [path, stream] : open_files) std::fclose(stream);
}

bool instruction_finder::get_basic_block_instruction_code(std::uint32_t* buffer, const std::string& module,
                                                          std::uint64_t start_off, std::uint64_t end_off) {
  const std::size_t count = (end_off - start_off) / instruction_size;
  if (count > max_basic_block_size) {
    log(LEVEL_WARN, "Basic block length=%lu is more that max_basic_block_size=%lu\n", count, max_basic_block_size);
    return false;
  }
  std::FILE* stream = open_file_impl(module);
  if (stream == nullptr) return false;
  if (std::fseek(stream, static_cast<long>(start_off), SEEK_SET) != 0) {
    log(LEVEL_WARN, "Failed to fseek on file %s\n%s\n", module.c_str(), std::strerror(errno));
    return false;
  }
  const std::size_t got = std::fread(buffer, instruction_size, count, stream);
  if (got != count) {
    // The stream's error flag is taken for an error number here, so the text is "Success" if the file was too short.
    log(LEVEL_WARN, "Failed to fread basic block in file %s, offset %ld, basic_block_size=%lu, ret=%lu, err=%s",
        module.c_str(), static_cast<long>(start_off), count, got, std::strerror(std::ferror(stream)));
    return false;
  }
  return true;
}

std::FILE* instruction_finder::open_file_impl(const std::string& module) {
  if (const resolved_name* known = resolved_names.find(module)) {
    log(LEVEL_TRACE, "Resolve path %s to %s", module.c_str(), known->canonical.c_str());
    return known->stream;
  }
  std::error_code error;
  const std::string canonical = std::filesystem::canonical(module, error).string();
  if (error) {
    log(LEVEL_WARN, "Failed to make canonical from %s\n%s", module.c_str(), error.message().c_str());
    return nullptr;
  }
  log(LEVEL_TRACE, "Resolve path %s to %s", module.c_str(), canonical.c_str());
  const auto [stream, is_new] = open_files.insert(canonical, nullptr);
  if (is_new) {
    log(LEVEL_DEBUG, "Try to open file %s", canonical.c_str());
    *stream = std::fopen(canonical.c_str(), "rbe");
    if (*stream == nullptr) {
      log(LEVEL_WARN, "Failed to open %s\n%s\n", module.c_str(), std::strerror(errno));
      open_files.erase(canonical);
      return nullptr;
    }
  }
  resolved_names.insert(module, {canonical, *stream});
  return *stream;
}

}  // namespace ceilmeter
