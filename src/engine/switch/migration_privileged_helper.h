// Corvane's privileged helper mode on systems without JavaScript for Automation: the administrator
// command starts the corvane binary itself with one of these arguments, and it performs the
// exchange (after re-reading the three identities) or one file operation as root.
//
//   corvane --corvane-exchange --checked FIRST SECOND PARENT_ID FIRST_ID SECOND_ID
//   corvane --corvane-exchange --rehearse FIRST SECOND
//   corvane --corvane-file-operation createSymbolicLinkAtPathWithDestinationPathError LINK TARGET
//   corvane --corvane-file-operation removeItemAtPathError PATH
//
// An ID is "DEVICE:INODE" in decimal, read without following links; PARENT_ID belongs to the
// directory holding FIRST. The helper prints one JSON object on one line, {"result": ...} with
// "path" and "errno" where they apply, and exits with one of the statuses below.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "engine/manifest/migration_file_identity.h"

namespace corvane {

inline constexpr const char* kExchangeHelperArgument = "--corvane-exchange";
inline constexpr const char* kFileOperationHelperArgument = "--corvane-file-operation";
inline constexpr const char* kCheckedArgument = "--checked";
inline constexpr const char* kRehearseArgument = "--rehearse";

// Exit statuses. 126 and 127 are left to the shell and the launcher (126: dialog dismissed).
enum class HelperExit : int {
  done = 0,              // {"result":"exchanged"}, {"result":"rehearsed"}, {"result":"done"}
  usage = 64,            // {"result":"usage"}
  identityChanged = 65,  // {"result":"identity_changed","path":P}: nothing was touched
  operationFailed = 66,  // {"result":"failed","path":P,"errno":N}
};

std::string helperIdentityArgument(const MigrationFileIdentity& identity);

// `arguments` are those after the mode argument. Output goes to `out`.
int runExchangeHelper(const std::vector<std::string>& arguments, std::ostream& out);
int runFileOperationHelper(const std::vector<std::string>& arguments, std::ostream& out);

}  // namespace corvane
