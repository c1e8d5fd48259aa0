#include "catalogue/reference_date.h"

#include <chrono>

namespace corvane {

ReferenceDate ReferenceDate::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return fromUnixSeconds(std::chrono::duration<double>(sinceEpoch).count());
}

}  // namespace corvane
