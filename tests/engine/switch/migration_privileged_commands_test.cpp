#include "engine/switch/migration_privileged_commands.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/item_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "support/apple_script.h"
#include "support/javascript_literal.h"
#include "support/shell_quote.h"

// The macOS forms of the privileged commands cannot run here, so their exact texts are checked;
// the helper forms are run for real by the access tests.
namespace corvane {
namespace {

using platform::AdministratorOutcome;

TEST(AppleScriptTest, TheScriptKeepsTheMeaningOfAnyCommandAndItsAnswerIsReadStrictly) {
  EXPECT_EQ(administratorAppleScript("/bin/rmdir '/a b'"),
            "try\n    do shell script \"/bin/rmdir '/a b'\" with administrator privileges\n    return \"0\"\n"
            "on error message number errorNumber\n    return errorNumber as string\nend try");
  const std::string command = "printf '%s' \"a\\\\b\"; echo 'it'\\''s'\r\n/bin/ln -s \"x\" y";
  const std::string escaped = appleScriptStringEscape(command);
  // Read back the way AppleScript reads a literal; no unescaped quote may end it early.
  EXPECT_EQ(escaped.find_first_of("\n\r"), std::string::npos);
  std::string unescaped;
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    EXPECT_NE(escaped[i], '"') << "at " << i;
    const char next = escaped[i] == '\\' ? escaped.at(++i) : 0;
    unescaped.push_back(next == 0 ? escaped[i] : next == 'n' ? '\n' : next == 'r' ? '\r' : next);
  }
  EXPECT_EQ(unescaped, command);
  // What the launchers answer is read strictly: anything unexpected is a failure.
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

TEST(PrivilegedCommandsTest, TheCheckedScriptChecksThreeIdentitiesAndSwapsOnce) {
  // Paths enter the scripts as JSON strings with escaped slashes.
  EXPECT_EQ(javaScriptLiteral("/Applications/It's \"Big\".app"), R"("\/Applications\/It's \"Big\".app")");
  EXPECT_EQ(javaScriptLiteral("back\\slash\nline\ttab"), R"("back\\slash\nline\ttab")");
  EXPECT_EQ(javaScriptLiteral("中文.app"), "\"中文.app\"");
  TemporaryDirectory dir;
  const std::string item = dir.child("Item"), link = dir.child("Item.link");
  makeDirectories(item);
  ASSERT_EQ(::symlink("/x", link.c_str()), 0);
  std::string expected =
      "ObjC.import('Foundation'); ObjC.bindFunction('renamex_np',['int',['char *','char *','unsigned int']]);";
  for (const std::string& path : {dir.path(), item, link}) {
    const auto entry = *entryAt(path);
    expected +=
        "var a=$.NSFileManager.defaultManager.attributesOfItemAtPathError(" + javaScriptLiteral(path) +
        ",null);if(!a || a.objectForKey($.NSFileSystemFileNumber).stringValue.js!==" +
        javaScriptLiteral(std::to_string(entry.inode)) +
        " || a.objectForKey($.NSFileSystemNumber).stringValue.js!==" + javaScriptLiteral(std::to_string(entry.device)) +
        "){throw Error('identity changed');}";
  }
  const std::string swap = "if($.renamex_np(" + javaScriptLiteral(item) + "," + javaScriptLiteral(link) +
                           ",2)!==0){throw Error('atomic exchange failed');}";
  EXPECT_EQ(MigrationPrivilegedCommands::exchangeScript(item, link, ExchangeCheck::checked), expected + swap);
  // The rehearsal swaps there and back without checks.
  EXPECT_EQ(MigrationPrivilegedCommands::exchangeScript(item, link, ExchangeCheck::rehearsal),
            expected.substr(0, expected.find("var a=")) + swap + swap);
  // The checked form is written from what exists now; a missing object is the error of its path.
  try {
    MigrationPrivilegedCommands::exchangeScript(item, dir.child("absent"), ExchangeCheck::checked);
    FAIL() << "no error for a missing path";
  } catch (const platform::PosixError& error) {
    EXPECT_EQ(error.errnoValue(), ENOENT);
    EXPECT_EQ(error.path(), dir.child("absent"));
  }
}

TEST(PrivilegedCommandsTest, CommandsQuoteTheirScriptsAndBinaryAndSplitLongRemovals) {
  const MigrationPrivilegedCommands script(platform::PrivilegedCommandStyle::javaScriptForAutomation, "/unused");
  EXPECT_EQ(MigrationPrivilegedCommands::foundationScript(kCreateSymbolicLinkSelector, "/a/link", "/b/target"),
            "ObjC.import('Foundation'); var error=Ref(); if (!$.NSFileManager.defaultManager."
            "createSymbolicLinkAtPathWithDestinationPathError(\"\\/a\\/link\",\"\\/b\\/target\",error)) { throw "
            "Error('filesystem operation failed'); }");
  EXPECT_EQ(script.foundationCommand(kRemoveItemSelector, "/a/it's", std::nullopt),
            "/usr/bin/osascript -l JavaScript -e 'ObjC.import('\\''Foundation'\\''); var error=Ref(); if "
            "(!$.NSFileManager.defaultManager.removeItemAtPathError(\"\\/a\\/it'\\''s\",error)) { throw "
            "Error('\\''filesystem operation failed'\\''); }'");
  const MigrationPrivilegedCommands helper(platform::PrivilegedCommandStyle::corvaneHelper, "/opt/it's/corvane");
  EXPECT_EQ(helper.exchangeCommand("/a/b", "/a/link", ExchangeCheck::rehearsal),
            "'/opt/it'\\''s/corvane' --corvane-exchange --rehearse '/a/b' '/a/link'");
  EXPECT_EQ(MigrationPrivilegedCommands::removeDirectoriesCommands({"/a/b", "/a"}),
            std::vector<std::string>{"/bin/rmdir '/a/b' '/a'"});
  // A long list is split, children still before their parents, each text within the limit.
  std::vector<std::string> many;
  for (int i = 999; i >= 0; --i) many.push_back("/Applications/Big.app/Contents/directory-" + std::to_string(i));
  const auto split = MigrationPrivilegedCommands::removeDirectoriesCommands(many, 4096);
  EXPECT_GT(split.size(), 1u);
  std::string joined, expected;
  for (const auto& command : split) {
    EXPECT_LE(command.size(), 4096u);
    EXPECT_EQ(command.rfind("/bin/rmdir '", 0), 0u);
    joined += command.substr(std::string("/bin/rmdir").size());
  }
  for (const auto& directory : many) expected += " " + shellQuote(directory);
  EXPECT_EQ(joined, expected);
}

}  // namespace
}  // namespace corvane
