#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/migration_entry.h"
#include "engine/migration_privileged_commands.h"
#include "engine/privileged_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "support/apple_script.h"
#include "support/javascript_literal.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

using platform::AdministratorOutcome;
using platform::PrivilegedCommandStyle;

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Reads an AppleScript string literal body back, the way AppleScript does.
std::string appleScriptUnescape(const std::string& escaped) {
  std::string text;
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '\\') {
      text.push_back(escaped[i]);
      continue;
    }
    const char next = escaped.at(++i);
    text.push_back(next == 'n' ? '\n' : next == 'r' ? '\r' : next);
  }
  return text;
}

TEST(AppleScriptTest, TheAdministratorScriptIsExactlyTheSixLines) {
  EXPECT_EQ(administratorAppleScript("/bin/rmdir '/a b'"),
            "try\n    do shell script \"/bin/rmdir '/a b'\" with administrator privileges\n    return \"0\"\n"
            "on error message number errorNumber\n    return errorNumber as string\nend try");
}

TEST(AppleScriptTest, EscapingKeepsTheMeaningOfAnyCommand) {
  const std::string command = "printf '%s' \"a\\\\b\"; echo 'it'\\''s'\r\n/bin/ln -s \"x\" y";
  const std::string escaped = appleScriptStringEscape(command);
  EXPECT_EQ(escaped.find('\n'), std::string::npos);
  EXPECT_EQ(escaped.find('\r'), std::string::npos);
  // No unescaped double quote could end the literal early.
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] == '\\') {
      ++i;
      continue;
    }
    EXPECT_NE(escaped[i], '"') << "at " << i;
  }
  EXPECT_EQ(appleScriptUnescape(escaped), command);
  EXPECT_EQ(appleScriptStringEscape("\\\"\n\r"), "\\\\\\\"\\n\\r");
}

TEST(AppleScriptTest, LauncherResultsAreReadStrictly) {
  auto exited = [](int code) { return platform::ProcessExit{code, 0}; };
  EXPECT_EQ(platform::interpretAppleScriptResult(exited(0), " 0\n").outcome, AdministratorOutcome::succeeded);
  EXPECT_EQ(platform::interpretAppleScriptResult(exited(1), "0").outcome, AdministratorOutcome::failed);
  EXPECT_EQ(platform::interpretAppleScriptResult(exited(0), "-128\n").outcome, AdministratorOutcome::cancelled);
  EXPECT_EQ(platform::interpretAppleScriptResult(exited(0), "1").outcome, AdministratorOutcome::failed);
  EXPECT_EQ(platform::interpretAppleScriptResult(exited(0), "0\nwarning").outcome, AdministratorOutcome::failed);
  EXPECT_EQ(platform::interpretShellLauncherResult(exited(126), "").outcome, AdministratorOutcome::cancelled);
  EXPECT_EQ(platform::interpretShellLauncherResult(exited(127), "").outcome, AdministratorOutcome::failed);
  EXPECT_EQ(platform::interpretShellLauncherResult(platform::ProcessExit{-1, 9}, "").outcome,
            AdministratorOutcome::failed);
  EXPECT_EQ(platform::interpretShellLauncherResult(exited(0), " done \n").output, "done");
}

TEST(JavaScriptLiteralTest, WritesTheJsonEncodingWithEscapedSlashes) {
  EXPECT_EQ(javaScriptLiteral("/Applications/It's \"Big\".app"), R"("\/Applications\/It's \"Big\".app")");
  EXPECT_EQ(javaScriptLiteral("back\\slash\nline\ttab"), R"("back\\slash\nline\ttab")");
  EXPECT_EQ(javaScriptLiteral("中文.app"), "\"中文.app\"");
  EXPECT_EQ(javaScriptLiteral("12345"), "\"12345\"");
}

TEST(PrivilegedCommandsTest, TheCheckedScriptChecksThreeIdentitiesAndSwapsOnce) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("Item"));
  ASSERT_EQ(::symlink("/x", dir.child("Item.link").c_str()), 0);
  const auto parent = *MigrationEntry::read(dir.path(), AT_FDCWD);
  const auto item = *MigrationEntry::read(dir.child("Item"), AT_FDCWD);
  const auto link = *MigrationEntry::read(dir.child("Item.link"), AT_FDCWD);

  const std::string checked =
      MigrationPrivilegedCommands::exchangeScript(dir.child("Item"), dir.child("Item.link"), ExchangeCheck::checked);
  const std::string swap = "if($.renamex_np(" + javaScriptLiteral(dir.child("Item")) + "," +
                           javaScriptLiteral(dir.child("Item.link")) + ",2)!==0){throw Error('atomic exchange failed');}";
  auto check = [](const std::string& path, const MigrationEntry& entry) {
    return "var a=$.NSFileManager.defaultManager.attributesOfItemAtPathError(" + javaScriptLiteral(path) +
           ",null);if(!a || a.objectForKey($.NSFileSystemFileNumber).stringValue.js!==" +
           javaScriptLiteral(std::to_string(entry.inode)) + " || a.objectForKey($.NSFileSystemNumber).stringValue.js!==" +
           javaScriptLiteral(std::to_string(entry.device)) + "){throw Error('identity changed');}";
  };
  EXPECT_EQ(checked,
            "ObjC.import('Foundation'); ObjC.bindFunction('renamex_np',['int',['char *','char *','unsigned int']]);" +
                check(dir.path(), parent) + check(dir.child("Item"), item) + check(dir.child("Item.link"), link) + swap);

  const std::string rehearsal =
      MigrationPrivilegedCommands::exchangeScript(dir.child("Item"), dir.child("Item.link"), ExchangeCheck::rehearsal);
  EXPECT_EQ(occurrences(rehearsal, "renamex_np("), 2u);
  EXPECT_EQ(occurrences(rehearsal, "identity changed"), 0u);
  EXPECT_EQ(occurrences(checked, "identity changed"), 3u);

  // The checked form is written from what exists now; a missing object is the error of its path.
  try {
    MigrationPrivilegedCommands::exchangeScript(dir.child("Item"), dir.child("absent"), ExchangeCheck::checked);
    FAIL() << "no error for a missing path";
  } catch (const platform::PosixError& error) {
    EXPECT_EQ(error.errnoValue(), ENOENT);
    EXPECT_EQ(error.path(), dir.child("absent"));
  }
}

