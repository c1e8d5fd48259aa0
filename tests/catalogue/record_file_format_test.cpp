#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "catalogue/migrated_apps_file_format.h"
#include "catalogue/sorted_pretty_json.h"

namespace corvane {
namespace {

// Written by hand in the shape the macOS program's encoder produces (pretty printed, sorted
// keys, escaped slashes, empty arrays on two lines, no final newline).
const std::string kMacFile = R"([
  {
    "appName" : "微信.app",
    "backupVersions" : [
      {
        "backupDate" : 725760000,
        "backupPath" : "\/Volumes\/Disk\/Applications\/微信_backup_20240101_000000.app",
        "exists" : true,
        "id" : "0B0F1C6E-2D4A-4E35-9A0B-6F1D2C3B4A59"
      },
      {
        "backupDate" : -31536000.25,
        "backupPath" : "\/Volumes\/Disk\/Applications\/微信_backup_20000101_000000.app",
        "exists" : false,
        "id" : "7C9E6679-7425-40DE-944B-E07FC1F90AE7"
      }
    ],
    "id" : "F47AC10B-58CC-4372-A567-0E02B2C3D479",
    "itemType" : "app",
    "migratedDate" : 735000000.123456,
    "originalPath" : "\/Applications\/微信.app",
    "rollbackScriptPath" : "",
    "supportFiles" : [

    ],
    "targetPath" : "\/Volumes\/Disk\/Applications\/微信.app"
  },
  {
    "appName" : "Projects \"old\" \\ tab\t",
    "backupVersions" : [

    ],
    "id" : "3D813CBB-47FB-32BA-91DF-831E1593AC29",
    "itemType" : "dir",
    "migratedDate" : 0,
    "originalPath" : "\/Users\/a\/Projects \"old\"",
    "rollbackScriptPath" : "\/Volumes\/Disk\/.corvane\/rollback.sh",
    "supportFiles" : [
      "\/Users\/a\/Library\/Preferences\/com.example.plist",
      "\/Users\/a\/Library\/Caches\/com.example"
    ],
    "targetPath" : "\/Volumes\/Disk\/Directories\/Users\/a\/Projects \"old\""
  }
])";

TEST(RecordFileFormatTest, FileOfTheMacProgramLoadsWithItsValuesAndWritesBackByteForByte) {
  const auto apps = MigratedAppsFileFormat::decode(kMacFile);
  ASSERT_EQ(apps.size(), 2u);
  const MigratedApp& app = apps[0];
  EXPECT_EQ(app.originalPath, "/Applications/微信.app");
  EXPECT_EQ(app.itemType, MigratedItemType::application);
  EXPECT_DOUBLE_EQ(app.migratedDate.secondsSinceReferenceDate, 735000000.123456);
  ASSERT_EQ(app.backupVersions.size(), 2u);
  // 725760000 s after 2001-01-01 is 2024-01-01 00:00:00 UTC; a reader on the Unix epoch would
  // land in 1993.
  EXPECT_DOUBLE_EQ(app.backupVersions[0].backupDate.unixSeconds(), 1704067200.0);
  EXPECT_TRUE(app.backupVersions[0].exists);
  EXPECT_FALSE(app.backupVersions[1].exists);
  EXPECT_DOUBLE_EQ(app.backupVersions[1].backupDate.unixSeconds(), 978307200.0 - 31536000.25);
  const MigratedApp& folder = apps[1];
  EXPECT_EQ(folder.itemType, MigratedItemType::directory);
  EXPECT_EQ(folder.appName, "Projects \"old\" \\ tab\t");
  EXPECT_EQ(folder.supportFiles.size(), 2u);
  EXPECT_EQ(MigratedAppsFileFormat::encode(apps), kMacFile);

  // Lower-case identifiers are read and written upper-case.
  std::string lower = kMacFile;
  lower.replace(lower.find(app.id), app.id.size(), "f47ac10b-58cc-4372-a567-0e02b2c3d479");
  EXPECT_EQ(MigratedAppsFileFormat::encode(MigratedAppsFileFormat::decode(lower)), kMacFile);
}

