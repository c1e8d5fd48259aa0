// Helpers for the catalogue tests: records made by hand, a disk's record file read and written
// directly, and the names inside a directory.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "catalogue/migrated_app.h"

namespace corvane {

MigratedApp makeRecord(const std::string& name, const std::string& originalPath, const std::string& targetPath,
                       MigratedItemType type = MigratedItemType::directory);

// Writes the records to <disk>/.corvane/migrated_apps.json, creating the directory.
void writeRecordFile(const std::string& disk, const std::vector<MigratedApp>& apps);
std::string recordFilePath(const std::string& disk);

// Every name in the tree below `directory` (relative paths), links not followed.
std::set<std::string> treeNames(const std::string& directory);

// A property list dictionary with CFBundleShortVersionString, as XML or binary bytes.
enum class PropertyListForm { xml, binary };
std::string infoPropertyList(const std::string& version, PropertyListForm form);
// Creates <bundle>/Contents/MacOS and <bundle>/Contents/Info.plist with the version.
void makeBundle(const std::string& bundle, const std::string& version, PropertyListForm form);

}  // namespace corvane
