#include "catalogue/migrated_apps_file_format.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>

#include "catalogue/sorted_pretty_json.h"
#include "support/uuid.h"

namespace corvane {
namespace {

using Json = nlohmann::json;

[[noreturn]] void fail(const std::string& where, const std::string& problem) {
  throw MigratedAppsFormatError(where + ": " + problem);
}

const Json& requireKey(const Json& object, const char* key, const std::string& where) {
  const auto found = object.find(key);
  if (found == object.end()) fail(where, std::string("missing key \"") + key + "\"");
  if (found->is_null()) fail(where, std::string("\"") + key + "\" is null");
  return *found;
}

std::string requireString(const Json& object, const char* key, const std::string& where) {
  const Json& value = requireKey(object, key, where);
  if (!value.is_string()) fail(where, std::string("\"") + key + "\" is not a string");
  return value.get<std::string>();
}

std::string requireUuid(const Json& object, const char* key, const std::string& where) {
  std::string text = requireString(object, key, where);
  if (!isUuidString(text)) fail(where, std::string("\"") + key + "\" is not a UUID");
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

ReferenceDate requireDate(const Json& object, const char* key, const std::string& where) {
  const Json& value = requireKey(object, key, where);
  if (!value.is_number()) fail(where, std::string("\"") + key + "\" is not a number");
  const double seconds = value.get<double>();
  if (!std::isfinite(seconds)) fail(where, std::string("\"") + key + "\" is not a finite number");
  // Beyond about ±8000 years the date overflows the calendar types it is shown with.
  if (std::fabs(seconds) > 2.5e11) fail(where, std::string("\"") + key + "\" is out of range");
  return ReferenceDate{seconds};
}

bool requireBool(const Json& object, const char* key, const std::string& where) {
  const Json& value = requireKey(object, key, where);
  if (!value.is_boolean()) fail(where, std::string("\"") + key + "\" is not a boolean");
  return value.get<bool>();
}

const Json& requireArray(const Json& object, const char* key, const std::string& where) {
  const Json& value = requireKey(object, key, where);
  if (!value.is_array()) fail(where, std::string("\"") + key + "\" is not an array");
  return value;
}

// A path is read as it stands, relative or climbing through "..": the macOS program reads it so,
// and whatever acts on a path checks it there. Only a text no system can take as a path is
// refused: with a NUL the system would see a shorter path, naming another place.
void requireUsablePath(const std::string& path, const std::string& field, const std::string& where) {
  if (path.size() > MigratedAppsFileFormat::kMaximumPathLength) fail(where, "\"" + field + "\" is too long");
  if (path.find('\0') != std::string::npos) fail(where, "\"" + field + "\" contains a NUL character");
}

std::string requirePath(const Json& object, const char* key, const std::string& where) {
  std::string path = requireString(object, key, where);
  requireUsablePath(path, key, where);
  return path;
}

BackupRecord decodeBackup(const Json& value, const std::string& where) {
  if (!value.is_object()) fail(where, "not an object");
  BackupRecord backup;
  backup.id = requireUuid(value, "id", where);
  backup.backupPath = requirePath(value, "backupPath", where);
  backup.backupDate = requireDate(value, "backupDate", where);
  backup.exists = requireBool(value, "exists", where);
  return backup;
}

MigratedApp decodeApp(const Json& value, const std::string& where) {
  if (!value.is_object()) fail(where, "not an object");
  MigratedApp app;
  app.id = requireUuid(value, "id", where);
  app.appName = requireString(value, "appName", where);
  if (app.appName.size() > MigratedAppsFileFormat::kMaximumPathLength || app.appName.find('\0') != std::string::npos)
    fail(where, "\"appName\" is not a usable name");
  app.originalPath = requirePath(value, "originalPath", where);
  app.targetPath = requirePath(value, "targetPath", where);
  app.rollbackScriptPath = requirePath(value, "rollbackScriptPath", where);
  app.migratedDate = requireDate(value, "migratedDate", where);
  const Json& supportFiles = requireArray(value, "supportFiles", where);
  for (std::size_t index = 0; index < supportFiles.size(); ++index) {
    const Json& file = supportFiles[index];
    if (!file.is_string()) fail(where, "\"supportFiles\" holds something other than a string");
    app.supportFiles.push_back(file.get<std::string>());
    requireUsablePath(app.supportFiles.back(), "supportFiles", where);
  }
  const std::string type = requireString(value, "itemType", where);
  const auto itemType = migratedItemTypeFromStoredValue(type);
  if (!itemType) fail(where, "\"itemType\" is neither \"app\" nor \"dir\"");
  app.itemType = *itemType;
  const Json& backups = requireArray(value, "backupVersions", where);
  for (std::size_t index = 0; index < backups.size(); ++index)
    app.backupVersions.push_back(decodeBackup(backups[index], where + ", backup " + std::to_string(index)));
  return app;
}

Json encodeApp(const MigratedApp& app) {
  Json backups = Json::array();
  for (const auto& backup : app.backupVersions) {
    backups.push_back(Json::object({{"id", backup.id},
                                    {"backupPath", backup.backupPath},
                                    {"backupDate", backup.backupDate.secondsSinceReferenceDate},
                                    {"exists", backup.exists}}));
  }
  return Json::object({{"id", app.id},
                       {"appName", app.appName},
                       {"originalPath", app.originalPath},
                       {"targetPath", app.targetPath},
                       {"rollbackScriptPath", app.rollbackScriptPath},
                       {"migratedDate", app.migratedDate.secondsSinceReferenceDate},
                       {"supportFiles", app.supportFiles},
                       {"itemType", std::string(storedValue(app.itemType))},
                       {"backupVersions", std::move(backups)}});
}

}  // namespace

std::string MigratedAppsFileFormat::encode(const std::vector<MigratedApp>& apps) {
  Json list = Json::array();
  for (const auto& app : apps) list.push_back(encodeApp(app));
  try {
    return encodeSortedPrettyJson(list);
  } catch (const JsonEncodingError& error) {
    throw MigratedAppsFormatError(error.what());
  }
}

std::vector<MigratedApp> MigratedAppsFileFormat::decode(std::string_view data) {
  if (data.size() > kMaximumFileSize) throw MigratedAppsFormatError("the file is too large");
  Json document;
  try {
    document = Json::parse(data.begin(), data.end());
  } catch (const Json::exception& error) {
    throw MigratedAppsFormatError(std::string("not JSON: ") + error.what());
  }
  if (!document.is_array()) throw MigratedAppsFormatError("the top level is not an array");
  std::vector<MigratedApp> apps;
  apps.reserve(document.size());
  for (std::size_t index = 0; index < document.size(); ++index)
    apps.push_back(decodeApp(document[index], "record " + std::to_string(index)));
  return apps;
}

}  // namespace corvane
