// The interface's texts: every visible string is a localization key looked up in the current
// language, handed to Qt as a QString.
#pragma once

#include <QString>
#include <string>
#include <string_view>

#include "settings/localization.h"

namespace corvane::ui {

inline QString qstr(const std::string& text) { return QString::fromStdString(text); }
inline QString text(std::string_view key) { return qstr(localized(key)); }
template <typename... Args>
QString textFormat(std::string_view key, const Args&... arguments) {
  return qstr(localizedFormat(key, arguments...));
}

}  // namespace corvane::ui
