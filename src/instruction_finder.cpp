// Reads blocks from files. All blocks of a module share its stream, of which only the descriptor is read.
#include "instruction_finder.h"

#include <unistd.h>

#include <algorithm>
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
  const std::uint32_t* words = find_words(module, start_off, end_off);
  if (words == nullptr) return false;
  std::memcpy(buffer, words, (end_off - start_off) / instruction_size * instruction_size);
  return true;
}

const std::uint32_t* instruction_finder::find_words(const std::string& module, std::uint64_t start_off,
                                                    std::uint64_t end_off, const void* file) {
  hand = {};
  const std::size_t count = (end_off - start_off) / instruction_size;
  if (count > max_basic_block_size) {
    log(LEVEL_WARN, "Basic block length=%lu is more that max_basic_block_size=%lu\n", count, max_basic_block_size);
    return nullptr;
  }
  std::FILE* stream = last_stream;
  if (stream == nullptr || module != last_module || tool_logs_traces()) {
    stream = open_file_impl(module);
    if (stream == nullptr) return nullptr;
    last_module = module;
    last_stream = stream;
  }
  const std::size_t place = start_off % window_step;
  const window* found = read_window(stream, start_off - place, place + count * instruction_size);
  if (found == nullptr) {
    log(LEVEL_WARN, "Failed to fseek on file %s\n%s\n", module.c_str(), std::strerror(errno));
    return nullptr;
  }
  const std::size_t got = std::min(count, (std::max(found->size, place) - place) / instruction_size);
  if (got != count) {
    // Whether there was an error is taken for its number here, so the text is "Success" if the file was too short.
    log(LEVEL_WARN, "Failed to fread basic block in file %s, offset %ld, basic_block_size=%lu, ret=%lu, err=%s",
        module.c_str(), static_cast<long>(start_off), count, got, std::strerror(found->has_failed ? 1 : 0));
    return nullptr;
  }
  if (file != nullptr) {
    hand = {file, found->offset, found->size, reinterpret_cast<const std::uint32_t*>(found->bytes)};
  }
  return reinterpret_cast<const std::uint32_t*>(found->bytes + place);
}

const instruction_finder::window* instruction_finder::read_window(std::FILE* stream, std::uint64_t offset,
                                                                  std::size_t size) {
  const int fd = fileno(stream);
  // Neighbours of one file and equal places of two files lie in different windows.
  std::unique_ptr<window>& known = windows[(offset / window_step + static_cast<std::size_t>(fd) * 7) % window_count];
  if (known == nullptr) {
    known = std::unique_ptr<window>(new window);  // Not make_unique, which would write zeros over the bytes.
  } else if (known->stream == stream && known->offset == offset && known->size >= size) {
    return known.get();
  }
  known->stream = nullptr;
  known->size = 0;
  known->has_failed = false;
  while (known->size < sizeof known->bytes) {
    const ssize_t got = pread(fd, known->bytes + known->size, sizeof known->bytes - known->size,
                              static_cast<off_t>(offset + known->size));
    if (got < 0 && (errno == EINVAL || errno == ESPIPE)) return nullptr;  // No file has such an offset.
    if (got < 0) known->has_failed = true;
    if (got <= 0) break;
    known->size += static_cast<std::size_t>(got);
  }
  known->stream = stream;
  known->offset = offset;
  return known.get();
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
