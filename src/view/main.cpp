// ceilview: from the command line to what it asks for, in one go: read, derive, write. Nothing is written before all of
// it is known.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "view/browser.h"
#include "view/compare.h"
#include "view/csv.h"
#include "view/modules.h"
#include "view/output.h"
#include "view/page.h"
#include "view/picture.h"
#include "view/read_result.h"
#include "view/table.h"
#include "view/text.h"
#include "view/view_options.h"

namespace ceilmeter::view {

namespace {

enum exit_status : int { WRITTEN = 0, WRONG_COMMAND_LINE = 1, WRONG_INPUT = 2, OUTPUT_FAILED = 3 };

// A line on standard error. Names of strangers must not reach a terminal as they are.
void say(const std::string& text) { std::fprintf(stderr, "ceilview: %s\n", clean_utf8(text).c_str()); }

exit_status print(const std::string& text) {
  const std::string error = write_output("-", text);
  if (error.empty()) return WRITTEN;
  say("standard output: " + error);
  return OUTPUT_FAILED;
}

// A device such as /dev/zero would fill the memory before it were found to be no result file. Pipes are fine.
bool is_device(const std::string& path) {
  struct stat status {};
  return path != "-" && stat(path.c_str(), &status) == 0 && (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode));
}

// Every file is tried, so that all complaints come at once.
bool read_files(const command_options& options, std::vector<result_file>& files) {
  bool good = true;
  for (const std::string& path : options.files) {
    read_outcome outcome;
    if (is_device(path)) {
      outcome.error = path + ": it is a device, not a result file";
    } else {
      outcome = read_result(path);
    }
    good = good && outcome.ok;
    if (!outcome.ok) say(outcome.error);
    files.push_back(std::move(outcome.result));
  }
  return good;
}

// The names of the blocks, for each file.
using name_list = std::vector<std::unique_ptr<module_names>>;

name_list read_modules(const command_options& options, std::vector<result_file>& files) {
  name_list names;
  for (result_file& file : files) {
    names.push_back(std::make_unique<module_names>(file, options.modules_folder));
    for (const std::string& warning : names.back()->warnings()) {
      say("warning: " + warning);
      file.notes.push_back(warning);
    }
  }
  return names;
}

view_options options_of_view(const command_options& options) {
  view_options view;
  view.mode = options.relation == file_relation::BASELINE ? view_mode::baseline
              : options.relation == file_relation::RANKS  ? view_mode::ranks
                                                          : view_mode::overlay;
  view.threads = options.threads;
  view.level = options.level;
  view.fixed_frame = options.axes;
  view.title = options.title.value_or("");
  return view;
}

std::string write_form(const command_options& options, const view_model& model, const name_list& names) {
  switch (options.form) {
    case output_form::SVG: return draw_picture(model, {});
    case output_form::CSV: return write_csv(model);
    case output_form::TABLE: return write_table(model);
    case output_form::PAGE: break;
  }
  page_options page;
  page.blocks = options.blocks;
  // The model may have a file of sums in front, whose blocks are of no one module.
  if (!names.empty()) {
    page.names.assign(model.files.size() - names.size(), nullptr);
    for (const auto& one : names) page.names.push_back(one.get());
  }
  return write_page(model, page);
}

exit_status show(const command_options& options) {
  if (const std::string input = input_that_is_output(options.output, options.files); !input.empty()) {
    say("the output would replace the input " + input);
    return WRONG_COMMAND_LINE;
  }
  std::vector<result_file> files;
  if (!read_files(options, files)) return WRONG_INPUT;
  const bool with_names = options.modules && options.form == output_form::PAGE;
  const auto names = with_names ? read_modules(options, files) : name_list();
  for (result_file& file : files) {
    if (options.short_paths) file.modules = shortened_paths(file.modules);
    // The page tells them itself.
    if (options.form == output_form::PAGE) continue;
    for (const std::string& note : file.notes) say(file.path + ": " + note);
  }
  const view_model model = build_view(std::move(files), options_of_view(options));
  const std::string text = write_form(options, model, names);
  if (options.output == "-") return print(text);
  if (const std::string error = write_output(options.output, text); !error.empty()) {
    say(options.output + ": " + error);
    return OUTPUT_FAILED;
  }
  // Where standard output is closed, the file is written all the same.
  std::printf("%s\n", options.output.c_str());
  if (options.open && !open_in_browser(options.output)) {
    say("warning: no browser could be started; $BROWSER can name one");
  }
  return WRITTEN;
}

exit_status run(std::span<const char* const> arguments) {
  const parsed_command_line parsed = parse_command_line(arguments);
  if (!parsed.error.empty()) {
    say(parsed.error);
    say("the options are listed by ceilview --help");
    return WRONG_COMMAND_LINE;
  }
  if (parsed.options.help) return print(usage_text());
  if (parsed.options.version) return print("ceilview version " CEILVIEW_VERSION "\n");
  return show(parsed.options);
}

}  // namespace

}  // namespace ceilmeter::view

int main(int argc, char** argv) {
  using namespace ceilmeter::view;
  try {
    const std::span<const char* const> words(argv, static_cast<std::size_t>(argc));
    return run(words.subspan(std::min<std::size_t>(words.size(), 1)));
  } catch (const std::bad_alloc&) {
    say("the input needs more memory than there is");
    return WRONG_INPUT;
  }
}
