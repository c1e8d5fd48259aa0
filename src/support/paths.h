// Small path helpers shared by every subsystem. Paths are plain strings; "/" separates.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvane {

std::string joinPath(std::string_view base, std::string_view child);
// Everything before the last component ("/" for "/a", "." for "a").
std::string parentPath(std::string_view path);
std::string lastComponent(std::string_view path);
// Non-empty components between slashes.
std::vector<std::string> pathComponents(std::string_view path);
// Collapses "//", "." and ".." lexically; absolute paths stay absolute.
std::string standardizePath(std::string_view path);
// Whether `path` is `ancestor` or lies below it (both standardized absolute paths).
bool isSameOrDescendant(std::string_view path, std::string_view ancestor);
// `path` made absolute against the current directory, then standardized.
std::string absolutePath(std::string_view path);
// Resolves every symbolic link met along an absolute path (at most 40 of them), like a
// URL's symlink resolution: components that do not exist are kept as written.
std::string resolvingSymlinksInPath(std::string_view path);

}  // namespace corvane
