// The machine-wide list of open files that the occupancy check reads: which lister this platform
// uses by default, where lsof lives, and the native scan that produces lsof's field output
// ("-F0pcfatDin": NUL-terminated p, c, f, a, t, D, i and n fields, one line per process and file).
//
// Error contract: listOpenFilesNatively() throws PosixError when the process table itself cannot
// be read, and std::logic_error on platforms that have no native scan. Processes that vanish
// while they are read are left out; unreadable details are reported in the output as lsof does.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace corvane::platform {

enum class OpenFileLister { lsof, native };

// The native /proc scan on Linux; lsof on macOS, whose kernel offers no cheaper complete view.
OpenFileLister defaultOpenFileLister();

// "/usr/sbin/lsof" on macOS, "/usr/bin/lsof" on Linux.
const char* lsofExecutablePath();

// Which files a listing is about: true for the (device, inode) pairs the caller wants to see.
using OpenFileFilter = std::function<bool(std::int64_t device, std::uint64_t inode)>;

// Every open file of every process, in exactly the form "lsof -nP +c 0 -F0pcfatDin" prints it
// with LC_ALL=C for descriptors, working and root directories, executables and mapped files.
// With a filter only the records of wanted files are written, each after its process's p and c
// lines, and processes without such records are left out; files that are not wanted are never
// named, which saves most of the work.
std::string listOpenFilesNatively(const OpenFileFilter& filter = {});

// The device number the platform's stat reports for a major and minor pair (lsof prints pairs
// when a mapped file's path leads to another device than the mapping).
std::int64_t deviceNumber(unsigned major, unsigned minor);

}  // namespace corvane::platform
