// The system's index as the gatherer needs it: search roots and rules of the handler's scheme, the queue of changes,
// and the module's own way to report one. COM must be initialised on the calling thread; nothing is kept between calls.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace host {

using Json = nlohmann::ordered_json;

// {"roots":[URL, …],"rules":[{"pattern","included","default","follow"}, …]}; when a step failed with no element in
// either, and "error".
Json SystemRoots();

// {"changes":[{"id","change","url"}, …],"more"}: the oldest first, at most 1,000. Takes nothing away.
Json SystemChanges();
// Takes the changes up to and including `id` away: {"done":id}.
Json ChangesDone(uint64_t id);

// Whether this names a kind of change: add, delete or modify.
bool IsChange(const std::string& change);
// Tells the module of a change of one vault file (its path as the host sees it), or of all when there is no path:
// {"notify","result"}, with "name" where the code has one.
Json Notify(const std::string& change, const std::string& path);

}  // namespace host
