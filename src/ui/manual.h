// The manual that Help shows: its pages are compiled into the program and
// written into an installation's folder at start, where the browser can read
// them, whenever the start page is missing there.
#pragma once

#include <string>

namespace kb::ui {

// Writes every page of the manual (and its pictures) below root, replacing
// older copies of them, when root has no start page; nothing when it has
// one. False if a page could not be written.
[[nodiscard]] bool InstallManual(const std::string& root);

}  // namespace kb::ui