TEST(PrivilegedCommandsTest, FoundationOperationsAndTheRehearsalAreWrittenAsSpecifiedForOsascript) {
  const MigrationPrivilegedCommands commands(PrivilegedCommandStyle::javaScriptForAutomation, "/unused");
  EXPECT_EQ(MigrationPrivilegedCommands::foundationScript(kCreateSymbolicLinkSelector, "/a/link", "/b/target"),
            "ObjC.import('Foundation'); var error=Ref(); if (!$.NSFileManager.defaultManager."
            "createSymbolicLinkAtPathWithDestinationPathError(\"\\/a\\/link\",\"\\/b\\/target\",error)) { throw "
            "Error('filesystem operation failed'); }");
  EXPECT_EQ(commands.foundationCommand(kRemoveItemSelector, "/a/it's", std::nullopt),
            "/usr/bin/osascript -l JavaScript -e 'ObjC.import('\\''Foundation'\\''); var error=Ref(); if "
            "(!$.NSFileManager.defaultManager.removeItemAtPathError(\"\\/a\\/it'\\''s\",error)) { throw "
            "Error('\\''filesystem operation failed'\\''); }'");

  const std::string probe = "/Apps/.corvane-access-X";
  const std::string rehearsal = commands.rehearsalCommand(probe, "/Apps/It's.app");
  const std::string script =
      MigrationPrivilegedCommands::exchangeScript(probe + "/b", probe + "/link", ExchangeCheck::rehearsal);
  EXPECT_EQ(rehearsal,
            "set -e; /bin/mkdir -m 700 '/Apps/.corvane-access-X'; trap '/bin/rm -f '\\''/Apps/.corvane-access-X/link'\\''; "
            "/bin/rmdir '\\''/Apps/.corvane-access-X/b'\\'' 2>/dev/null; /bin/rmdir '\\''/Apps/.corvane-access-X'\\''' "
            "EXIT; /bin/mkdir '/Apps/.corvane-access-X/a'; /bin/mv '/Apps/.corvane-access-X/a' "
            "'/Apps/.corvane-access-X/b'; /bin/ln -s '/Apps/It'\\''s.app' '/Apps/.corvane-access-X/link'; "
            "/usr/bin/osascript -l JavaScript -e " +
                shellQuote(script));
  EXPECT_EQ(MigrationPrivilegedCommands::removeDirectoriesCommands({"/a/b", "/a"}),
            std::vector<std::string>{"/bin/rmdir '/a/b' '/a'"});
  // A long list is split, children still before their parents, each text within the limit.
  std::vector<std::string> many;
  for (int i = 999; i >= 0; --i) many.push_back("/Applications/Big.app/Contents/directory-" + std::to_string(i));
  const auto split = MigrationPrivilegedCommands::removeDirectoriesCommands(many, 4096);
  EXPECT_GT(split.size(), 1u);
  std::string joined;
  for (const auto& command : split) {
    EXPECT_LE(command.size(), 4096u);
    EXPECT_EQ(command.rfind("/bin/rmdir '", 0), 0u);
    joined += command.substr(std::string("/bin/rmdir").size());
  }
  std::string expected;
  for (const auto& directory : many) expected += " " + shellQuote(directory);
  EXPECT_EQ(joined, expected);
}

TEST(PrivilegedCommandsTest, TheHelperFormNamesTheBinaryAndTheIdentities) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("Item"));
  makeDirectories(dir.child("Other"));
  const MigrationPrivilegedCommands commands(PrivilegedCommandStyle::corvaneHelper, "/opt/it's/corvane");
  const auto parent = *MigrationEntry::read(dir.path(), AT_FDCWD);
  const auto item = *MigrationEntry::read(dir.child("Item"), AT_FDCWD);
  const auto other = *MigrationEntry::read(dir.child("Other"), AT_FDCWD);
  auto id = [](const MigrationEntry& entry) { return std::to_string(entry.device) + ":" + std::to_string(entry.inode); };
  EXPECT_EQ(commands.exchangeCommand(dir.child("Item"), dir.child("Other"), ExchangeCheck::checked),
            "'/opt/it'\\''s/corvane' --corvane-exchange --checked " + shellQuote(dir.child("Item")) + " " +
                shellQuote(dir.child("Other")) + " " + id(parent) + " " + id(item) + " " + id(other));
  EXPECT_EQ(commands.exchangeCommand("/a/b", "/a/link", ExchangeCheck::rehearsal),
            "'/opt/it'\\''s/corvane' --corvane-exchange --rehearse '/a/b' '/a/link'");
  EXPECT_EQ(commands.foundationCommand(kCreateSymbolicLinkSelector, "/a/link", "/b"),
            "'/opt/it'\\''s/corvane' --corvane-file-operation createSymbolicLinkAtPathWithDestinationPathError "
            "'/a/link' '/b'");
}

}  // namespace
}  // namespace corvane