TEST(RecordFileFormatTest, DatesSurviveRewritingAndNumbersAndTextTakeTheEncodersForms) {
  MigratedApp app = MigratedAppsFileFormat::decode(kMacFile)[0];
  app.migratedDate = ReferenceDate::fromUnixSeconds(1714558245.987654321);
  const std::string first = MigratedAppsFileFormat::encode({app, app});
  EXPECT_EQ(MigratedAppsFileFormat::decode(first), (std::vector<MigratedApp>{app, app}));
  EXPECT_EQ(MigratedAppsFileFormat::encode(MigratedAppsFileFormat::decode(first)), first);
  EXPECT_EQ(MigratedAppsFileFormat::encode({}), "[\n\n]");
  nlohmann::json value = nlohmann::json::object({{"b", "a/b\x01\x1f\b\f\n\r\t\"\\é"}, {"a", nlohmann::json::array()}});
  EXPECT_EQ(encodeSortedPrettyJson(value),
            "{\n  \"a\" : [\n\n  ],\n  \"b\" : \"a\\/b\\u0001\\u001f\\b\\f\\n\\r\\t\\\"\\\\é\"\n}");
  for (const auto& [number, text] : std::vector<std::pair<double, std::string>>{
           {0.1, "0.1"}, {0.00001, "1e-05"}, {1e16, "1e+16"}, {9007199254740991.0, "9007199254740991"}}) {
    EXPECT_EQ(formatJsonDouble(number), text);
  }
}

// Replaces the first occurrence of `from` in the fixture.
std::string fixtureWith(const std::string& from, const std::string& to) {
  std::string file = kMacFile;
  const auto at = file.find(from);
  if (at == std::string::npos)
    ADD_FAILURE() << "fixture lacks " << from;
  else
    file.replace(at, from.size(), to);
  return file;
}

TEST(RecordFileFormatTest, AnyMissingKeyNullOrWrongTypeMakesTheWholeFileUnreadable) {
  const std::vector<std::string> recordLines = {
      "\"appName\" : \"微信.app\",",
      "\"id\" : \"F47AC10B-58CC-4372-A567-0E02B2C3D479\",",
      "\"itemType\" : \"app\",",
      "\"migratedDate\" : 735000000.123456,",
      "\"originalPath\" : \"\\/Applications\\/微信.app\",",
      "\"rollbackScriptPath\" : \"\",",
      "\"backupDate\" : 725760000,",
      "\"exists\" : true,",
  };
  for (const auto& line : recordLines) {
    SCOPED_TRACE(line);
    EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith(line, "")), MigratedAppsFormatError);
    const std::string key = line.substr(0, line.find(" : "));
    EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith(line, key + " : null,")), MigratedAppsFormatError);
    EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith(line, key + " : [],")), MigratedAppsFormatError);
  }
  // The last keys of their objects (no comma after them).
  EXPECT_THROW(MigratedAppsFileFormat::decode(
                   fixtureWith(",\n    \"targetPath\" : \"\\/Volumes\\/Disk\\/Applications\\/微信.app\"", "")),
               MigratedAppsFormatError);
  EXPECT_THROW(
      MigratedAppsFileFormat::decode(fixtureWith(",\n        \"id\" : \"0B0F1C6E-2D4A-4E35-9A0B-6F1D2C3B4A59\"", "")),
      MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith("\"supportFiles\" : [\n\n    ],", "")),
               MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith("\"supportFiles\" : [\n\n    ]", "\"supportFiles\" : [ 7 ]")),
               MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith("\"exists\" : true", "\"exists\" : 1")),
               MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(
                   fixtureWith("\"migratedDate\" : 735000000.123456", "\"migratedDate\" : \"2024-01-01\"")),
               MigratedAppsFormatError);
  for (const std::string date : {"1e999", "1e300", "-9.2e18"}) {
    EXPECT_THROW(MigratedAppsFileFormat::decode(
                     fixtureWith("\"migratedDate\" : 735000000.123456", "\"migratedDate\" : " + date)),
                 MigratedAppsFormatError)
        << date;
  }
  EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith("F47AC10B-58CC-4372-A567-0E02B2C3D479", "not-a-uuid")),
               MigratedAppsFormatError);
  // Only the two short type names decode.
  for (const std::string type : {"application", "directory", "App", "", "app "}) {
    EXPECT_THROW(
        MigratedAppsFileFormat::decode(fixtureWith("\"itemType\" : \"app\"", "\"itemType\" : \"" + type + "\"")),
        MigratedAppsFormatError)
        << type;
  }
  EXPECT_THROW(MigratedAppsFileFormat::decode("{}"), MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode("[ 1 ]"), MigratedAppsFormatError);
}

