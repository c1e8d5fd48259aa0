// The AppleScript text that runs one shell command "with administrator privileges" and returns
// its error number as text ("0" on success). Built here, portably, so the exact text is tested
// everywhere although only macOS runs it.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Escapes a text for the inside of an AppleScript string literal: backslashes doubled, then
// double quotes, line feeds and carriage returns written as \" \n \r.
std::string appleScriptStringEscape(std::string_view text);
// The lighter escape the disk-protection and Terminal scripts use: backslashes doubled, then
// double quotes written as \"; line breaks stay real line breaks inside the literal, which
// AppleScript accepts.
std::string appleScriptQuoteEscape(std::string_view text);

std::string administratorAppleScript(std::string_view shellCommand);

}  // namespace corvane
