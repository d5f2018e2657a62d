// The lock around the result file, and a look at an earlier one before it is read.
#include "perfmon/region_result.h"

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

#include "common/log.h"
#include "json/json.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/perfmon/roofline_events"};

constexpr long poll_milliseconds = 10;
constexpr long longest_wait_milliseconds = 600'000;

// 0, or the reason why there is no lock. EWOULDBLOCK: somebody else has held it all the time.
int wait_for_lock(int fd) {
  for (long waited = 0;; waited += poll_milliseconds) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return 0;
    if (errno != EINTR && (errno != EWOULDBLOCK || waited >= longest_wait_milliseconds)) return errno;
    const timespec pause{0, poll_milliseconds * 1'000'000};
    nanosleep(&pause, nullptr);
  }
}

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool is_thread_count(const char* text) {
  std::uint64_t count = 0;
  const char* end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, count);
  return error == std::errc() && stop == end && stop != text;
}

const json_token* member(const json_token* object, const char* key) {
  if (object == nullptr || json_get_type(object) != JSON_OBJECT) return nullptr;
  for (const json_token* child = json_first_child(object); child != nullptr; child = json_next_sibling(child)) {
    const char* name = json_get_key(child);
    if (name != nullptr && std::strcmp(name, key) == 0) return child;
  }
  return nullptr;
}

bool is_container(const json_token* token) {
  return token != nullptr && (json_get_type(token) == JSON_ARRAY || json_get_type(token) == JSON_OBJECT);
}

// The reader leaves out a block with fewer fields. A block whose last field is no text makes the file damaged.
bool has_broken_block(const json_token* blocks) {
  if (!is_container(blocks)) return false;
  constexpr int module_position = 7;
  for (const json_token* block = json_first_child(blocks); block != nullptr; block = json_next_sibling(block)) {
    if (!is_container(block)) continue;
    const json_token* field = json_first_child(block);
    for (int position = 0; position < module_position && field != nullptr; ++position) field = json_next_sibling(field);
    if (field != nullptr && json_get_string(field) == nullptr) return true;
  }
  return false;
}

std::optional<std::string> damage_of(const json_document* document) {
  if (json_document_error(document) != JSON_OK) {
    const char* message = json_document_error_message(document);
    return std::string(message != nullptr ? message : "no JSON") + " in line " +
           std::to_string(json_document_error_line(document));
  }
  const json_token* root = json_document_root(document);
  if (root == nullptr || json_get_type(root) != JSON_OBJECT) return "no object";
  const json_token* regions = member(root, "regions");
  if (is_container(regions)) {
    for (const json_token* region = json_first_child(regions); region != nullptr; region = json_next_sibling(region)) {
      if (has_broken_block(member(region, "bbs"))) return "a block without a module";
    }
  }
  const json_token* roofs = member(root, "roofs_by_num_threads");
  if (roofs != nullptr && json_get_type(roofs) == JSON_OBJECT) {
    for (const json_token* count = json_first_child(roofs); count != nullptr; count = json_next_sibling(count)) {
      if (!is_thread_count(json_get_key(count))) return "roofs without a number of threads";
    }
  }
  return std::nullopt;
}

}  // namespace

result_lock::result_lock(const std::string& path) {
  int reason = 0;
  m_fd = open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_fd >= 0) {
    reason = wait_for_lock(m_fd);
    if (reason != 0) close(m_fd);
  }
  if ((m_fd < 0 || reason != 0) && reason != EWOULDBLOCK) {
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    reason = m_fd >= 0 ? wait_for_lock(m_fd) : errno;
    if (m_fd >= 0 && reason != 0) close(m_fd);
  }
  if (reason == 0) return;
  m_fd = -1;
  log({reason == EWOULDBLOCK ? LEVEL_WARN : LEVEL_DEBUG, __builtin_LINE(), "finalize_perf_roofline_events"},
      "%s is read and written without a lock: %s", path.c_str(), std::strerror(reason));
}

result_lock::~result_lock() {
  if (m_fd >= 0) close(m_fd);
}

std::optional<std::string> find_result_damage(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  if (text.empty()) return std::nullopt;
  json_document* document = nullptr;
  json_parse(text.c_str(), &document);
  if (document == nullptr) return std::nullopt;
  const std::optional<std::string> damage = damage_of(document);
  json_document_free(document);
  return damage;
}

}  // namespace ceilmeter
