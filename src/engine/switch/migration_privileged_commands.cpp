#include "engine/switch/migration_privileged_commands.h"

#include <fcntl.h>

#include "engine/manifest/migration_entry.h"
#include "engine/switch/migration_privileged_helper.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "support/javascript_literal.h"
#include "support/paths.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

constexpr const char* kOsascriptJavaScript = "/usr/bin/osascript -l JavaScript -e ";

// The object at `path` now, read without following a link; absence is an error of that path.
MigrationEntry identityNow(const std::string& path) {
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  if (!entry) platform::throwErrno(ENOENT, path);
  return *entry;
}

std::string exchangeCall(const std::string& first, const std::string& second) {
  return "if($.renamex_np(" + javaScriptLiteral(first) + "," + javaScriptLiteral(second) +
         ",2)!==0){throw Error('atomic exchange failed');}";
}

}  // namespace

MigrationPrivilegedCommands MigrationPrivilegedCommands::forThisSystem() {
  return MigrationPrivilegedCommands(platform::privilegedCommandStyle(), platform::currentExecutablePath());
}

MigrationPrivilegedCommands::MigrationPrivilegedCommands(platform::PrivilegedCommandStyle style,
                                                         std::string helperExecutable)
    : style_(style), helperExecutable_(std::move(helperExecutable)) {}

std::string MigrationPrivilegedCommands::exchangeScript(const std::string& first, const std::string& second,
                                                        ExchangeCheck check) {
  std::string script =
      "ObjC.import('Foundation'); ObjC.bindFunction('renamex_np',['int',['char *','char *','unsigned int']]);";
  if (check == ExchangeCheck::checked) {
    for (const std::string& path : {parentPath(first), first, second}) {
      const MigrationEntry entry = identityNow(path);
      script +=
          "var a=$.NSFileManager.defaultManager.attributesOfItemAtPathError(" + javaScriptLiteral(path) + ",null);";
      script += "if(!a || a.objectForKey($.NSFileSystemFileNumber).stringValue.js!==" +
                javaScriptLiteral(std::to_string(entry.inode)) +
                " || a.objectForKey($.NSFileSystemNumber).stringValue.js!==" +
                javaScriptLiteral(std::to_string(entry.device)) + "){throw Error('identity changed');}";
    }
  }
  script += exchangeCall(first, second);
  if (check == ExchangeCheck::rehearsal) script += exchangeCall(first, second);
  return script;
}

std::string MigrationPrivilegedCommands::foundationScript(const std::string& selector, const std::string& path,
                                                          const std::optional<std::string>& destination) {
  std::string arguments = javaScriptLiteral(path);
  if (destination) arguments += "," + javaScriptLiteral(*destination);
  arguments += ",error";
  return "ObjC.import('Foundation'); var error=Ref(); if (!$.NSFileManager.defaultManager." + selector + "(" +
         arguments + ")) { throw Error('filesystem operation failed'); }";
}

std::string MigrationPrivilegedCommands::exchangeCommand(const std::string& first, const std::string& second,
                                                         ExchangeCheck check) const {
  if (style_ == platform::PrivilegedCommandStyle::javaScriptForAutomation) {
    return kOsascriptJavaScript + shellQuote(exchangeScript(first, second, check));
  }
  std::string command = shellQuote(helperExecutable_) + " " + kExchangeHelperArgument;
  if (check == ExchangeCheck::rehearsal) {
    return command + " " + kRehearseArgument + " " + shellQuote(first) + " " + shellQuote(second);
  }
  command += std::string(" ") + kCheckedArgument + " " + shellQuote(first) + " " + shellQuote(second);
  for (const std::string& path : {parentPath(first), first, second}) {
    command += " " + helperIdentityArgument(identityNow(path).identity());
  }
  return command;
}

std::string MigrationPrivilegedCommands::foundationCommand(const std::string& selector, const std::string& path,
                                                           const std::optional<std::string>& destination) const {
  if (style_ == platform::PrivilegedCommandStyle::javaScriptForAutomation) {
    return kOsascriptJavaScript + shellQuote(foundationScript(selector, path, destination));
  }
  std::string command =
      shellQuote(helperExecutable_) + " " + kFileOperationHelperArgument + " " + selector + " " + shellQuote(path);
  if (destination) command += " " + shellQuote(*destination);
  return command;
}

std::string MigrationPrivilegedCommands::rehearsalCommand(const std::string& probe, const std::string& source) const {
  const std::string a = joinPath(probe, "a");
  const std::string b = joinPath(probe, "b");
  const std::string link = joinPath(probe, "link");
  const std::string cleanup = "/bin/rm -f " + shellQuote(link) + "; /bin/rmdir " + shellQuote(b) +
                              " 2>/dev/null; /bin/rmdir " + shellQuote(probe);
  return "set -e; /bin/mkdir -m 700 " + shellQuote(probe) + "; trap " + shellQuote(cleanup) + " EXIT; /bin/mkdir " +
         shellQuote(a) + "; /bin/mv " + shellQuote(a) + " " + shellQuote(b) + "; /bin/ln -s " + shellQuote(source) +
         " " + shellQuote(link) + "; " + exchangeCommand(b, link, ExchangeCheck::rehearsal);
}

std::vector<std::string> MigrationPrivilegedCommands::removeDirectoriesCommands(
    const std::vector<std::string>& directories, std::size_t limit) {
  const std::string program = "/bin/rmdir";
  std::vector<std::string> commands;
  std::string command;
  for (const auto& directory : directories) {
    const std::string argument = " " + shellQuote(directory);
    if (!command.empty() && command.size() + argument.size() > limit) {
      commands.push_back(std::move(command));
      command.clear();
    }
    if (command.empty()) command = program;
    command += argument;
  }
  if (!command.empty()) commands.push_back(std::move(command));
  return commands;
}

}  // namespace corvane
