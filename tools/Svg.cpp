// The fill and capacity charts: one layout, fed by the survey or by the capacity report.
#include "Svg.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <optional>
#include <vector>

#include "Errors.h"
#include "Human.h"
#include "ModelJson.h"
#include "Resources.h"

namespace xplpm {

using nlohmann::json;

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

struct Bar {
  std::string label;
  U64 used = 0, total = 0;
  std::optional<U64> atFailure;  // used when the first route failed
  bool named = false;            // the resource the callout names
};

struct Section {
  std::string title;
  std::vector<Bar> bars;
};

struct Chart {
  std::string title;
  std::vector<std::string> lines;  // under the title
  std::vector<std::pair<std::string, Threshold>> callouts;  // the bottlenecks, in the colour of their fill
  std::vector<Section> sections;
  bool failureMarks = false;  // the legend explains the grey bars
};

const char* colourOf(Threshold t) { return t == Threshold::high ? "#c62828" : t == Threshold::low ? "#e6a100" : "#2e7d32"; }

// Layout, in pixels.
constexpr int kWidth = 1040, kBarX = 330, kBarWidth = 420, kRow = 20, kSectionGap = 26;

double xAt(double fraction) { return kBarX + kBarWidth * std::min(1.0, fraction); }

void writeBar(std::ostream& out, const Bar& b, int y) {
  const Threshold level = thresholdOf(b.used, b.total);
  const double fill = b.total ? double(b.used) / double(b.total) : 0;
  out << "<text x='36' y='" << y + 12 << "'" << (b.named ? " font-weight='bold'" : "") << ">" << xmlText(b.label)
      << (b.named ? " \u25C0" : "") << "</text>"
      << "<rect x='" << kBarX << "' y='" << y << "' width='" << kBarWidth << "' height='14' fill='#eeeeee'/>";
  if (b.atFailure && b.total)
    out << "<rect x='" << kBarX << "' y='" << y << "' width='" << xAt(double(*b.atFailure) / double(b.total)) - kBarX
        << "' height='14' fill='#b0b0b0'/>";
  out << "<rect x='" << kBarX << "' y='" << y + 2 << "' width='" << xAt(fill) - kBarX << "' height='10' fill='"
      << colourOf(level) << "'/>"
      << "<text x='" << kBarX + kBarWidth + 10 << "' y='" << y + 12 << "' fill='" << colourOf(level) << "'>"
      << percentText(b.used, b.total) << "</text>";
  if (b.atFailure)
    out << "<text x='" << kBarX + kBarWidth + 64 << "' y='" << y + 12 << "' fill='#555555'>"
        << percentText(*b.atFailure, b.total) << " at the first failure</text>";
  out << "\n";
}

void writeLegend(std::ostream& out, const Chart& c, int y) {
  const struct {
    const char* colour;
    const char* text;
  } keys[] = {{colourOf(Threshold::ok), "below 70 %"},
              {colourOf(Threshold::low), "70 % and up (CRM low threshold)"},
              {colourOf(Threshold::high), "85 % and up (CRM high threshold)"},
              {"#b0b0b0", "used when the first added route failed"}};
  int x = 20;
  for (std::size_t i = 0; i < (c.failureMarks ? 4u : 3u); ++i) {
    out << "<rect x='" << x << "' y='" << y << "' width='12' height='12' fill='" << keys[i].colour << "'/><text x='" << x + 18
        << "' y='" << y + 11 << "'>" << keys[i].text << "</text>\n";
    x += 30 + 7 * static_cast<int>(std::string(keys[i].text).size());
  }
}

void writeChart(const Chart& c, const std::string& path) {
  std::ofstream out(path);
  if (!out) badFile(path, 0, "cannot write the file");
  int rows = 0;
  for (const Section& s : c.sections) rows += static_cast<int>(s.bars.size());
  const int top = 34 + 18 * static_cast<int>(c.lines.size()) + 20 * static_cast<int>(c.callouts.size()) + 14;
  const int height = top + kSectionGap * static_cast<int>(c.sections.size()) + kRow * rows + 40;
  out << "<?xml version='1.0' encoding='UTF-8'?>\n"
      << "<svg xmlns='http://www.w3.org/2000/svg' width='" << kWidth << "' height='" << height
      << "' font-family='DejaVu Sans, Arial, sans-serif' font-size='12'>\n"
      << "<rect width='100%' height='100%' fill='white'/>\n"
      << "<text x='20' y='24' font-size='16' font-weight='bold'>" << xmlText(c.title) << "</text>\n";
  int y = 44;
  for (const std::string& line : c.lines) {
    out << "<text x='20' y='" << y << "'>" << xmlText(line) << "</text>\n";
    y += 18;
  }
  for (const auto& [text, level] : c.callouts) {
    out << "<text x='20' y='" << y + 4 << "' font-weight='bold' fill='" << colourOf(level) << "'>" << xmlText(text)
        << "</text>\n";
    y += 20;
  }
  y = top;
  const int barsTop = y + kSectionGap - 14;
  for (const Section& s : c.sections) {
    out << "<text x='20' y='" << y + 16 << "' font-weight='bold'>" << xmlText(s.title) << "</text>\n";
    y += kSectionGap;
    for (const Bar& b : s.bars) {
      writeBar(out, b, y);
      y += kRow;
    }
  }
  for (double mark : {kThresholdLow, kThresholdHigh})
    out << "<line x1='" << xAt(mark / 100) << "' y1='" << barsTop << "' x2='" << xAt(mark / 100) << "' y2='" << y
        << "' stroke='#444444' stroke-dasharray='3,3'/>\n";
  writeLegend(out, c, y + 14);
  out << "</svg>\n";
  if (!out.flush()) badFile(path, 0, "cannot write the file");
}

std::string upper(const std::string& family) { return family == "ipv6" ? "IPv6" : family == "ipv4" ? "IPv4" : family; }

}  // namespace