// Relative and climbing paths are read as written, as the macOS program reads them: a file
// holding one stays readable, and what acts on a path refuses it there. Only a text that no
// system takes as a path makes the file unreadable.
TEST(RecordFileFormatTest, PathsAreReadAsWrittenUnlessNoSystemCouldTakeThem) {
  const std::string original = "\"originalPath\" : \"\\/Applications\\/微信.app\"";
  const std::string target = "\"targetPath\" : \"\\/Volumes\\/Disk\\/Applications\\/微信.app\"";
  const std::string backup = "\"backupPath\" : \"\\/Volumes\\/Disk\\/Applications\\/微信_backup_20240101_000000.app\"";
  const std::string support = "\"\\/Users\\/a\\/Library\\/Caches\\/com.example\"";
  const std::string rollback = "\"rollbackScriptPath\" : \"\\/Volumes\\/Disk\\/.corvane\\/rollback.sh\"";
  struct Readable {
    std::string from, to, value;
  };
  const std::vector<Readable> readable = {
      {original, "\"originalPath\" : \"Applications\\/微信.app\"", "Applications/微信.app"},
      {original, "\"originalPath\" : \"\"", ""},
      {original, "\"originalPath\" : \"\\/Applications\\/..\\/..\\/etc\"", "/Applications/../../etc"},
      {target, "\"targetPath\" : \"\\/Volumes\\/Disk\\/..\\/..\\/\"", "/Volumes/Disk/../../"},
      {target, "\"targetPath\" : \"\\/Volumes\\/Disk\\/.\\/Applications\"", "/Volumes/Disk/./Applications"},
      {backup, "\"backupPath\" : \"..\\/x\"", "../x"},
      {support, "\"~\\/Library\"", "~/Library"},
      {support, "\"\\/Users\\/a\\/..\"", "/Users/a/.."},
      {rollback, "\"rollbackScriptPath\" : \"rollback.sh\"", "rollback.sh"},
      {rollback, "\"rollbackScriptPath\" : \"\\/Volumes\\/Disk\\/..\\/rollback.sh\"", "/Volumes/Disk/../rollback.sh"},
  };
  for (const auto& [from, to, value] : readable) {
    SCOPED_TRACE(to);
    const std::string file = fixtureWith(from, to);
    std::vector<MigratedApp> apps;
    ASSERT_NO_THROW(apps = MigratedAppsFileFormat::decode(file));
    const std::vector<std::string> read = {apps[0].originalPath, apps[0].targetPath,
                                           apps[0].backupVersions[0].backupPath, apps[1].supportFiles[1],
                                           apps[1].rollbackScriptPath};
    EXPECT_NE(std::find(read.begin(), read.end(), value), read.end());
    // Written back unchanged, so a file read and saved keeps what the other program wrote.
    EXPECT_EQ(MigratedAppsFileFormat::encode(apps), file);
  }

  const std::vector<std::pair<std::string, std::string>> unusable = {
      {target, "\"targetPath\" : \"\\/Volumes\\/Disk\\u0000\\/x\""},
      {support, "\"\\/Users\\u0000\""},
      {original, "\"originalPath\" : \"\\/" + std::string(5000, 'a') + "\""},
      {"\"appName\" : \"微信.app\"", "\"appName\" : \"" + std::string(100000, 'x') + "\""},
  };
  for (const auto& [from, to] : unusable) {
    SCOPED_TRACE(to.substr(0, 80));
    EXPECT_THROW(MigratedAppsFileFormat::decode(fixtureWith(from, to)), MigratedAppsFormatError);
  }
}

TEST(RecordFileFormatTest, TruncatedGarbledAndAbusiveInputsFailCleanly) {
  // Every prefix of a valid file is unreadable (the last one is the whole file).
  for (std::size_t length = 0; length < kMacFile.size(); length += 7) {
    EXPECT_THROW(MigratedAppsFileFormat::decode(std::string_view(kMacFile).substr(0, length)), MigratedAppsFormatError)
        << "prefix of " << length << " bytes";
  }
  EXPECT_THROW(MigratedAppsFileFormat::decode(std::string(200000, '[')), MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(std::string(200000, '[') + std::string(200000, ']')),
               MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(
                   fixtureWith("微信.app\",\n    \"backupVersions", "\xff\xfe.app\",\n    \"backupVersions")),
               MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(std::string("\0[]", 3)), MigratedAppsFormatError);
  EXPECT_THROW(MigratedAppsFileFormat::decode(std::string(MigratedAppsFileFormat::kMaximumFileSize + 1, ' ')),
               MigratedAppsFormatError);
}

TEST(RecordFileFormatTest, UnencodableRecordsAreReportedInsteadOfWritten) {
  MigratedApp app = MigratedAppsFileFormat::decode(kMacFile)[0];
  app.originalPath = "/home/user/caf\xe9";  // Latin-1, not UTF-8
  EXPECT_THROW(MigratedAppsFileFormat::encode({app}), MigratedAppsFormatError);
  app.originalPath = "/home/user/\xed\xa0\x80";  // an encoded surrogate
  EXPECT_THROW(MigratedAppsFileFormat::encode({app}), MigratedAppsFormatError);
  app.originalPath = "/ok";
  app.migratedDate.secondsSinceReferenceDate = std::numeric_limits<double>::infinity();
  EXPECT_THROW(MigratedAppsFileFormat::encode({app}), MigratedAppsFormatError);
}

}  // namespace
}  // namespace corvane
