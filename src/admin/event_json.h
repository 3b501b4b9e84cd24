// Events and other records as the JSON lines the console writes, shared by
// the console and the admin server so the two print the same objects.
#pragma once

#include <ostream>
#include <string>

#include <nlohmann/json.hpp>
#include <qel/types.h>

namespace qel::admin {

// Keys keep the order they were written in, so "event" and "command" come
// first.
using Json = nlohmann::ordered_json;

// The event's parameters as an object keyed by their names; a range is
// {"lngStart","lngEnd","lngLen"}.
Json EventFields(const typEvent& event);

// Writes line and a newline, byte for byte as json's compact dump() would
// for its UTF-8 strings, through buffer (kept to a few slices: a message
// body of many MiB is never held whole a second time). A string that is not
// UTF-8 goes out as Latin-1, its key listed in "latin1" at the end of its
// object.
void WriteJsonLine(std::ostream& out, const Json& line, std::string& buffer);

// {"event":NAME,...its fields} and a newline, as the console's --json writes it.
std::string EventLine(const typEvent& event);

}  // namespace qel::admin
