// Where qvstore finds the client library when --library is not given.
#pragma once

#include <string>
#include <vector>

namespace Quorvendale::Qvstore {

// The paths tried, in order: the installed library that belongs to this
// qvstore (beside it, as the installation lays out its folders, found from
// the program's own file, never through LD_LIBRARY_PATH), then the library of
// the build tree that made it.
std::vector<std::string> defaultLibraryCandidates();

// The first candidate that exists; std::runtime_error naming every candidate
// if none does.
std::string chooseDefaultLibrary(const std::vector<std::string>& candidates);

}  // namespace Quorvendale::Qvstore
