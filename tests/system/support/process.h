// Runs a program as a user's shell would and keeps all that it leaves: standard output, standard error, wait status.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace ceilmeter::test {

struct process_result {
  std::string out;
  std::string err;
  int status = 0;  // The exit status; 128 and the signal's number for a program that a signal ended.
  double seconds = 0;
};

struct process_options {
  std::filesystem::path folder = {};                    // Working folder; empty: the test's own.
  std::map<std::string, std::string> environment = {};  // Added to the test's own.
  unsigned user = 0;                                    // Run as this user if not 0.
  unsigned descriptor_limit = 0;                        // RLIMIT_NOFILE if not 0.
  int seconds_allowed = 240;                            // Killed then, which the status shows.
};

// `words` is the argument vector, its first element the program (searched in PATH as execvp does).
// `err` without the warnings of metrics that are 0 for want of an event: an emulated counter unit has none of the
// tool's.
std::string without_silent_metrics(const std::string& err);

process_result run_process(const std::vector<std::string>& words, const process_options& options = {});

// The tool of the build that this test belongs to.
std::filesystem::path tool_path();

// A program of the build's tests/programs.
std::filesystem::path program_path(const std::string& name);

std::string content_of(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, const std::string& content);

// A folder that is gone with the object; anyone may write into it, so that runs as another user can.
class temporary_folder {
 public:
  temporary_folder();
  ~temporary_folder();
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;

  const std::filesystem::path& path() const { return m_path; }
  std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

 private:
  std::filesystem::path m_path;
};

// The log's lines as "module level message". Time, thread and line number are left out, because a test cannot know
// them. Text that is no log line stays as it is.
std::vector<std::string> log_lines(const std::string& text);

// Those of one level.
std::vector<std::string> log_lines_of_level(const std::string& text, const std::string& level);

}  // namespace ceilmeter::test
