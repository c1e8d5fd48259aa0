// Renders every page of the window, and the questions it asks, in every language into PNG files
// so that a person can look at them: real disks, moved items and findings where the run may
// mount loop disks (root), sample folders only otherwise.
#pragma once

#include <string>

namespace corvane::ui {

// Writes <directory>/<language>/<nn>-<page>.png; returns the process exit status.
int renderScreenshots(const std::string& directory);

}  // namespace corvane::ui
