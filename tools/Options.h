// The tool's command line, as parsed: one struct for every command's options.
#pragma once

#include <string>
#include <vector>

#include "platform/Types.h"

namespace xplpm {

struct Options {
  std::string command;  // run, restart, churn, show, lookup, capacity, serve, fpm-send, profile list, profile show
  std::string family;
  std::string routes;
  std::string profile = "reference";
  XpLib::U32 groups = 256;
  std::string nhiFiling = "own";
  bool verify = false;
  XpLib::U64 probes = 1000000;
  bool json = false;
  int trace = -1;
  std::string traceFile;
  XpLib::U64 seed = 1;
  XpLib::U64 ops = 5000;
  XpLib::U64 changes = 0;
  bool skipBad = false;
  bool allowFailed = false;
  bool check = false;  // run, restart, churn: the state machines' own checks at the end
  std::string what;  // show
  std::string svg;   // show fill
  bool jsonLines = false;             // show: a header record, one record per item, an end record
  int table = -1;                     // show: only this prefix table (-1: every table)
  XpLib::U64 limit = ~XpLib::U64(0);  // show: at most this many items
  std::vector<std::string> queries;  // lookup: addresses and prefixes
  std::vector<std::string> profiles;  // capacity: several profiles side by side
  std::vector<double> growth;         // capacity: percentages of growth to try
  double failureRate = 1.0;           // capacity: percent of added routes failing that ends the run
  XpLib::U32 vrf = 0;                // lookup
  std::string profileName;   // profile show
  // serve
  std::string fpmListen = "127.0.0.1:2620";
  std::string jsonOut;
  std::string state;
  std::vector<std::string> vrfMaps;  // TABLE=VRF
  double reconcileAfter = 5;
  std::string fibOut;
  // fpm-send
  std::string connect;
  std::string style = "objects";
  XpLib::U32 multipathSets = 16;
  bool withdraw = false;
  double wait = 60;
};

}  // namespace xplpm
