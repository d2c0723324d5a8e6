// Where qvstore finds the client library when --library is not given.
#pragma once

#include <string>
#include <vector>

namespace Quorvendale::Qvstore {

// The paths tried, in order: the installed library that belongs to this
// qvstore (beside it, as the installation lays out its folders, found from
// the program's own file, never through LD_LIBRARY_PATH), then the library's
// SONAME, which the loader looks up. An installed qvstore names no folder of
// the build that made it: a build tree's qvstore finds its library by
// SONAME through the build's RUNPATH, which installing removes.
std::vector<std::string> defaultLibraryCandidates();

// The first candidate that is a path and exists, else the last (the SONAME).
std::string chooseDefaultLibrary(const std::vector<std::string>& candidates);

}  // namespace Quorvendale::Qvstore
