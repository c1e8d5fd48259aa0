#include "support/strings_table.h"

#include <gtest/gtest.h>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

TEST(StringsTableTest, ReadsEscapesCommentsAndUtf8AndEmptyTables) {
  const auto table = StringsTable::parse(
      "\xEF\xBB\xBF/* A header comment with \"quotes\" and = signs; */\n"
      "// a line comment \"not.a.key\" = \"no\";\n"
      "\"quote\" = \"She said \\\"hi\\\"\";\n"
      "\"backslash\" = \"C:\\\\temp\";\n"
      "\"lines\"=\"one\\ntwo\\tthree\\rfour\";  // trailing comment\n"
      "\"unicode\" = \"\\U00e9t\\u00E9 \\ud83d\\ude00\";\n"
      "\"chinese\" = \"迁移完成：{0}\";\n"
      "unquoted.key = \"bare key\";\n"
      "\"short.form\";\n"
      "\"multi\"\n  =\n  /* between */ \"line\n  spanning\";\n");
  EXPECT_EQ(table.text("quote"), "She said \"hi\"");
  EXPECT_EQ(table.text("backslash"), "C:\\temp");
  EXPECT_EQ(table.text("lines"), "one\ntwo\tthree\rfour");
  EXPECT_EQ(table.text("unicode"), "\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80");
  EXPECT_EQ(table.text("chinese"), "迁移完成：{0}");
  EXPECT_EQ(table.text("unquoted.key"), "bare key");
  EXPECT_EQ(table.text("short.form"), "short.form");
  EXPECT_EQ(table.text("multi"), "line\n  spanning");
  EXPECT_FALSE(table.text("not.a.key"));
  EXPECT_EQ(table.size(), 8u);
  EXPECT_EQ(StringsTable::parse("  /* nothing */ \n // here\n").size(), 0u);
}

TEST(StringsTableTest, RepeatedKeysKeepTheLastTextAndStayVisible) {
  const auto table = StringsTable::parse("\"a\" = \"first\";\n\"b\" = \"x\";\n\"a\" = \"second\";\n");
  EXPECT_EQ(table.text("a"), "second");
  ASSERT_EQ(table.entries().size(), 3u);
  EXPECT_EQ(table.entries()[2].line, 3u);
  EXPECT_EQ(table.size(), 2u);
}

TEST(StringsTableTest, MalformedTablesAreRefusedWithTheLine) {
  struct Case {
    const char* contents;
    std::size_t line;
  };
  const Case cases[] = {
      {"\"a\" = \"b\"\n\"c\" = \"d\";", 2},           // missing semicolon, noticed at the next entry
      {"\"a\" = \"never closed;\n", 1},               // unterminated text
      {"\"a\" = \"b\";\n/* open comment\n", 2},       // unterminated comment
      {"\"a\" = \"bad \\q escape\";", 1},             // unknown escape
      {"\"a\" = \"\\ud83d alone\";", 1},              // lone high surrogate
      {"\"a\" = \"\\u0000\";", 1},                    // NUL
      {"\"ok\" = \"x\";\n\"a\" = \"\xC3\x28\";", 2},  // invalid UTF-8
      {"\xFF\xFE\"\0a\0\"\0", 1},                     // a UTF-16 table
      {"\"a\" = ;", 1},                               // no text
      {"= \"b\";", 1},                                // no key
  };
  for (const auto& item : cases) {
    try {
      StringsTable::parse(item.contents);
      ADD_FAILURE() << "accepted: " << item.contents;
    } catch (const StringsFormatError& error) {
      EXPECT_EQ(error.line(), item.line) << item.contents << " → " << error.what();
    }
  }
}

TEST(StringsTableTest, LoadingNeverThrowsAndLogsWhyATableIsMissing) {
  TemporaryDirectory dir;
  CapturedDiagnosticLog log;
  EXPECT_FALSE(StringsTable::load(dir.child("absent.strings")));
  writeFile(dir.child("broken.strings"), "\"a\" = \"b\";\n\"c\" = \"unterminated;\n");
  EXPECT_FALSE(StringsTable::load(dir.child("broken.strings")));
  EXPECT_FALSE(StringsTable::load(dir.path()));  // a directory is not a table
  writeFile(dir.child("good.strings"), "\"a\" = \"b\";\n");
  const auto good = StringsTable::load(dir.child("good.strings"));
  ASSERT_TRUE(good);
  EXPECT_EQ(good->text("a"), "b");
  EXPECT_EQ(log.count("absent.strings"), 1);
  EXPECT_EQ(log.count("broken.strings is malformed"), 1);
  EXPECT_NE(log.text().find("line 2"), std::string::npos) << log.text();
}

}  // namespace
}  // namespace corvane
