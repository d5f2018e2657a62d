// Showing a file in the user's browser, without a shell: a path may hold any character.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ceilmeter::view {

// The commands to try, each as its words, the file's address included. `variable` is the value of $BROWSER, null where
// it is not set: commands parted by ":", their words by blanks; "%s" stands for the address, which otherwise comes
// last. Behind them the programs by which desktops open files.
std::vector<std::vector<std::string>> browser_commands(const char* variable, const std::string& address);

// The file's address for a browser: file:// and the absolute path, with what is no letter, digit or one of "/-._~"
// in %XX form.
std::string file_address(std::string_view absolute_path);

// Runs the first command that starts and does not fail within two seconds; one that is still running then, as a browser
// in the foreground is, is left alone. False if none does.
bool open_in_browser(const std::string& path);

}  // namespace ceilmeter::view
