// The fill chart.
#include "Svg.h"

#include <fstream>
#include <utility>
#include <vector>

#include "Errors.h"

namespace xplpm {

namespace {

std::string xmlText(const std::string& text) {
  std::string out;
  for (char c : escaped(text)) {
    if (c == '<') {
      out += "&lt;";
    } else if (c == '&') {
      out += "&amp;";
    } else if (c == '>') {
      out += "&gt;";
    } else {
      out += c;
    }
  }
  return out;
}

std::vector<std::pair<std::string, double>> fillRows(Session& s) {
  std::vector<std::pair<std::string, double>> rows;
  for (bool v6 : {false, true}) {
    const std::string family = v6 ? "IPv6" : "IPv4";
    for (const auto& t : s.figures().family[v6].tables)
      rows.emplace_back(family + std::string(" table ") + std::to_string(t.tableId) + std::string(" tread ") + std::to_string(t.tread),
                        double(t.occupied) / t.depth);
    for (const auto& n : s.figures().family[v6].nhi)
      rows.emplace_back(family + std::string(" NHI tile ") + std::to_string(n.tile), n.entries ? double(n.used) / n.entries : 0);
  }
  return rows;
}

}  // namespace

void writeFillSvg(Session& s, const std::string& path) {
  std::ofstream out(path);
  if (!out) badFile(path, 0, "cannot write the file");
  const auto rows = fillRows(s);
  const int h = 22 * static_cast<int>(rows.size()) + 40;
  out << "<svg xmlns='http://www.w3.org/2000/svg' width='760' height='" << h << "' font-family='sans-serif' font-size='12'>\n"
      << "<text x='10' y='20' font-size='14'>Fill after programming (" << xmlText(s.profile().name) << " profile)</text>\n";
  int y = 40;
  for (const auto& [label, fill] : rows) {
    out << "<text x='10' y='" << y + 12 << "'>" << label << "</text>"
        << "<rect x='220' y='" << y << "' width='400' height='16' fill='#eee'/>"
        << "<rect x='220' y='" << y << "' width='" << 400 * fill << "' height='16' fill='#3a7'/>"
        << "<text x='630' y='" << y + 12 << "'>" << static_cast<int>(fill * 1000) / 10.0 << "%</text>\n";
    y += 22;
  }
  out << "</svg>\n";
  if (!out.flush()) badFile(path, 0, "cannot write the file");
}

}  // namespace xplpm
