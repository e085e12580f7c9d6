// Route lines as the control plane and the route files give them:
// "PREFIX NEXTHOP [VRF]", '#' starting a comment, blank lines ignored.
#pragma once

#include <string>
#include <string_view>

#include "agent/XpLpmAgent.h"

namespace XpLib {
namespace Agent {

enum class LineKind { route, skip, error };

// Parses one line; on error `why` says what is wrong with it.
LineKind parseRouteLine(std::string_view line, Route& out, std::string& why);

}  // namespace Agent
}  // namespace XpLib
