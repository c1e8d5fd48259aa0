#include "settings/system_error_text.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "settings/localization.h"

namespace corvane {
namespace {

constexpr std::pair<int, const char*> kNamedErrors[] = {
    {EPERM, "EPERM"},         {ENOENT, "ENOENT"},   {EIO, "EIO"},
    {EACCES, "EACCES"},       {EBUSY, "EBUSY"},     {EEXIST, "EEXIST"},
    {EXDEV, "EXDEV"},         {ENOTDIR, "ENOTDIR"}, {EISDIR, "EISDIR"},
    {EINVAL, "EINVAL"},       {EMFILE, "EMFILE"},   {ENOSPC, "ENOSPC"},
    {EROFS, "EROFS"},         {ELOOP, "ELOOP"},     {ENAMETOOLONG, "ENAMETOOLONG"},
    {ENOTEMPTY, "ENOTEMPTY"}, {EDQUOT, "EDQUOT"},   {ETIMEDOUT, "ETIMEDOUT"},
    {ENOTSUP, "ENOTSUP"},     {ENODEV, "ENODEV"},   {ENXIO, "ENXIO"},
    {EFBIG, "EFBIG"},         {ETXTBSY, "ETXTBSY"},
};

}  // namespace

std::optional<std::string> systemErrorKey(int errnoValue) {
  for (const auto& [value, name] : kNamedErrors) {
    if (value == errnoValue) return std::string("error.errno.") + name;
  }
  return std::nullopt;
}

std::string localizedSystemError(int errnoValue) {
  if (const auto key = systemErrorKey(errnoValue)) return localized(*key);
  return std::strerror(errnoValue);
}

}  // namespace corvane
