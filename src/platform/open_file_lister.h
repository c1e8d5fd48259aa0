// The machine-wide list of open files that the occupancy check reads: which lister this platform
// uses by default, where lsof lives, and the native scan that produces lsof's field output
// ("-F0pcfatDin": NUL-terminated p, c, f, a, t, D, i and n fields, one line per process and file).
//
// Error contract: listOpenFilesNatively() throws PosixError when the process table or the queried
// item cannot be read, and std::logic_error on platforms that have no native scan. Processes that vanish
// while they are read are left out; unreadable details are reported in the output as lsof does.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvane::platform {

enum class OpenFileLister { lsof, native };

// The native /proc scan on Linux; lsof on macOS, whose kernel offers no cheaper complete view.
OpenFileLister defaultOpenFileLister();

// "/usr/sbin/lsof" on macOS, "/usr/bin/lsof" on Linux.
const char* lsofExecutablePath();

// Which files a listing is about: true for the (device, inode) pairs the caller wants to see.
using OpenFileFilter = std::function<bool(std::int64_t device, std::uint64_t inode)>;

// A listing of one item's files.
struct OpenFileQuery {
  // The item's folder. Its file system and those of `devices` are the only ones the scan looks
  // into through a descriptor or a mapping: what the mount table places on any other file system
  // is passed over without a single request to it, so that a network or FUSE mount elsewhere that
  // stopped answering cannot stall the scan. (Working folders, roots and executables have no
  // mount entry to tell by; they are read from the attributes the kernel holds, without asking a
  // network or FUSE server.)
  std::string within;
  std::vector<std::int64_t> devices;  // as stat reports them for the wanted files
  OpenFileFilter wanted;
};

// Every open file of every process, in exactly the form "lsof -nP +c 0 -F0pcfatDin" prints it
// with LC_ALL=C for descriptors, working and root directories, executables and mapped files.
std::string listOpenFilesNatively();
// The same narrowed to the query's files: only records of wanted files are written, each after its
// process's p and c lines, and processes without such records are left out; files that are not
// wanted are never named, which saves most of the work.
std::string listOpenFilesNatively(const OpenFileQuery& query);

// The device number the platform's stat reports for a major and minor pair (lsof prints pairs
// when a mapped file's path leads to another device than the mapping).
std::int64_t deviceNumber(unsigned major, unsigned minor);

}  // namespace corvane::platform