void writeFillSvg(Session& s, const json& report, const std::string& path) {
  Chart c;
  c.title = "Fill of the " + report["profile"].get<std::string>() + " profile after programming " + report["input"].get<std::string>();
  Bar* fullest = nullptr;
  std::string fullestIn;
  for (bool v6 : {false, true}) {
    const Tally& t = s.figures().programmed;
    if (t.requested[v6] == 0) continue;
    const std::string family = upper(familyKey(v6));
    c.lines.push_back(family + ": " + std::to_string(t.requested[v6]) + " routes requested, " + std::to_string(t.installed[v6]) +
                      " installed, " + std::to_string(t.requested[v6] - t.installed[v6]) + " failed");
    Section tables{family + " prefix tables", {}}, tiles{family + " NHI tiles", {}};
    for (const auto& f : s.figures().family[v6].tables)
      tables.bars.push_back({"table " + std::to_string(f.tableId) + ", tread " + std::to_string(f.tread), f.occupied, f.depth, {}});
    for (const auto& n : s.figures().family[v6].nhi) tiles.bars.push_back({"tile " + std::to_string(n.tile), n.used, n.entries, {}});
    c.sections.push_back(tables);
    c.sections.push_back(tiles);
  }
  const auto& nh = *s.agent().nextHopSm()->allocator();
  c.sections.push_back({"Next-hop table", {{"entries", U64(nh.entriesCapacity() - nh.freeEntries()), nh.entriesCapacity(), {}}}});
  for (Section& sec : c.sections)
    for (Bar& b : sec.bars)
      if (!fullest || double(b.used) * double(fullest->total) > double(fullest->used) * double(b.total)) {
        fullest = &b;
        fullestIn = sec.title;
      }
  c.callouts.emplace_back("Fullest: " + fullestIn + ", " + fullest->label + " at " + percentText(fullest->used, fullest->total),
                          thresholdOf(fullest->used, fullest->total));
  fullest->named = true;
  c.lines.push_back("Headroom is not measured here: xplpm capacity adds routes of the table's mix until they fail.");
  writeChart(c, path);
}

void writeCapacitySvg(const json& report, const std::string& input, const std::string& path) {
  Chart c;
  c.failureMarks = true;
  c.title = "Capacity of the " + report["profile"].get<std::string>() + " profile for " + input;
  const json& cap = report["capacity"];
  std::vector<std::string> ranOut;  // the resources the first failures name
  char rate[32];
  std::snprintf(rate, sizeof rate, "%g%%", cap["failure_rate"].get<double>());
  for (const char* family : {"ipv4", "ipv6"}) {
    if (!cap.contains(family)) continue;
    const json& f = cap[family];
    c.lines.push_back(upper(family) + ": " + std::to_string(f["table_routes"].get<U64>()) + " routes placed, " +
                      std::to_string(f["table_failed"].get<U64>()) + " failed; headroom " + headroomText(f, "first_failure") +
                      " before the first failure, " + headroomText(f, "failure_rate") + " before " + rate + " failed");
    for (const json& g : f["growth"]) c.lines.push_back(upper(family) + " growth " + growthText(g, f));
    if (!f["first_failure"].is_null() && f["first_failure"].contains("resource")) {
      const json& r = f["first_failure"]["resource"];
      c.callouts.emplace_back(upper(family) + " runs out first: " + ranOutText(f),
                              thresholdOf(r["used"], r["used"].get<U64>() + r["available"].get<U64>()));
      ranOut.push_back(r["resource"]);
    }
  }
  for (const json& r : report["resources"]) {
    const std::string family = r["family"].get<std::string>();
    std::string title = family == "shared" ? r["kind"].get<std::string>() : upper(family) + " " + r["kind"].get<std::string>();
    title[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(title[0])));
    if (c.sections.empty() || c.sections.back().title != title) c.sections.push_back({title, {}});
    Bar b{r["name"].get<std::string>().empty() ? r["kind"].get<std::string>() : r["name"].get<std::string>(), r["used"],
          r["used"].get<U64>() + r["available"].get<U64>(), {}};
    if (!r["used_at_first_failure"].is_null()) b.atFailure = r["used_at_first_failure"].get<U64>();
    b.named = std::find(ranOut.begin(), ranOut.end(), r["resource"].get<std::string>()) != ranOut.end();
    c.sections.back().bars.push_back(b);
  }
  writeChart(c, path);
}

}  // namespace xplpm
