// CounterTexts: the people counter's own words in the library's 19 languages.
//
// The library's table holds the words of its status lines; an application's own words live with
// the application. text() looks a word up in the language in force (Localization::getLanguage),
// falling back to English, and to the library's table for a key of its own ("actions.status.
// excluded"), so that the overlay follows the configured language with one call.
//
// Threading: the table is read-only and built on first use; safe from any thread.
#pragma once

#include <string>

namespace PeopleCounting {

// Keys: "people", "inView", "entries", "exits", "area", "entrance", "calibrated", "floor".
std::string text(const std::string& key);

} // namespace PeopleCounting
