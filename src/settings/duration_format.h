// Durations for people, in the current language: "1 h 5 min", "1 min 5 s", "12 s".
#pragma once

#include <string>

namespace corvane {

std::string formatDuration(double seconds);

}  // namespace corvane
