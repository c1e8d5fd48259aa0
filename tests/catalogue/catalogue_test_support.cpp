#include "catalogue/catalogue_test_support.h"

#include <plist/plist.h>

#include <filesystem>
#include <stdexcept>

#include "catalogue/migrated_apps_file_format.h"
#include "fixtures/sample_tree.h"
#include "support/uuid.h"

namespace corvane {

MigratedApp makeRecord(const std::string& name, const std::string& originalPath, const std::string& targetPath,
                       MigratedItemType type) {
  MigratedApp app;
  app.id = makeUuidString();
  app.appName = name;
  app.originalPath = originalPath;
  app.targetPath = targetPath;
  app.migratedDate = ReferenceDate::fromUnixSeconds(1714558245.5);
  app.itemType = type;
  return app;
}

std::string recordFilePath(const std::string& disk) { return disk + "/.corvane/migrated_apps.json"; }

void writeRecordFile(const std::string& disk, const std::vector<MigratedApp>& apps) {
  makeDirectories(disk + "/.corvane");
  writeFile(recordFilePath(disk), MigratedAppsFileFormat::encode(apps));
}

std::set<std::string> treeNames(const std::string& directory) {
  std::set<std::string> names;
  std::error_code error;  // a missing directory has no names
  for (std::filesystem::recursive_directory_iterator it(directory, error), end; it != end; it.increment(error)) {
    names.insert(std::filesystem::relative(it->path(), directory).string());
  }
  return names;
}

std::string infoPropertyList(const std::string& version, PropertyListForm form) {
  plist_t dictionary = plist_new_dict();
  plist_dict_set_item(dictionary, "CFBundleIdentifier", plist_new_string("com.example.test"));
  plist_dict_set_item(dictionary, "CFBundleShortVersionString", plist_new_string(version.c_str()));
  plist_dict_set_item(dictionary, "CFBundleVersion", plist_new_uint(42));
  char* data = nullptr;
  uint32_t length = 0;
  if (form == PropertyListForm::xml) {
    plist_to_xml(dictionary, &data, &length);
  } else {
    plist_to_bin(dictionary, &data, &length);
  }
  plist_free(dictionary);
  if (data == nullptr) throw std::runtime_error("libplist wrote nothing");
  std::string bytes(data, length);
  free(data);
  return bytes;
}

void makeBundle(const std::string& bundle, const std::string& version, PropertyListForm form) {
  makeDirectories(bundle + "/Contents/MacOS");
  writeFile(bundle + "/Contents/Info.plist", infoPropertyList(version, form));
}

}  // namespace corvane
