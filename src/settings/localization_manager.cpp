#include "settings/localization_manager.h"

#include <utility>

#include "platform/preferred_languages.h"
#include "settings/resource_directory.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

constexpr std::string_view kLanguageSettingKey = "AppLanguage";
constexpr std::string_view kTableFileName = "Localizable.strings";
constexpr std::string_view kDevelopmentLanguage = "en";

std::string joined(std::string_view first, std::string_view second) {
  std::string text(first);
  text += second;
  return text;
}

}  // namespace

LocalizationManager& LocalizationManager::shared() {
  static LocalizationManager instance(Configuration{locateResourceDirectory(), platform::preferredLanguages});
  return instance;
}

LocalizationManager::LocalizationManager(Configuration configuration) : configuration_(std::move(configuration)) {
  if (!configuration_.preferredLanguages) configuration_.preferredLanguages = platform::preferredLanguages;
  const auto stored = settings_.string(kLanguageSettingKey);
  const auto language = stored ? parseLanguage(*stored) : std::nullopt;
  if (language) {
    savedLanguage_ = *language;
    logInfo(joined("📱 加载已保存的语言设置: ", rawValue(*language)));
  } else {
    savedLanguage_ = Language::system;
    // A failure to save is logged by the store; the next start then counts as a first start too.
    static_cast<void>(settings_.setString(kLanguageSettingKey, rawValue(Language::system)));
    logInfo("📱 首次启动，设置为跟随系统");
  }
  currentLanguage_ = savedLanguage_;
  logDebug(joined("📱 当前语言设置: ", rawValue(currentLanguage_)));
  std::lock_guard lock(mutex_);
  updateBundle();
}

Language LocalizationManager::currentLanguage() const {
  std::lock_guard lock(mutex_);
  return currentLanguage_;
}

Language LocalizationManager::savedLanguage() const {
  std::lock_guard lock(mutex_);
  return savedLanguage_;
}

std::string LocalizationManager::languageCode() const {
  std::lock_guard lock(mutex_);
  return code_;
}

bool LocalizationManager::setCurrentLanguage(Language language) {
  const bool saved = settings_.setString(kLanguageSettingKey, rawValue(language));
  {
    std::lock_guard lock(mutex_);
    savedLanguage_ = language;
  }
  switchLanguage(language);
  return saved;
}

void LocalizationManager::useLanguageForThisRun(Language language) { switchLanguage(language); }

void LocalizationManager::switchLanguage(Language language) {
  {
    std::lock_guard lock(mutex_);
    currentLanguage_ = language;
    updateBundle();
  }
  observers_.notify(language);
}

Subscription LocalizationManager::observe(Observer observer) { return observers_.add(std::move(observer)); }

std::string LocalizationManager::codeFor(Language language) const {
  if (language == Language::system) return systemLanguageCode(configuration_.preferredLanguages());
  // Every chosen language's saved value is its code.
  return std::string(rawValue(language));
}

// Called with the lock held.
void LocalizationManager::updateBundle() {
  code_ = codeFor(currentLanguage_);
  if (currentLanguage_ == Language::system) logDebug("🌍 跟随系统，检测到系统语言: " + code_);
  logDebug("🔄 切换语言到: " + code_);
  if (const auto cached = bundles_.find(code_); cached != bundles_.end()) {
    bundle_ = cached->second;
    logDebug("✅ 使用缓存的语言包: " + code_);
  } else if (!configuration_.resourceDirectory) {
    logWarning("❌ 无法获取资源路径，使用默认 Bundle");
    bundle_ = mainBundle();
  } else {
    logDebug("📂 资源路径: " + *configuration_.resourceDirectory);
    const std::string directory = *configuration_.resourceDirectory + "/" + code_ + ".lproj";
    logDebug("🔍 尝试加载语言包: " + directory);
    if (auto loaded = loadBundle(directory)) {
      logDebug("✅ 从 Resources 目录加载语言包: " + directory);
      bundles_[code_] = loaded;
      bundle_ = std::move(loaded);
    } else {
      logWarning("❌ 未找到语言包，使用主 Bundle");
      bundle_ = mainBundle();
    }
  }
  testBundle();
}

LocalizationManager::Bundle LocalizationManager::loadBundle(const std::string& directory) {
  auto table = StringsTable::load(directory + "/" + std::string(kTableFileName));
  if (!table) return nullptr;
  return std::make_shared<const StringsTable>(std::move(*table));
}

// Called with the lock held.
LocalizationManager::Bundle LocalizationManager::getOrCreateBundle(const std::string& code) {
  if (const auto cached = bundles_.find(code); cached != bundles_.end()) return cached->second;
  if (configuration_.resourceDirectory) {
    if (auto loaded = loadBundle(*configuration_.resourceDirectory + "/" + code + ".lproj")) {
      bundles_[code] = loaded;
      return loaded;
    }
  }
  return mainBundle();
}

// The tables of the development language, used whenever the chosen language's own tables are
// missing. Called with the lock held.
LocalizationManager::Bundle LocalizationManager::mainBundle() {
  if (!mainBundleLoaded_) {
    mainBundleLoaded_ = true;
    if (configuration_.resourceDirectory) {
      mainBundle_ = loadBundle(*configuration_.resourceDirectory + "/" + std::string(kDevelopmentLanguage) + ".lproj");
    }
    if (!mainBundle_) mainBundle_ = std::make_shared<const StringsTable>();
  }
  return mainBundle_;
}

void LocalizationManager::testBundle() const {
  const auto title = lookup(bundle_, "app.title");
  logDebug("🧪 测试读取 'app.title': " + title.value_or("app.title"));
}

std::optional<std::string> LocalizationManager::lookup(const Bundle& bundle, std::string_view key) {
  if (!bundle) return std::nullopt;
  const auto text = bundle->text(key);
  // A table that gives a key as its own text has no translation for it.
  if (!text || *text == key) return std::nullopt;
  return std::string(*text);
}

std::string LocalizationManager::localized(std::string_view key) {
  std::lock_guard lock(mutex_);
  if (auto text = lookup(bundle_, key)) return std::move(*text);
  if (code_ != kDevelopmentLanguage) {
    if (auto text = lookup(getOrCreateBundle(std::string(kDevelopmentLanguage)), key)) {
      logInfo(joined("⚠️ 从英文回退: ", key));
      return std::move(*text);
    }
  }
  logWarning(joined("❌ 未能找到本地化字符串: ", key));
  return std::string(key);
}

}  // namespace corvane
