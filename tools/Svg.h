// `show fill --svg FILE`: the fill of every prefix table and NHI tile as a bar chart.
#pragma once

#include <string>

#include "Session.h"

namespace xplpm {

// Writes the chart of the session's last survey; throws BadInput when the file cannot be written.
void writeFillSvg(Session& s, const std::string& path);

}  // namespace xplpm
